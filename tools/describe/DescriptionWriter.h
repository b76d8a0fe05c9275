#ifndef LODESTONE_TOOLS_DESCRIPTIONWRITER_H
#define LODESTONE_TOOLS_DESCRIPTIONWRITER_H

#include "DescriptionEncoder.h"
#include "RecordLayout.h"

#include <ostream>
#include <string>

namespace Lodestone
{

/// What the tool prints. A stream's failure is the caller's to look at.

/// C and C++ source with the array and its getter `sondeGet_<name>`. It includes `header`, which declares the
/// getter and the types sonde_uint8_t and sonde_size_t.
void writeSource(std::ostream& out, const std::string& name, const std::string& header,
                 const DescriptionEncoder::Bytes& array);

/// Header for such a source. For C++ it also has `describes_<name><Record>()`, which is true at compile time
/// if the sizes, offsets and scalar types of `Record` are those of the layout, and names the field that
/// differs if not.
void writeHeader(std::ostream& out, const std::string& name, const RecordLayout& layout);

/// A table for people: one line a field, offsets from the start of the record.
void writeDump(std::ostream& out, const RecordLayout& layout, const DescriptionEncoder& encoder,
               std::size_t arraySize);

} // namespace Lodestone

#endif
