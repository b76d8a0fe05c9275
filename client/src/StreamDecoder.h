#ifndef LODESTONE_CLIENT_STREAMDECODER_H
#define LODESTONE_CLIENT_STREAMDECODER_H

#include "StreamEvents.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace LodestoneTap
{

/// Turns the bytes of one connection into cycles and channel entries (docs/protocol.md), whatever the sizes
/// of the pieces in which they arrive. It keeps no more than one header and one part, and checks every field
/// before it acts on it.
///
/// One decoder per connection, since the stream has no mark to begin at but its first byte. After a
/// StreamError the decoder is of no further use. One thread at a time.
class StreamDecoder
{
public:
    /// More entries than this in a cycle are taken for a stream that has lost its place.
    static constexpr std::int32_t MAX_ENTRIES = 1 << 20;

    /// Borrows both for its whole life. Part payloads are claimed from `budget`.
    StreamDecoder(StreamEvents& events, MemoryBudget& budget) : m_events(events), m_budget(budget) {}

    /// Takes the next `size` bytes and delivers all events that they complete. Throws StreamError.
    void feed(const std::uint8_t* data, std::size_t size);

    /// Bytes taken so far.
    std::uint64_t offset() const { return m_offset; }

    /// A cycle has begun and isn't complete: a stream that ends here was cut off.
    bool insideCycle() const { return m_state != State::CYCLE_HEADER || m_headerFill > 0; }

private:
    enum class State
    {
        CYCLE_HEADER,
        CHANNEL_HEADER,
        PAYLOAD
    };

    std::size_t takeHeader(const std::uint8_t* data, std::size_t size);
    std::size_t takePayload(const std::uint8_t* data, std::size_t size);
    void cycleHeaderDone();
    void channelHeaderDone();
    void entryDone();

    void checkCycleKind();
    void checkParts() const;
    void checkSizes() const;
    [[noreturn]] void failInHeader(std::size_t fieldOffset, const std::string& reason) const;
    template<typename Step>
    void atEntry(Step step) const;

    StreamEvents& m_events;
    MemoryBudget& m_budget;

    State m_state = State::CYCLE_HEADER;
    std::uint64_t m_offset = 0;       // of the next byte
    std::uint64_t m_headerOffset = 0; // of the header that was read last
    std::array<std::uint8_t, sizeof(Lodestone::IOT_ChannelHeader)> m_header = {}; // the longer of the two
    std::size_t m_headerFill = 0;

    Cycle m_cycle;
    std::int32_t m_entriesLeft = 0;
    std::int32_t m_oncePartNumber = 0; // of the cycle's first entry, if that is negative
    ChannelEntry m_entry;
};

} // namespace LodestoneTap

#endif
