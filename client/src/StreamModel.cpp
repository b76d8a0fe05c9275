#include "StreamModel.h"

#include "ReaderError.h"

#include <algorithm>
#include <utility>

namespace LodestoneTap
{

namespace
{

// More than a channel's entry costs with its node in the map.
constexpr std::uint64_t CHANNEL_OVERHEAD = 1024;
// A decoded field takes some 150 bytes and at least 26 bytes of the description.
constexpr std::uint64_t DECODED_FACTOR = 8;

double seconds(StreamModel::TimePoint from, StreamModel::TimePoint to)
{
    return std::max(std::chrono::duration<double>(to - from).count(), 0.0);
}

} // namespace

StreamModel::StreamModel(TimePoint connected, const StreamLimits& limits)
    : m_maxInflatedBytes(limits.maxInflatedBytes), m_budget(limits.memoryBytes), m_assembler(m_budget),
      m_decoder(*this, m_budget), m_connected(connected), m_now(connected)
{}

void StreamModel::feed(const std::uint8_t* data, std::size_t size, TimePoint now)
{
    if (size == 0) {
        return;
    }
    m_now = now;
    if (!m_firstByte) {
        m_firstByte = now;
        m_byteRate.emplace(now);
        m_cycleRate.emplace(now);
    }
    m_byteRate->add(size, now);
    m_decoder.feed(data, size);
}

StreamPicture StreamModel::picture(TimePoint now) const
{
    StreamPicture picture;
    picture.silent_s = seconds(m_now, now);
    if (!m_firstByte) {
        return picture; // the rates have no start yet
    }
    picture.streaming_s = seconds(*m_firstByte, now);
    picture.bytes = m_decoder.offset();
    picture.normalCycles = m_normalCycles;
    picture.onceCycles = m_onceCycles;
    picture.missedCycles = m_missedCycles;
    picture.newestCycle = m_newestCycle;
    picture.cyclesPerSecond = m_cycleRate->perSecond(now);
    picture.bytesPerSecond = m_byteRate->perSecond(now);
    for (const auto& [channelID, channel] : m_channels) {
        picture.channels.push_back(channelPicture(channelID, channel, now));
        if (channel.record) {
            const RecordDescription* const description = descriptionOf(channelID);
            picture.records.push_back(
                {channelID, channel.record->cycle, description, &channel.record->payload.bytes});
            if (channelID == HostDiagnostics::CHANNEL) {
                picture.host = HostDiagnostics::read(RecordView(*description, channel.record->payload.bytes));
            }
        }
    }
    return picture;
}

void StreamModel::cycleBegin(const Cycle& cycle)
{
    // The numbers rise by one from cycle to cycle. Cycles that the library threw away leave a gap; anything
    // else isn't a gap and is left uncounted.
    const std::uint32_t step = cycle.cycleCounter - m_newestCycle;
    const bool isFirst = m_normalCycles + m_onceCycles == 0;
    if (!isFirst && step > 1 && step < 0x80000000U) {
        m_missedCycles += step - 1;
    }
    m_previous.reset();
}

void StreamModel::channelEntry(const Cycle& cycle, ChannelEntry& entry)
{
    const Lodestone::IOT_ChannelHeader& header = entry.header;
    Channel& channel = channelOf(header.channelID);
    channel.kind = header.partNumber < 0      ? ChannelKind::ONCE
                   : header.numberOfParts > 1 ? ChannelKind::SPLIT
                                              : ChannelKind::WHOLE;
    channel.size = std::max(header.totalSize, 0);
    channel.numberOfParts = header.numberOfParts;
    channel.byteRate.add(entry.payload.bytes.size(), m_now);

    Payload buffer;
    switch (m_assembler.add(cycle, entry, buffer)) {
    case BufferAssembler::Result::COMPLETE:
        bufferDone(channel, header.channelID, Record{cycle.cycleCounter, std::move(buffer)});
        break;
    case BufferAssembler::Result::PARTIAL:
        break;
    case BufferAssembler::Result::ORPHAN:
        ++channel.orphanParts;
        break;
    }
}

void StreamModel::cycleEnd(const Cycle& cycle)
{
    for (const std::int32_t channelID : m_assembler.cycleEnd(cycle)) {
        ++channelOf(channelID).lost;
    }
    ++(cycle.kind == CycleKind::ONCE ? m_onceCycles : m_normalCycles);
    m_newestCycle = cycle.cycleCounter;
    m_cycleRate->add(1, m_now);
    m_previous.reset();
}

StreamModel::Channel& StreamModel::channelOf(std::int32_t channelID)
{
    const auto found = m_channels.find(channelID);
    if (found != m_channels.end()) {
        return found->second;
    }
    MemoryClaim claim(m_budget, CHANNEL_OVERHEAD);
    return m_channels.emplace(channelID, Channel(std::move(claim), *m_firstByte)).first->second;
}

// Three kinds of buffers matter beyond their statistics: a description, a record whose description is known,
// and any other, which may turn out to be a record when the next one is its description.
void StreamModel::bufferDone(Channel& channel, std::int32_t channelID, Record record)
{
    ++channel.buffers;
    channel.newest = m_now;
    channel.bufferRate.add(1, m_now);
    if (RecordDescription::isDescription(record.payload.bytes)) {
        takeDescription(channel, channelID, record.payload);
        if (m_previous && m_previousChannel == channelID - 1) {
            keepRecord(m_previousChannel, std::move(*m_previous));
        }
        m_previous.reset();
    } else if (descriptionOf(channelID) != nullptr) {
        keepRecord(channelID, std::move(record));
        m_previous.reset();
    } else {
        m_previousChannel = channelID;
        m_previous = std::move(record);
    }
}

// Descriptions come with every cycle and hardly ever change: the bytes are compared before anything is
// inflated. A broken one ends the stream like any other byte that isn't what it should be.
void StreamModel::takeDescription(Channel& channel, std::int32_t channelID, const Payload& payload)
{
    if (channel.description && channel.description->bytes == payload.bytes) {
        return;
    }
    auto taken = std::make_unique<Description>();
    taken->description = RecordDescription::decode(payload.bytes, m_maxInflatedBytes);
    taken->claim = MemoryClaim(m_budget, payload.bytes.size() + taken->description.inflatedBytes() *
                                                                    std::uint64_t{DECODED_FACTOR});
    taken->bytes = payload.bytes;
    channel.description = std::move(taken);
    // The record that is there was read with the old description and may not fit the new one.
    const auto described = m_channels.find(channelID - 1);
    if (described != m_channels.end()) {
        described->second.record.reset();
    }
}

const RecordDescription* StreamModel::descriptionOf(std::int32_t channelID) const
{
    const auto next = channelID < INT32_MAX ? m_channels.find(channelID + 1) : m_channels.end();
    const bool isDescribed = next != m_channels.end() && next->second.description;
    return isDescribed ? &next->second.description->description : nullptr;
}

// A buffer of another size isn't the described record: nothing keeps a host from using the same channel
// twice.
void StreamModel::keepRecord(std::int32_t channelID, Record record)
{
    if (record.payload.bytes.size() == descriptionOf(channelID)->root().size) {
        channelOf(channelID).record = std::move(record);
    }
}

ChannelPicture StreamModel::channelPicture(std::int32_t channelID, const Channel& channel,
                                           TimePoint now) const
{
    ChannelPicture picture;
    picture.channelID = channelID;
    picture.kind = channel.kind;
    picture.size = channel.size;
    picture.numberOfParts = channel.numberOfParts;
    picture.buffersPerSecond = channel.bufferRate.perSecond(now);
    picture.bytesPerSecond = channel.byteRate.perSecond(now);
    if (channel.newest) {
        picture.age_s = seconds(*channel.newest, now);
    }
    picture.buffers = channel.buffers;
    picture.lost = channel.lost;
    picture.orphanParts = channel.orphanParts;
    const RecordDescription* const description = descriptionOf(channelID);
    picture.recordName = description != nullptr ? description->root().name : "";
    picture.isDescription = channel.description != nullptr;
    return picture;
}

} // namespace LodestoneTap
