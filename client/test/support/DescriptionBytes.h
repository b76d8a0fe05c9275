#ifndef LODESTONE_CLIENT_TEST_DESCRIPTIONBYTES_H
#define LODESTONE_CLIENT_TEST_DESCRIPTIONBYTES_H

#include "DescriptionEncoder.h"
#include "StreamBytes.h"

#include <cstddef>
#include <string>

namespace LodestoneTapTest
{

/// The description of a record with this layout, in the language of lodestone-describe.
Lodestone::DescriptionEncoder described(const std::string& layout);

/// Any bytes where the payload's description is, with a header that announces `announced` of them.
Bytes deflated(const Bytes& description, std::size_t announced);

/// The library's own record: queue length 3, 12 skipped, packages of channel 100 in slot 0 and 7 in slot 2.
Bytes diagnosticsRecord();

/// Its description's payload as the library sends it: filled up with zeros to 256 bytes.
Bytes diagnosticsDescription();

} // namespace LodestoneTapTest

#endif
