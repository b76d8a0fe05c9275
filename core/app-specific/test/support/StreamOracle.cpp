#include "StreamOracle.h"

#include <algorithm>
#include <iterator>

namespace
{

const std::size_t PAIR = 2; // the diagnostics entries at the end of a cycle
const std::size_t MOST_FAULTS = 20;

bool isPair(const WireEntry& record, const WireEntry& layout)
{
    return record.channelID == 10998 && record.payload.size() == 208 && record.totalSize == 208 &&
           layout.channelID == 10999 && layout.payload.size() == 256 && layout.totalSize == 256;
}

std::string nameOf(const OfferedBuffer& buffer, std::uint32_t number)
{
    return "channel " + std::to_string(buffer.channelID) + " of delivery " + std::to_string(number);
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
    beginDeliveries(cycle);
    const std::uint32_t creator = checkEntries(cycle);
    const bool mayBeShort = m_mayBeShort;
    settle(creator);
    if (creator != m_settledNumber) {
        fault("begun by an older delivery than the cycle before");
    }
    checkRecord(cycle, mayBeShort);
    forgetFinished();
}

void StreamOracle::finish()
{
    takeOffers(WireCycle());
    settle(NO_NUMBER);
    forgetFinished();
    if (!m_deliveries.empty()) {
        fault("parts of delivery " + std::to_string(m_deliveries.front().number) + " never came");
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
        m_deliveries.emplace_back(offered);
        m_counts.offered += offered.buffers.size();
        for (OfferedBuffer& buffer : m_deliveries.back().buffers) {
            if (!isDue(buffer.channelID)) {
                buffer.fate = OfferedBuffer::NOT_DUE;
                ++m_counts.notDue;
            }
        }
    }
}

bool StreamOracle::isDue(int channelID)
{
    if (m_plan.kindOf(channelID) != 'i') {
        return true;
    }
    int& sinceDue = m_sinceDue.emplace(channelID, m_plan.intermittentCount - 1).first->second;
    sinceDue = (sinceDue + 1) % m_plan.intermittentCount;
    return sinceDue == 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// One cycle

void StreamOracle::checkCounter(bool newConnection)
{
    if (m_nextCycle != NO_CYCLE && m_cycle != m_nextCycle) {
        if (newConnection && m_plan.queueLength > 0 && m_cycle == m_nextCycle + 1) {
            m_lostCycle = m_nextCycle;
            m_mayBeShort = true;
        } else {
            fault("cycle " + std::to_string(m_nextCycle) + " should have come");
        }
    }
    m_nextCycle = m_cycle + 1;
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

// From the end, oldest delivery first. Second parts begin where the first ones were lost.
void StreamOracle::beginDeliveries(const WireCycle& cycle)
{
    const bool afterLoss = m_lostCycle != NO_CYCLE && m_cycle == m_lostCycle + 1;
    for (auto entry = cycle.entries.rbegin() + PAIR; entry != cycle.entries.rend(); ++entry) {
        if (entry->partNumber == 0 || (afterLoss && entry->partNumber == 1)) {
            begin(*entry);
        }
    }
}

// Marks the oldest buffer that the entry can be of. If there is none, the entry won't be expected either.
void StreamOracle::begin(const WireEntry& entry)
{
    for (Delivery& delivery : m_deliveries) {
        for (auto buffer = delivery.buffers.rbegin(); buffer != delivery.buffers.rend(); ++buffer) {
            const bool mayCome = buffer->fate == OfferedBuffer::QUEUED ||
                                 (buffer->fate == OfferedBuffer::UNKNOWN && m_plan.tagged);
            if (buffer->channelID != entry.channelID || buffer->begun || !mayCome ||
                (m_plan.tagged && !isPart(entry, *buffer, delivery.number, entry.partNumber))) {
                continue;
            }
            if (delivery.number < m_lastBegun) {
                fault(nameOf(*buffer, delivery.number) + " comes too late");
            }
            m_lastBegun = delivery.number;
            if (delivery.firstCycle == NO_CYCLE) {
                delivery.firstCycle = m_cycle - static_cast<std::uint64_t>(entry.partNumber);
            }
            buffer->begun = true;
            ++m_counts.delivered;
            return;
        }
    }
}

// The parts, in this cycle, of all that has begun: from the end deliveries come in their order, the buffers
// of one from the last to the first. Returns the number of the oldest delivery.
std::uint32_t StreamOracle::checkEntries(const WireCycle& cycle)
{
    std::uint32_t oldest = 0;
    auto entry = cycle.entries.rbegin() + PAIR;
    for (const Delivery& delivery : m_deliveries) {
        if (delivery.number > m_lastBegun) {
            break;
        }
        for (auto buffer = delivery.buffers.rbegin(); buffer != delivery.buffers.rend(); ++buffer) {
            if (!buffer->begun || lastCycleOf(delivery, *buffer) < m_cycle) {
                continue;
            }
            const auto part = static_cast<int>(m_cycle - delivery.firstCycle);
            if (entry == cycle.entries.rend() || !isPart(*entry, *buffer, delivery.number, part)) {
                fault("part " + std::to_string(part) + " of " + nameOf(*buffer, delivery.number) +
                      " should have come, and didn't, or with a wrong header or bytes");
                return m_settledNumber;
            }
            oldest = oldest == 0 ? delivery.number : oldest;
            ++entry;
        }
    }
    if (entry != cycle.entries.rend()) {
        fault("channel " + std::to_string(entry->channelID) +
              " brings what wasn't offered, was skipped, or has come before");
    }
    return oldest;
}

// The last part takes the rest of the division; a buffer with fewer bytes than parts has parts of one byte,
// then empty ones.
bool StreamOracle::isPart(const WireEntry& entry, const OfferedBuffer& buffer, std::uint32_t number,
                          int part) const
{
    const int parts = m_plan.partsOf(buffer.channelID);
    const std::uint32_t length = std::max(buffer.byteSize / static_cast<std::uint32_t>(parts), 1U);
    const auto offset = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(std::uint64_t{length} * static_cast<std::uint32_t>(part), buffer.byteSize));
    const std::uint32_t rest = buffer.byteSize - offset;
    return entry.channelID == buffer.channelID && entry.numberOfParts == parts && entry.partNumber == part &&
           entry.totalSize == static_cast<std::int32_t>(buffer.byteSize) &&
           entry.payload.size() == (part + 1 == parts ? rest : std::min(length, rest)) &&
           isContent(entry.payload, offset, entry.channelID, number);
}

std::uint64_t StreamOracle::lastCycleOf(const Delivery& delivery, const OfferedBuffer& buffer) const
{
    return delivery.firstCycle + static_cast<std::uint64_t>(m_plan.partsOf(buffer.channelID)) - 1;
}

void StreamOracle::forgetFinished()
{
    for (auto it = m_deliveries.begin(); it != m_deliveries.end() && it->number <= m_settledNumber;) {
        const bool goesOn =
            std::any_of(it->buffers.begin(), it->buffers.end(), [&](const OfferedBuffer& buffer) {
                return buffer.begun && lastCycleOf(*it, buffer) >= m_nextCycle;
            });
        it = goesOn ? std::next(it) : m_deliveries.erase(it);
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The account

void StreamOracle::settle(std::uint32_t number)
{
    for (Delivery& delivery : m_deliveries) {
        if (delivery.number > number) {
            return;
        }
        if (delivery.number > m_settledNumber) {
            settleOne(delivery);
        }
    }
}

void StreamOracle::settleOne(Delivery& delivery)
{
    bool skipped = false;
    for (OfferedBuffer& buffer : delivery.buffers) {
        if (buffer.fate == OfferedBuffer::QUEUED && !buffer.begun) {
            drop(delivery, buffer);
        } else if (buffer.fate != OfferedBuffer::NOT_DUE && !buffer.begun) {
            buffer.fate = OfferedBuffer::SKIPPED;
            skipped = true;
            ++m_numSkipped;
            ++m_counts.skipped;
        }
    }
    if (delivery.hostTold && delivery.numSkipped != m_numSkipped) {
        fault("the host counts " + std::to_string(delivery.numSkipped) + " skipped buffers up to delivery " +
              std::to_string(delivery.number) + ", not " + std::to_string(m_numSkipped));
    }
    if (delivery.hostTold) {
        checkFirstCycle(delivery);
        for (const OfferedBuffer& buffer : delivery.buffers) {
            checkRoom(delivery, buffer);
        }
    }
    for (const OfferedBuffer& buffer : delivery.buffers) {
        if (delivery.hostTold && buffer.fate == OfferedBuffer::QUEUED) {
            m_heldBy[buffer.channelID].insert(lastCycleOf(delivery, buffer));
        }
    }
    m_flags[delivery.firstChannel] = skipped ? 1 : 0;
    if (m_lostCycle != NO_CYCLE && delivery.firstCycle != NO_CYCLE && delivery.firstCycle > m_lostCycle) {
        m_mayBeShort = false;
    }
    m_settledNumber = delivery.number;
    m_creatorChannel = delivery.firstChannel;
}

// It was queued and never came.
void StreamOracle::drop(Delivery& delivery, OfferedBuffer& buffer)
{
    if (delivery.firstCycle == NO_CYCLE) {
        delivery.firstCycle = m_lostCycle;
    }
    if (m_lostCycle == NO_CYCLE || lastCycleOf(delivery, buffer) != m_lostCycle) {
        fault(nameOf(buffer, delivery.number) + " was queued, never came, and is counted nowhere");
    }
    ++m_counts.dropped;
}

// A delivery begins in the first cycle that the sender hasn't taken and that has no whole buffer yet.
void StreamOracle::checkFirstCycle(const Delivery& delivery)
{
    if (delivery.firstCycle == NO_CYCLE) {
        return;
    }
    const std::uint64_t taken = m_plan.queueLength < 0 ? 1 : 0; // the one in hand may be the front
    if (delivery.firstCycle < std::max(m_openCycle, delivery.frontBefore) ||
        delivery.firstCycle > std::max(m_openCycle, delivery.frontAfter + taken)) {
        fault("delivery " + std::to_string(delivery.number) + " begins in " +
              std::to_string(delivery.firstCycle));
    }
    const bool hasWhole =
        std::any_of(delivery.buffers.begin(), delivery.buffers.end(), [this](const OfferedBuffer& buffer) {
            return buffer.fate == OfferedBuffer::QUEUED && m_plan.partsOf(buffer.channelID) == 1;
        });
    m_openCycle = delivery.firstCycle + (hasWhole ? 1 : 0);
}

// The sender moves on during a call, and it counts a cycle as sent a moment after it has taken it (positive
// length) or a moment before it gives it up (negative): between these bounds either answer is right.
void StreamOracle::checkRoom(const Delivery& delivery, const OfferedBuffer& buffer)
{
    const bool split = m_plan.isSplit(buffer.channelID);
    const bool waits = m_plan.queueLength < 0;
    const bool unlimited = buffer.channelID == 0;
    const int limit = split || delivery.constant ? 1 : std::abs(m_plan.queueLength);
    const std::uint64_t late = split || waits ? 0 : delivery.slack;
    const std::uint64_t early = split || !waits ? 0 : delivery.slack;
    std::set<std::uint64_t>& heldBy = m_heldBy[buffer.channelID];
    const auto heldFrom = [&heldBy](std::uint64_t cycle) {
        return std::distance(heldBy.lower_bound(cycle), heldBy.end());
    };
    const std::uint64_t oldest = delivery.frontBefore - std::min(delivery.frontBefore, late);
    heldBy.erase(heldBy.begin(), heldBy.lower_bound(oldest));
    if (buffer.fate == OfferedBuffer::QUEUED && heldFrom(delivery.frontAfter + early) >= limit &&
        !unlimited) {
        fault(nameOf(buffer, delivery.number) + " was queued beyond its limit");
    }
    if (buffer.fate == OfferedBuffer::SKIPPED &&
        (heldFrom(oldest) < limit || unlimited || (waits && !split && !delivery.constant))) {
        fault(nameOf(buffer, delivery.number) + " was skipped although there was room");
    }
}

void StreamOracle::checkRecord(const WireCycle& cycle, bool mayBeShort)
{
    const auto counted = static_cast<std::uint32_t>(cycle.diag(4));
    if (mayBeShort && counted < m_numSkipped && m_numSkipped - counted <= m_plan.channels.size()) {
        // Nobody told what was queued, so what the lost cycle held looked as if it had been skipped.
        m_counts.dropped += m_numSkipped - counted;
        m_counts.skipped -= m_numSkipped - counted;
        m_numSkipped = counted;
        m_mayBeShort = false;
        m_flags.clear();
    }
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
        if (firstChannel != 0 && flag != m_flags.end() && flag->second != cycle.diag(8 + 40 * slot + 12)) {
            fault("the flag of package " + std::to_string(firstChannel) + " isn't " +
                  std::to_string(flag->second));
        }
    }
    if (!found) {
        fault("package " + std::to_string(m_creatorChannel) + " has no slot");
    }
}
