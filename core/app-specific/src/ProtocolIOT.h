#ifndef LODESTONE_APP_PROTOCOLIOT_H
#define LODESTONE_APP_PROTOCOLIOT_H

#include <cstddef>
#include <cstdint>

namespace Lodestone
{

/// The records of the IOT stream as they stand on the wire: little-endian, no fill, nothing between two
/// items. They are sent as they lie in memory, so their layout is the wire format and the machine must be
/// little-endian. The byte format for authors of clients is docs/protocol.md.

/// Opens every cycle.
struct IOT_CycleHeader
{
    std::int32_t version;                 ///< Always 0.
    std::int32_t cycleCounter;            ///< Number of the cycle, wraps at 2^32.
    std::int32_t numberOfChannelsInCycle; ///< Channel entries that follow, the diagnostics pair included.
};

/// Opens every channel entry; partByteSize bytes of payload follow.
struct IOT_ChannelHeader
{
    std::int32_t channelID;
    std::int32_t numberOfParts; ///< 1 for a whole buffer.
    std::int32_t totalSize;     ///< Bytes of the whole buffer, the same in all its parts.
    std::int32_t partNumber;    ///< From 0; negative in a ONCE cycle.
    std::int32_t partByteSize;  ///< Bytes that follow, may be 0.
};

static_assert(sizeof(IOT_CycleHeader) == 12, "wire format");
static_assert(offsetof(IOT_CycleHeader, version) == 0, "wire format");
static_assert(offsetof(IOT_CycleHeader, cycleCounter) == 4, "wire format");
static_assert(offsetof(IOT_CycleHeader, numberOfChannelsInCycle) == 8, "wire format");

static_assert(sizeof(IOT_ChannelHeader) == 20, "wire format");
static_assert(offsetof(IOT_ChannelHeader, channelID) == 0, "wire format");
static_assert(offsetof(IOT_ChannelHeader, numberOfParts) == 4, "wire format");
static_assert(offsetof(IOT_ChannelHeader, totalSize) == 8, "wire format");
static_assert(offsetof(IOT_ChannelHeader, partNumber) == 12, "wire format");
static_assert(offsetof(IOT_ChannelHeader, partByteSize) == 16, "wire format");

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "records go out as they lie in memory");

} // namespace Lodestone

#endif
