#ifndef LODESTONE_CLIENT_STREAMPICTURE_H
#define LODESTONE_CLIENT_STREAMPICTURE_H

#include "HostDiagnostics.h"
#include "RecordDescription.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace LodestoneTap
{

/// How a channel's newest entry came.
enum class ChannelKind
{
    WHOLE,
    SPLIT,
    ONCE
};

/// "whole", "split" or "once".
inline const char* kindName(ChannelKind kind)
{
    return kind == ChannelKind::WHOLE ? "whole" : kind == ChannelKind::SPLIT ? "split" : "once";
}

/// One channel as seen so far. Rates are over the last seconds, see RateMeter.
struct ChannelPicture
{
    std::int32_t channelID = 0;
    ChannelKind kind = ChannelKind::WHOLE;
    std::int32_t size = 0;          ///< Bytes of the newest buffer; 0 for an empty one.
    std::int32_t numberOfParts = 1; ///< Of the newest buffer.
    double buffersPerSecond = 0.0;  ///< Complete ones.
    double bytesPerSecond = 0.0;    ///< Payload, of incomplete buffers too.
    std::optional<double> age_s;    ///< Since the newest complete buffer.
    std::uint64_t buffers = 0;      ///< Complete ones.
    std::uint64_t lost = 0;         ///< Buffers that began and never became complete.
    std::uint64_t orphanParts = 0;  ///< Parts of buffers that began before the stream was joined.
    std::string recordName;         ///< Of the record that the channel carries, if it is described.
    bool isDescription = false;     ///< It describes the channel before it.
};

/// The newest record of a described channel. Borrows both from the model.
struct RecordPicture
{
    std::int32_t channelID = 0;
    std::uint32_t cycle = 0; ///< In which its last part came.
    const RecordDescription* description = nullptr;
    const std::vector<std::uint8_t>* bytes = nullptr;
};

/// The state of a stream at one moment, ready to be shown.
struct StreamPicture
{
    double streaming_s = 0.0; ///< Since the first byte of the connection; 0 if there was none.
    double silent_s = 0.0;    ///< Since the newest byte, or since the connection was made.
    std::uint64_t bytes = 0;
    std::uint64_t normalCycles = 0;
    std::uint64_t onceCycles = 0;
    std::uint64_t missedCycles = 0; ///< Numbers left out between two cycles of this connection.
    std::uint32_t newestCycle = 0;  ///< cycleCounter of the newest complete cycle.
    double cyclesPerSecond = 0.0;
    double bytesPerSecond = 0.0;          ///< Of everything on the wire.
    std::vector<ChannelPicture> channels; ///< In rising order of their ids.
    std::vector<RecordPicture> records;   ///< In rising order of their channels.
    std::optional<HostDiagnostics> host;  ///< Once a NORMAL cycle has been read.
};

} // namespace LodestoneTap

#endif
