#ifndef LODESTONE_CLIENT_STREAMEVENTS_H
#define LODESTONE_CLIENT_STREAMEVENTS_H

#include "MemoryBudget.h"
#include "ProtocolIOT.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace LodestoneTap
{

/// Bytes of a buffer or of one of its parts, with their share of the budget. Moved, never copied.
struct Payload
{
    MemoryClaim claim; // before the bytes, so that it is given back after they are freed
    std::vector<std::uint8_t> bytes;

    /// Appends the next `size` of `finalSize` bytes. Memory grows with what has come: a size that is only
    /// announced costs a claim and no byte.
    void append(const std::uint8_t* data, std::size_t size, std::size_t finalSize)
    {
        const std::size_t needed = bytes.size() + size;
        if (needed > bytes.capacity()) {
            bytes.reserve(std::min(finalSize, std::max(needed, 2 * bytes.capacity())));
        }
        bytes.insert(bytes.end(), data, data + size);
    }
};

/// What the first entry of a cycle tells about the whole cycle.
enum class CycleKind
{
    UNKNOWN, ///< No entry yet.
    NORMAL,
    ONCE
};

/// The cycle that is being read.
struct Cycle
{
    std::uint32_t cycleCounter = 0;
    std::int32_t numberOfEntries = 0; ///< At least 1.
    CycleKind kind = CycleKind::UNKNOWN;
};

/// One channel entry. The header has been checked against the protocol: the id isn't negative, the part
/// number fits the number of parts, and partByteSize is what the slicing rule gives.
///
/// A host that hands over a buffer of 2^31 bytes or more makes the library send a negative totalSize and no
/// payload. That is an empty buffer, not a broken stream.
struct ChannelEntry
{
    Lodestone::IOT_ChannelHeader header = {};
    Payload payload; ///< Exactly partByteSize bytes.
};

/// Receives the events of a stream in wire order. All calls come from inside StreamDecoder::feed, on its
/// thread. A ReaderError that a handler throws leaves feed as a StreamError with the place of the event.
class StreamEvents
{
public:
    virtual ~StreamEvents() = default;

    /// The kind of the cycle isn't known yet.
    virtual void cycleBegin(const Cycle& cycle) = 0;

    /// The handler may move the payload out of the entry, which is gone after the call.
    virtual void channelEntry(const Cycle& cycle, ChannelEntry& entry) = 0;

    virtual void cycleEnd(const Cycle& cycle) = 0;
};

} // namespace LodestoneTap

#endif
