#ifndef LODESTONE_CLIENT_JSONPICTURE_H
#define LODESTONE_CLIENT_JSONPICTURE_H

#include "StreamPicture.h"

#include <string>

namespace LodestoneTap
{

/// The picture as one JSON document on one line, for scripts. Units stand in the keys; the records have all
/// their fields, arrays as arrays; the fields of a record that would make the document longer than 256 MiB
/// are null. `error` is why the stream is over, empty while it isn't.
std::string jsonPicture(const StreamPicture& picture, const std::string& endpoint, const std::string& error);

} // namespace LodestoneTap

#endif
