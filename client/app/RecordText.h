#ifndef LODESTONE_CLIENT_RECORDTEXT_H
#define LODESTONE_CLIENT_RECORDTEXT_H

#include "RecordView.h"

#include <string>
#include <vector>

namespace LodestoneTap
{

/// The fields of a record as aligned lines, one field a line. An array of structures stands as columns side
/// by side, without the elements that are all zero; of long arrays the first elements are shown and the rest
/// counted. After 10000 fields the rest of the record is left out.
std::vector<std::string> recordText(const RecordView& record);

} // namespace LodestoneTap

#endif
