#ifndef LODESTONE_CLIENT_STREAMMODEL_H
#define LODESTONE_CLIENT_STREAMMODEL_H

#include "BufferAssembler.h"
#include "RateMeter.h"
#include "StreamDecoder.h"
#include "StreamPicture.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace LodestoneTap
{

/// What one reader of a stream may use.
struct StreamLimits
{
    static constexpr std::uint64_t DEFAULT_MEMORY = std::uint64_t{256} << 20;

    std::uint64_t memoryBytes =
        DEFAULT_MEMORY; ///< For payloads, descriptions and the list of channels together.
    std::size_t maxInflatedBytes = RecordDescription::DEFAULT_MAX_INFLATED; ///< Of one description.
};

/// Everything that can be told about a stream without knowing the host: channels, rates, described records.
///
/// Bytes go in with the time of their arrival, pictures come out. A channel N is a described record if
/// channel N + 1 carries a description; the newest record and its description are kept, other payloads are
/// not. A stream that ends or breaks leaves the model as it was, so a last picture can still be taken. One
/// model per connection, one thread at a time.
class StreamModel : private StreamEvents
{
public:
    typedef RateMeter::TimePoint TimePoint;

    /// `connected` is when the connection was made.
    explicit StreamModel(TimePoint connected, const StreamLimits& limits = StreamLimits());

    /// Throws StreamError; the model takes no more bytes after that.
    void feed(const std::uint8_t* data, std::size_t size, TimePoint now);

    /// The state at `now`. The records in it are valid until the next feed().
    StreamPicture picture(TimePoint now) const;

    /// A stream that ends here was cut off in the middle of a cycle.
    bool insideCycle() const { return m_decoder.insideCycle(); }

private:
    struct Record
    {
        std::uint32_t cycle;
        Payload payload;
    };
    struct Description
    {
        MemoryClaim claim;
        std::vector<std::uint8_t> bytes; // as received, to see cheaply that it hasn't changed
        RecordDescription description;
    };
    struct Channel
    {
        Channel(MemoryClaim memoryClaim, TimePoint streamStart)
            : claim(std::move(memoryClaim)), bufferRate(streamStart), byteRate(streamStart)
        {}

        MemoryClaim claim;
        ChannelKind kind = ChannelKind::WHOLE;
        std::int32_t size = 0;
        std::int32_t numberOfParts = 1;
        std::uint64_t buffers = 0;
        std::uint64_t lost = 0;
        std::uint64_t orphanParts = 0;
        std::optional<TimePoint> newest;
        RateMeter bufferRate;
        RateMeter byteRate;
        std::optional<Record> record;                   // if the next channel describes this one
        std::unique_ptr<const Description> description; // of the channel before this one
    };

    void cycleBegin(const Cycle& cycle) override;
    void channelEntry(const Cycle& cycle, ChannelEntry& entry) override;
    void cycleEnd(const Cycle& cycle) override;

    Channel& channelOf(std::int32_t channelID);
    void bufferDone(Channel& channel, std::int32_t channelID, Record record);
    void takeDescription(Channel& channel, std::int32_t channelID, const Payload& payload);
    const RecordDescription* descriptionOf(std::int32_t channelID) const;
    void keepRecord(std::int32_t channelID, Record record);
    ChannelPicture channelPicture(std::int32_t channelID, const Channel& channel, TimePoint now) const;

    const std::size_t m_maxInflatedBytes;
    MemoryBudget m_budget; // before everything that holds a claim
    BufferAssembler m_assembler;
    StreamDecoder m_decoder;

    TimePoint m_connected;
    TimePoint m_now; // of the bytes that are being fed
    std::optional<TimePoint> m_firstByte;
    std::optional<RateMeter> m_byteRate; // from the first byte on
    std::optional<RateMeter> m_cycleRate;
    std::uint64_t m_normalCycles = 0;
    std::uint64_t m_onceCycles = 0;
    std::uint64_t m_missedCycles = 0;
    std::uint32_t m_newestCycle = 0;

    std::map<std::int32_t, Channel> m_channels;
    // The buffer before the one in work: a record usually stands right before its description, and before the
    // first description nothing tells that it is one.
    std::int32_t m_previousChannel = -1;
    std::optional<Record> m_previous;
};

} // namespace LodestoneTap

#endif
