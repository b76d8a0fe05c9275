#include "StreamDecoder.h"

#include "ReaderError.h"
#include "WireBytes.h"

#include <algorithm>
#include <utility>

namespace LodestoneTap
{

using Lodestone::IOT_ChannelHeader;
using Lodestone::IOT_CycleHeader;

namespace
{

/// Bytes in part `part` of `parts` of a buffer of `totalSize` bytes; needs parts > part >= 0. A negative size
/// gives only empty parts. In 64 bits, for the fields are any numbers that the peer likes.
std::int64_t slicedSize(std::int64_t totalSize, std::int64_t parts, std::int64_t part)
{
    std::int64_t base = totalSize / parts;
    if (base == 0) {
        base = 1;
    }
    const std::int64_t offset = part * base;
    if (offset >= totalSize) {
        return 0;
    }
    return part == parts - 1 ? totalSize - offset : base;
}

std::string text(std::int32_t number)
{
    return std::to_string(number);
}

} // namespace

void StreamDecoder::feed(const std::uint8_t* data, std::size_t size)
{
    while (size > 0) {
        const std::size_t taken =
            m_state == State::PAYLOAD ? takePayload(data, size) : takeHeader(data, size);
        data += taken;
        size -= taken;
    }
}

// A header may come in pieces, and pieces may be single bytes: it is collected until it is complete, and only
// then looked at.
std::size_t StreamDecoder::takeHeader(const std::uint8_t* data, std::size_t size)
{
    const bool isCycle = m_state == State::CYCLE_HEADER;
    const std::size_t headerSize = isCycle ? sizeof(IOT_CycleHeader) : sizeof(IOT_ChannelHeader);
    const std::size_t taken = std::min(size, headerSize - m_headerFill);
    if (m_headerFill == 0) {
        m_headerOffset = m_offset;
    }
    std::copy_n(data, taken, m_header.begin() + static_cast<std::ptrdiff_t>(m_headerFill));
    m_headerFill += taken;
    m_offset += taken;
    if (m_headerFill == headerSize) {
        m_headerFill = 0;
        if (isCycle) {
            cycleHeaderDone();
        } else {
            channelHeaderDone();
        }
    }
    return taken;
}

std::size_t StreamDecoder::takePayload(const std::uint8_t* data, std::size_t size)
{
    const std::vector<std::uint8_t>& bytes = m_entry.payload.bytes;
    const std::size_t partByteSize = static_cast<std::size_t>(m_entry.header.partByteSize);
    const std::size_t taken = std::min(size, partByteSize - bytes.size());
    m_entry.payload.append(data, taken, partByteSize);
    m_offset += taken;
    if (bytes.size() == partByteSize) {
        entryDone();
    }
    return taken;
}

void StreamDecoder::cycleHeaderDone()
{
    const std::int32_t version = loadLittleEndianInt32(&m_header[offsetof(IOT_CycleHeader, version)]);
    const std::int32_t entries =
        loadLittleEndianInt32(&m_header[offsetof(IOT_CycleHeader, numberOfChannelsInCycle)]);
    m_cycle = Cycle();
    m_cycle.cycleCounter =
        static_cast<std::uint32_t>(loadLittleEndianInt32(&m_header[offsetof(IOT_CycleHeader, cycleCounter)]));
    if (version != 0) {
        failInHeader(offsetof(IOT_CycleHeader, version), "version " + text(version) + ", must be 0");
    }
    if (entries < 1 || entries > MAX_ENTRIES) {
        failInHeader(offsetof(IOT_CycleHeader, numberOfChannelsInCycle),
                     "numberOfChannelsInCycle " + text(entries) + ", must be 1 to " + text(MAX_ENTRIES));
    }
    m_cycle.numberOfEntries = entries;
    m_entriesLeft = entries;
    m_state = State::CHANNEL_HEADER;
    atEntry([this] { m_events.cycleBegin(m_cycle); });
}

// The order of the checks matters for the text of the error: what is asked first is what a reader that has
// lost its place gets wrong first.
void StreamDecoder::channelHeaderDone()
{
    IOT_ChannelHeader& header = m_entry.header;
    header.channelID = loadLittleEndianInt32(&m_header[offsetof(IOT_ChannelHeader, channelID)]);
    header.numberOfParts = loadLittleEndianInt32(&m_header[offsetof(IOT_ChannelHeader, numberOfParts)]);
    header.totalSize = loadLittleEndianInt32(&m_header[offsetof(IOT_ChannelHeader, totalSize)]);
    header.partNumber = loadLittleEndianInt32(&m_header[offsetof(IOT_ChannelHeader, partNumber)]);
    header.partByteSize = loadLittleEndianInt32(&m_header[offsetof(IOT_ChannelHeader, partByteSize)]);
    checkCycleKind();
    checkParts();
    checkSizes();
    if (header.partByteSize == 0) {
        entryDone();
        return;
    }
    // Claimed before a byte comes: up to here the size is only the peer's word.
    atEntry([this] {
        const std::size_t partByteSize = static_cast<std::size_t>(m_entry.header.partByteSize);
        m_entry.payload.claim = MemoryClaim(m_budget, partByteSize);
    });
    m_state = State::PAYLOAD;
}

void StreamDecoder::entryDone()
{
    atEntry([this] { m_events.channelEntry(m_cycle, m_entry); });
    m_entry = ChannelEntry(); // gives back what the handler left of the payload
    --m_entriesLeft;
    m_state = State::CHANNEL_HEADER;
    if (m_entriesLeft == 0) {
        m_state = State::CYCLE_HEADER;
        atEntry([this] { m_events.cycleEnd(m_cycle); });
    }
}

void StreamDecoder::checkParts() const
{
    const IOT_ChannelHeader& header = m_entry.header;
    const bool isOnce = header.partNumber < 0;
    if (header.channelID < 0) {
        failInHeader(offsetof(IOT_ChannelHeader, channelID), "channelID " + text(header.channelID));
    }
    if (header.numberOfParts < 1 || (isOnce && header.numberOfParts != 1)) {
        failInHeader(offsetof(IOT_ChannelHeader, numberOfParts),
                     "channel " + text(header.channelID) + " has numberOfParts " +
                         text(header.numberOfParts) + (isOnce ? " in a ONCE cycle" : ""));
    }
    if (header.partNumber >= header.numberOfParts) {
        failInHeader(offsetof(IOT_ChannelHeader, partNumber),
                     "channel " + text(header.channelID) + " has partNumber " + text(header.partNumber) +
                         " of " + text(header.numberOfParts));
    }
}

// The sign of partNumber belongs to the cycle, not to the entry, and a ONCE cycle has one number throughout.
// A stream that has lost its place seldom keeps to that.
void StreamDecoder::checkCycleKind()
{
    const std::int32_t partNumber = m_entry.header.partNumber;
    if (m_cycle.kind == CycleKind::UNKNOWN) {
        m_cycle.kind = partNumber < 0 ? CycleKind::ONCE : CycleKind::NORMAL;
        m_oncePartNumber = partNumber;
        return;
    }
    const bool fits = m_cycle.kind == CycleKind::ONCE ? partNumber == m_oncePartNumber : partNumber >= 0;
    if (!fits) {
        failInHeader(offsetof(IOT_ChannelHeader, partNumber),
                     "channel " + text(m_entry.header.channelID) + " has partNumber " + text(partNumber) +
                         (m_cycle.kind == CycleKind::ONCE
                              ? " in a ONCE cycle that began with " + text(m_oncePartNumber)
                              : " in a NORMAL cycle"));
    }
}

// The wire carries no offset, so nothing but this rule says where a part belongs. A size that agrees with it
// also keeps the parts of a buffer within totalSize.
void StreamDecoder::checkSizes() const
{
    const IOT_ChannelHeader& header = m_entry.header;
    const std::int32_t part = std::max(header.partNumber, 0);
    const std::int64_t due = slicedSize(header.totalSize, header.numberOfParts, part);
    if (header.partByteSize != due) {
        failInHeader(offsetof(IOT_ChannelHeader, partByteSize),
                     "channel " + text(header.channelID) + " has partByteSize " + text(header.partByteSize) +
                         ", but part " + text(part) + " of " + text(header.numberOfParts) + " of " +
                         text(header.totalSize) + " bytes has " + std::to_string(due));
    }
}

void StreamDecoder::failInHeader(std::size_t fieldOffset, const std::string& reason) const
{
    throw StreamError(m_headerOffset + fieldOffset, m_cycle.cycleCounter, reason);
}

// The layers above know what is wrong but not where; the place is added here, once for all of them.
template<typename Step>
void StreamDecoder::atEntry(Step step) const
{
    try {
        step();
    } catch (const StreamError&) {
        throw;
    } catch (const ReaderError& error) {
        const bool inEntry = m_state != State::CYCLE_HEADER && m_cycle.kind != CycleKind::UNKNOWN;
        throw StreamError(m_headerOffset, m_cycle.cycleCounter,
                          (inEntry ? "channel " + text(m_entry.header.channelID) + ": " : "") + error.what());
    }
}

} // namespace LodestoneTap
