#include "StreamOracle.h"

#include <algorithm>
#include <utility>

namespace
{

const std::size_t PAIR = 2; // the diagnostics entries at the end of a cycle
const std::size_t MOST_FAULTS = 20;

struct Slice
{
    std::uint32_t offset;
    std::uint32_t byteSize;
};

// The last part takes the rest of the division; a buffer with fewer bytes than parts has parts of one byte,
// then empty ones.
Slice sliceOf(std::uint32_t byteSize, int part, int parts)
{
    const std::uint32_t length = std::max(byteSize / static_cast<std::uint32_t>(parts), 1U);
    const std::uint64_t offset = std::uint64_t{length} * static_cast<std::uint32_t>(part);
    if (offset >= byteSize) {
        return {0, 0};
    }
    const auto begin = static_cast<std::uint32_t>(offset);
    return {begin, part + 1 == parts ? byteSize - begin : length};
}

bool isPair(const WireEntry& record, const WireEntry& layout)
{
    return record.channelID == 10998 && record.payload.size() == 208 && record.totalSize == 208 &&
           layout.channelID == 10999 && layout.payload.size() == 256 && layout.totalSize == 256;
}

} // namespace

StreamOracle::Counts& StreamOracle::Counts::operator+=(const Counts& other)
{
    offered += other.offered;
    notDue += other.notDue;
    delivered += other.delivered;
    skipped += other.skipped;
    dropped += other.dropped;
    cycles += other.cycles;
    return *this;
}

StreamOracle::StreamOracle(const StreamPlan& plan, std::uint32_t firstNumber, bool fromFirstOffer)
    : m_plan(plan), m_firstNumber(firstNumber), m_started(fromFirstOffer)
{
    for (const auto& channel : plan.channels) {
        m_channels[channel.first].sinceDue = plan.intermittentCount - 1;
    }
}

void StreamOracle::offer(const OfferedDelivery& delivery)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_offers.push_back(delivery);
}

void StreamOracle::fault(const std::string& text)
{
    if (m_faults.size() < MOST_FAULTS) {
        m_faults.push_back("cycle " + std::to_string(m_cycle) + ": " + text);
    }
}

void StreamOracle::check(const WireCycle& cycle, bool newConnection)
{
    m_cycle = cycle.counter;
    ++m_counts.cycles;
    checkCounter(newConnection);
    if (!cycle.complete) {
        fault("unknown version");
    }
    if (cycle.isOnce()) {
        checkOnce(cycle);
        return;
    }
    if (m_counts.cycles == 1 && m_plan.hasOnce()) {
        fault("the once data are missing");
    }
    const std::size_t size = cycle.entries.size();
    if (size <= PAIR || !isPair(cycle.entries[size - 2], cycle.entries[size - 1])) {
        fault("no entries, or no diagnostics pair at the end");
        return;
    }
    takeOffers(cycle);
    checkEntries(cycle);
    settle(m_creator);
    checkRecord(cycle);
}

void StreamOracle::finish()
{
    takeOffers(WireCycle());
    settle(NO_NUMBER);
    if (!m_open.empty()) {
        fault("parts of channel " + std::to_string(m_open.front().channelID) + " never came");
    }
    if (m_nextCycle != NO_CYCLE && m_ahead != m_nextCycle) {
        fault("the last record tells of cycles up to " + std::to_string(m_ahead));
    }
}

void StreamOracle::takeOffers(const WireCycle& cycle)
{
    std::deque<OfferedDelivery> offers;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        offers.swap(m_offers);
    }
    if (!m_started && cycle.entries.size() > PAIR) {
        const std::uint32_t first = numberIn(cycle.entries[cycle.entries.size() - PAIR - 1].payload);
        while (!offers.empty() && offers.front().number < first) {
            offers.pop_front();
        }
        m_started = true;
    }
    for (const OfferedDelivery& offered : offers) {
        await(offered);
    }
}

void StreamOracle::await(const OfferedDelivery& offered)
{
    m_deliveries.emplace_back();
    Delivery& delivery = m_deliveries.back();
    static_cast<OfferedDelivery&>(delivery) = offered;
    for (std::size_t index = 0; index < delivery.buffers.size(); ++index) {
        OfferedBuffer& buffer = delivery.buffers[index];
        ++m_counts.offered;
        if (isDue(buffer)) {
            m_channels[buffer.channelID].awaited.push_back({&delivery, index});
            continue;
        }
        ++m_counts.notDue;
        if (buffer.fate == OfferedBuffer::QUEUED) {
            fault("channel " + std::to_string(buffer.channelID) + " was queued out of its turn");
        }
        buffer.fate = OfferedBuffer::NOT_DUE;
    }
}

bool StreamOracle::isDue(const OfferedBuffer& buffer)
{
    if (m_plan.kindOf(buffer.channelID) != 'i') {
        return true;
    }
    int& sinceDue = m_channels[buffer.channelID].sinceDue;
    if (++sinceDue < m_plan.intermittentCount) {
        return false;
    }
    sinceDue = 0;
    return true;
}

// ---------------------------------------------------------------------------------------------------------------------
// One cycle

void StreamOracle::checkCounter(bool newConnection)
{
    const bool mayMiss = newConnection && m_plan.queueLength > 0;
    if (m_nextCycle != NO_CYCLE && mayMiss && m_cycle == m_nextCycle + 1) {
        loseCycle();
    } else if (m_nextCycle != NO_CYCLE && m_cycle != m_nextCycle) {
        fault("cycle " + std::to_string(m_nextCycle) + " should have come");
    }
    m_nextCycle = m_cycle + 1;
}

// Buffers whose last part was in it are gone; what began in it shows by its later parts, or not at all.
void StreamOracle::loseCycle()
{
    m_lostCycle = m_nextCycle;
    m_lostNumber = NO_NUMBER;
    m_lostIsOver = false;
    m_mayBeShort = true;
    m_open.remove_if([this](const OpenBuffer& open) {
        return open.firstCycle + static_cast<std::uint64_t>(m_plan.splitCount) <= m_cycle;
    });
}

void StreamOracle::checkOnce(const WireCycle& cycle)
{
    if (m_counts.cycles != 1) {
        fault("once data in the middle of a transfer");
    }
    std::vector<std::int32_t> expected;
    for (const auto& channel : m_plan.channels) {
        if (channel.second == 'o') {
            expected.push_back(channel.first);
        }
    }
    if (cycle.channels() != expected || cycle.entries.size() != expected.size()) {
        fault("other once channels than configured");
    }
    for (const WireEntry& entry : cycle.entries) {
        const std::uint32_t number = numberIn(entry.payload);
        if (entry.partNumber != -std::max(1, m_plan.intermittentCount) || entry.numberOfParts != 1 ||
            entry.totalSize != static_cast<std::int32_t>(entry.payload.size()) || number < m_firstNumber ||
            !isContent(entry.payload, 0, entry.channelID, number)) {
            fault("once data of channel " + std::to_string(entry.channelID) + " are wrong or old");
        }
    }
}

// From the end, oldest delivery first: parts of buffers that have begun come in the order of the cycle
// before, then what begins here.
void StreamOracle::checkEntries(const WireCycle& cycle)
{
    std::size_t openLeft = m_open.size();
    auto open = m_open.begin();
    m_creator = 0;
    m_claimedNumber = 0;
    for (std::size_t k = cycle.entries.size() - PAIR; k-- > 0;) {
        if (openLeft > 0) {
            --openLeft;
            goOn(cycle.entries[k], open++);
        } else {
            claim(cycle.entries[k]);
        }
        m_creator = m_creator == 0 ? m_claimedNumber : m_creator;
    }
    if (openLeft > 0) {
        fault(std::to_string(openLeft) + " buffers don't go on");
    }
}

void StreamOracle::goOn(const WireEntry& entry, OpenIterator open)
{
    const auto part = static_cast<int>(m_cycle - open->firstCycle);
    m_claimedNumber = open->number;
    m_claimedIndex = 0;
    if (entry.channelID != open->channelID) {
        fault("channel " + std::to_string(open->channelID) + " doesn't go on");
    } else {
        checkSlice(entry, part, open->byteSize, open->number);
    }
    if (part + 1 == m_plan.splitCount) {
        m_open.erase(open);
    }
}

// A buffer that begins here, or began in a lost cycle.
void StreamOracle::claim(const WireEntry& entry)
{
    const std::string name = "channel " + std::to_string(entry.channelID);
    const std::uint64_t firstCycle = m_cycle - static_cast<std::uint64_t>(entry.partNumber);
    if (entry.partNumber != 0 && firstCycle != m_lostCycle) {
        fault(name + " begins with part " + std::to_string(entry.partNumber));
        return;
    }
    std::deque<Place>& awaited = m_channels[entry.channelID].awaited;
    passOver(awaited, entry);
    if (awaited.empty() || !isThis(awaited.front(), entry)) {
        fault(name + " brings what wasn't offered, or again what has come");
        return;
    }
    const Place place = awaited.front();
    awaited.pop_front();
    checkPlace(place, firstCycle);
    checkSlice(entry, entry.partNumber, place.buffer().byteSize, place.delivery->number);
    begin(place);
}

// What is older than the entry's buffer on its channel never came.
void StreamOracle::passOver(std::deque<Place>& awaited, const WireEntry& entry)
{
    const std::uint32_t number = m_plan.tagged && entry.partNumber == 0 ? numberIn(entry.payload) : NO_NUMBER;
    while (!awaited.empty() && awaited.front().delivery->number < number && !isThis(awaited.front(), entry)) {
        didNotCome(awaited.front());
        awaited.pop_front();
    }
}

// From the end of a cycle deliveries come in their order, the buffers of one from the last to the first.
void StreamOracle::checkPlace(const Place& place, std::uint64_t firstCycle)
{
    Delivery& delivery = *place.delivery;
    const std::string name = "channel " + std::to_string(place.buffer().channelID);
    if (delivery.number < m_claimedNumber ||
        (delivery.number == m_claimedNumber && place.index >= m_claimedIndex)) {
        fault(name + " stands in the wrong place of its cycle");
    }
    m_claimedNumber = delivery.number;
    m_claimedIndex = place.index;
    if (delivery.firstCycle != NO_CYCLE && delivery.firstCycle != firstCycle) {
        fault(name + " isn't in the first cycle of its delivery");
    }
    delivery.firstCycle = firstCycle;
}

bool StreamOracle::isThis(const Place& place, const WireEntry& entry) const
{
    const OfferedBuffer& buffer = place.buffer();
    if (!m_plan.tagged) {
        return buffer.fate == OfferedBuffer::QUEUED;
    }
    if (entry.partNumber == 0) {
        return numberIn(entry.payload) == place.delivery->number;
    }
    const Slice slice = sliceOf(buffer.byteSize, entry.partNumber, m_plan.partsOf(buffer.channelID));
    return entry.totalSize == static_cast<std::int32_t>(buffer.byteSize) &&
           isContent(entry.payload, slice.offset, buffer.channelID, place.delivery->number);
}

void StreamOracle::begin(const Place& place)
{
    OfferedBuffer& buffer = place.buffer();
    const std::uint64_t firstCycle = place.delivery->firstCycle;
    const auto parts = static_cast<std::uint64_t>(m_plan.partsOf(buffer.channelID));
    if (buffer.fate == OfferedBuffer::SKIPPED) {
        fault("channel " + std::to_string(buffer.channelID) + " was skipped and came all the same");
    }
    if (!mayHaveHadRoom(place)) {
        fault("channel " + std::to_string(buffer.channelID) + " was queued beyond its limit");
    }
    buffer.delivered = true;
    ++m_counts.delivered;
    Channel& channel = m_channels[buffer.channelID];
    channel.heldBy.push_back(firstCycle);
    channel.behindParts = firstCycle + parts;
    if (channel.behindParts > m_cycle + 1) {
        m_open.push_back({buffer.channelID, buffer.byteSize, place.delivery->number, firstCycle});
    }
}

void StreamOracle::checkSlice(const WireEntry& entry, int part, std::uint32_t byteSize, std::uint32_t number)
{
    const int parts = m_plan.partsOf(entry.channelID);
    const Slice slice = sliceOf(byteSize, part, parts);
    if (entry.numberOfParts != parts || entry.partNumber != part ||
        entry.totalSize != static_cast<std::int32_t>(byteSize) || entry.payload.size() != slice.byteSize ||
        !isContent(entry.payload, slice.offset, entry.channelID, number)) {
        fault("wrong bytes or header of channel " + std::to_string(entry.channelID) + ", part " +
              std::to_string(part) + " of " + std::to_string(parts));
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// What didn't come

void StreamOracle::didNotCome(const Place& place)
{
    OfferedBuffer& buffer = place.buffer();
    if (buffer.fate == OfferedBuffer::QUEUED) {
        drop(place);
        return;
    }
    buffer.fate = OfferedBuffer::SKIPPED;
    ++place.delivery->skipped;
    if (!mayHaveBeenFull(place)) {
        fault("channel " + std::to_string(buffer.channelID) + " was skipped although there was room");
    }
}

// Whole buffers close a cycle, so those in a lost one are of one delivery.
void StreamOracle::drop(const Place& place)
{
    const Delivery& delivery = *place.delivery;
    const int channelID = place.buffer().channelID;
    if (m_lostCycle == NO_CYCLE || m_lostIsOver ||
        (delivery.firstCycle != NO_CYCLE && delivery.firstCycle != m_lostCycle) ||
        (m_lostNumber != NO_NUMBER && m_lostNumber != delivery.number)) {
        fault("channel " + std::to_string(channelID) + " of delivery " + std::to_string(delivery.number) +
              " was queued, never came, and is counted nowhere");
    }
    m_lostNumber = delivery.number;
    ++m_counts.dropped;
    m_channels[channelID].heldBy.push_back(m_lostCycle);
    m_channels[channelID].behindParts = m_lostCycle + 1;
}

// The sender moves on during a call, and it counts a cycle as sent a moment after it has taken it (positive
// length) or a moment before it gives it up (negative): between these bounds either answer is right.
bool StreamOracle::mayHaveBeenFull(const Place& place)
{
    const Delivery& delivery = *place.delivery;
    const int channelID = place.buffer().channelID;
    if (!delivery.hostTold) {
        return true;
    }
    const Channel& channel = m_channels[channelID];
    if (m_plan.isSplit(channelID)) {
        return channelID != 0 && channel.behindParts > delivery.frontBefore;
    }
    const bool waits = m_plan.queueLength < 0;
    const int limit = delivery.constant ? 1 : std::abs(m_plan.queueLength);
    const std::uint64_t late = waits ? 0 : 1;
    const auto held = std::count_if(channel.heldBy.begin(), channel.heldBy.end(), [&](std::uint64_t cycle) {
        return cycle + late >= delivery.frontBefore;
    });
    return channelID != 0 && (!waits || delivery.constant) && held >= limit;
}

bool StreamOracle::mayHaveHadRoom(const Place& place)
{
    const Delivery& delivery = *place.delivery;
    const int channelID = place.buffer().channelID;
    if (!delivery.hostTold || channelID == 0) {
        return true;
    }
    Channel& channel = m_channels[channelID];
    if (m_plan.isSplit(channelID)) {
        return channel.behindParts <= delivery.frontAfter;
    }
    while (!channel.heldBy.empty() && channel.heldBy.front() + 1 < delivery.frontBefore) {
        channel.heldBy.pop_front();
    }
    const int limit = delivery.constant ? 1 : std::abs(m_plan.queueLength);
    const std::uint64_t early = m_plan.queueLength < 0 ? 1 : 0;
    const auto held = std::count_if(channel.heldBy.begin(), channel.heldBy.end(), [&](std::uint64_t cycle) {
        return cycle >= delivery.frontAfter + early;
    });
    return held < limit;
}

// ---------------------------------------------------------------------------------------------------------------------
// The account

void StreamOracle::settle(std::uint32_t number)
{
    while (!m_deliveries.empty() && m_deliveries.front().number <= number) {
        settleOne(m_deliveries.front());
        m_deliveries.pop_front();
    }
}

void StreamOracle::settleOne(Delivery& delivery)
{
    for (const OfferedBuffer& buffer : delivery.buffers) {
        std::deque<Place>& awaited = m_channels[buffer.channelID].awaited;
        if (!awaited.empty() && awaited.front().delivery == &delivery) {
            didNotCome(awaited.front());
            awaited.pop_front();
        }
    }
    m_numSkipped += delivery.skipped;
    m_counts.skipped += delivery.skipped;
    m_flags[delivery.firstChannel] = delivery.skipped != 0 ? 1 : 0;
    if (delivery.hostTold && delivery.numSkipped != m_numSkipped) {
        fault("the host counts " + std::to_string(delivery.numSkipped) + " skipped buffers up to delivery " +
              std::to_string(delivery.number) + ", not " + std::to_string(m_numSkipped));
    }
    if (m_lostCycle != NO_CYCLE && delivery.firstCycle != NO_CYCLE && delivery.firstCycle > m_lostCycle) {
        m_lostIsOver = true;
    }
    m_settledNumber = delivery.number;
    m_creatorChannel = delivery.firstChannel;
}

void StreamOracle::checkRecord(const WireCycle& cycle)
{
    if (m_creator != m_settledNumber) {
        fault("begun by an older delivery than the cycle before");
    }
    const auto counted = static_cast<std::uint32_t>(cycle.diag(4));
    if (m_mayBeShort && counted < m_numSkipped && m_numSkipped - counted <= m_plan.channels.size()) {
        // Nobody told what was queued, so what the lost cycle held looked as if it had been skipped.
        m_counts.dropped += m_numSkipped - counted;
        m_counts.skipped -= m_numSkipped - counted;
        m_numSkipped = counted;
        m_lostIsOver = true;
        m_flags.clear();
    }
    m_mayBeShort = m_mayBeShort && !m_lostIsOver;
    if (counted != m_numSkipped) {
        fault("the record counts " + std::to_string(counted) + " skipped buffers, not " +
              std::to_string(m_numSkipped));
        m_numSkipped = counted; // each mistake once
    }
    checkFlags(cycle);
    const std::uint64_t ahead = m_cycle + cycle.diag(0) + (m_plan.queueLength > 0 ? 1 : 0);
    if (ahead < m_ahead || ahead <= m_cycle) {
        fault("queue length " + std::to_string(cycle.diag(0)) + " can't be");
    }
    m_ahead = ahead;
}

// A slot tells its package itself. Slots that nobody has used say channel 0.
void StreamOracle::checkFlags(const WireCycle& cycle)
{
    bool found = false;
    for (std::size_t slot = 0; slot < 5; ++slot) {
        const auto firstChannel = static_cast<int>(cycle.diag(8 + 40 * slot + 4));
        const auto flag = m_flags.find(firstChannel);
        found = found || firstChannel == m_creatorChannel;
        if (firstChannel != 0 && flag != m_flags.end() &&
            static_cast<std::uint64_t>(flag->second) != cycle.diag(8 + 40 * slot + 12)) {
            fault("the flag of package " + std::to_string(firstChannel) + " isn't " +
                  std::to_string(flag->second));
        }
    }
    if (!found) {
        fault("package " + std::to_string(m_creatorChannel) + " has no slot");
    }
}
