#ifndef LODESTONE_CLIENT_TEXTPICTURE_H
#define LODESTONE_CLIENT_TEXTPICTURE_H

#include "StreamPicture.h"

#include <string>
#include <vector>

namespace LodestoneTap
{

/// The picture as lines of ASCII text for people: a head line, the channels, the host, the described records.
/// `endpoint` names the host in the head line.
std::vector<std::string> textPicture(const StreamPicture& picture, const std::string& endpoint);

} // namespace LodestoneTap

#endif
