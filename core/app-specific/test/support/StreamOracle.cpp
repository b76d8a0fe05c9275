#include "StreamOracle.h"

#include <algorithm>
#include <cstring>
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

// That a buffer of four bytes or more begins with.
std::uint32_t numberIn(const std::string& bytes)
{
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data(), std::min(bytes.size(), sizeof number));
    return number;
}

} // namespace

std::string StreamOracle::Counts::text() const
{
    return std::to_string(offered) + " buffers: " + std::to_string(delivered) + " delivered, " +
           std::to_string(skipped) + " skipped, " + std::to_string(notDue) + " not due, " +
           std::to_string(dropped) + " dropped at takeovers; " + std::to_string(cycles) + " cycles";
}

void StreamOracle::expect(bool right, const char* otherwise, std::uint64_t number)
{
    if (!right && m_faults.size() < MOST_FAULTS) {
        m_faults.push_back("cycle " + std::to_string(m_cycle) + ": " + otherwise + " " +
                           std::to_string(number));
    }
}

void StreamOracle::offer(const OfferedDelivery& delivery)
{
    m_offers.push_back(delivery);
    m_counts.offered += delivery.buffers.size();
}

void StreamOracle::check(const WireCycle& cycle, bool newConnection)
{
    const bool first = m_nextCycle == NO_CYCLE;
    const bool mayBeLost = newConnection && m_plan.queueLength > 0;
    m_cycle = cycle.counter;
    ++m_counts.cycles;
    if (!first && mayBeLost && m_cycle == m_nextCycle + 1) {
        m_lostCycle = m_nextCycle;
    } else {
        expect(first || m_cycle == m_nextCycle, "not the cycle that should have come", m_nextCycle);
    }
    m_nextCycle = m_cycle + 1;
    expect(cycle.complete, "the connection ended in the middle");
    if (first ? !m_plan.channelsOf(true).empty() : cycle.isOnce()) {
        checkOnce(cycle, first);
    } else {
        checkNormal(cycle);
    }
}

void StreamOracle::finish()
{
    m_entries.clear();
    m_nextEntry = 0;
    while (!m_offers.empty()) {
        beginDelivery();
    }
    m_cycle = m_nextCycle;
    for (const OfferedDelivery& delivery : m_current) {
        expect(!goesOn(delivery), "parts never came of delivery", delivery.number);
    }
    expect(m_nextCycle == NO_CYCLE || queueIsEmpty(), "the last record tells of cycles up to", m_ahead);
}

// ---------------------------------------------------------------------------------------------------------------------
// One cycle

void StreamOracle::checkOnce(const WireCycle& cycle, bool first)
{
    const std::vector<std::int32_t> channels = m_plan.channelsOf(true);
    expect(first && cycle.channels() == channels && cycle.entries.size() == channels.size(),
           "not the once channels at the beginning, or in the middle of a transfer");
    for (const WireEntry& entry : cycle.entries) {
        const std::uint32_t number = numberIn(entry.payload);
        const auto byteSize = static_cast<std::uint32_t>(entry.payload.size());
        expect(entry.partNumber == -std::max(1, m_plan.intermittentCount) && entry.numberOfParts == 1 &&
                   entry.totalSize == static_cast<std::int32_t>(byteSize) && number >= m_firstNumber &&
                   entry.payload == contentOf(entry.channelID, number, 0, byteSize),
               "once data are wrong or old of delivery", number);
    }
}

void StreamOracle::checkNormal(const WireCycle& cycle)
{
    m_entries.clear();
    m_nextEntry = PAIR;
    for (auto entry = cycle.entries.rbegin(); entry != cycle.entries.rend(); ++entry) {
        m_counts.arrived += entry->partNumber + 1 == entry->numberOfParts ? 1 : 0;
        m_entries.push_back(&*entry);
    }
    if (m_entries.size() <= PAIR || !isPair(*m_entries[1], *m_entries[0])) {
        expect(false, "no entries, or no diagnostics pair at the end");
        return;
    }
    m_counts.arrived -= PAIR;
    if (!m_started) {
        beginTransfer(numberIn(m_entries[PAIR]->payload));
    }
    m_current.remove_if([this](const OfferedDelivery& delivery) { return !goesOn(delivery); });
    for (const OfferedDelivery& delivery : m_current) {
        expect(brings(delivery, delivery.firstCycle),
               "a part didn't come, or with a wrong header or bytes, of delivery", delivery.number);
    }
    while (m_nextEntry < m_entries.size() && !m_offers.empty()) {
        beginDelivery();
    }
    expect(m_nextEntry == m_entries.size(),
           "entries that weren't offered, were skipped, or have come before; left of them",
           m_entries.size() - m_nextEntry);
    if (!m_current.empty()) {
        checkRecord(cycle, m_current.front());
    }
}

void StreamOracle::beginTransfer(std::uint32_t number)
{
    m_started = true;
    while (!m_offers.empty() && m_offers.front().number < number) {
        m_counts.offered -= m_offers.front().buffers.size();
        m_offers.pop_front();
    }
}

// The next delivery: begins in this cycle, or has begun in the one that was lost, or none of it was queued.
void StreamOracle::beginDelivery()
{
    OfferedDelivery delivery = m_offers.front();
    m_offers.pop_front();
    decide(delivery);
    delivery.firstCycle = m_cycle;
    const bool queued = goesOn(delivery);
    if (queued && brings(delivery, m_cycle)) {
        m_lostCycle = NO_CYCLE;
    } else if (queued && m_lostCycle != NO_CYCLE && brings(delivery, m_lostCycle)) {
        delivery.firstCycle = m_lostCycle;
    } else {
        expect(!queued, "it hasn't begun as it should, delivery", delivery.number);
    }
    count(delivery);
    if (delivery.hostTold) {
        checkRoom(delivery);
    }
    if (delivery.hostTold && queued) {
        checkFirstCycle(delivery);
    }
    delivery.numSkipped = m_numSkipped;
    delivery.flags = m_flags;
    if (goesOn(delivery)) {
        m_current.push_back(delivery);
    }
}

// Whose turn it is; and, if the host can't tell, what was queued.
void StreamOracle::decide(OfferedDelivery& delivery)
{
    std::size_t next = m_nextEntry;
    for (OfferedBuffer& buffer : delivery.buffers) {
        buffer.fate = isDue(buffer.channelID) ? buffer.fate : OfferedBuffer::NOT_DUE;
    }
    for (auto buffer = delivery.buffers.rbegin(); buffer != delivery.buffers.rend(); ++buffer) {
        if (buffer->fate == OfferedBuffer::UNKNOWN) {
            const bool came =
                next < m_entries.size() && isPart(*m_entries[next], *buffer, delivery.number, 0);
            buffer->fate = came ? OfferedBuffer::QUEUED : OfferedBuffer::SKIPPED;
            next += came ? 1 : 0;
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

// Whether the next entries are all that this cycle must carry of a delivery that began in `firstCycle`.
// Takes them if so.
bool StreamOracle::brings(const OfferedDelivery& delivery, std::uint64_t firstCycle)
{
    std::size_t next = m_nextEntry;
    const auto part = static_cast<int>(m_cycle - firstCycle);
    for (auto buffer = delivery.buffers.rbegin(); buffer != delivery.buffers.rend(); ++buffer) {
        if (buffer->fate == OfferedBuffer::QUEUED && part < m_plan.partsOf(buffer->channelID)) {
            if (next == m_entries.size() || !isPart(*m_entries[next], *buffer, delivery.number, part)) {
                return false;
            }
            ++next;
        }
    }
    m_nextEntry = next;
    return true;
}

// The last part takes the rest of the division; a buffer with fewer bytes than parts has parts of one byte,
// then empty ones.
bool StreamOracle::isPart(const WireEntry& entry, const OfferedBuffer& buffer, std::uint32_t number,
                          int part) const
{
    const int parts = m_plan.partsOf(buffer.channelID);
    const std::uint32_t length = std::max(buffer.byteSize / static_cast<std::uint32_t>(parts), 1U);
    const std::uint32_t offset = std::min(length * static_cast<std::uint32_t>(part), buffer.byteSize);
    const std::uint32_t rest = buffer.byteSize - offset;
    const std::uint32_t byteSize = part + 1 == parts ? rest : std::min(length, rest);
    return entry.channelID == buffer.channelID && entry.numberOfParts == parts && entry.partNumber == part &&
           entry.totalSize == static_cast<std::int32_t>(buffer.byteSize) &&
           entry.payload == contentOf(entry.channelID, number, offset, byteSize);
}

// Up to this cycle, or farther.
bool StreamOracle::goesOn(const OfferedDelivery& delivery) const
{
    return std::any_of(delivery.buffers.begin(), delivery.buffers.end(), [&](const OfferedBuffer& buffer) {
        return buffer.fate == OfferedBuffer::QUEUED && behindCycle(delivery, buffer) > m_cycle;
    });
}

std::uint64_t StreamOracle::behindCycle(const OfferedDelivery& delivery, const OfferedBuffer& buffer) const
{
    return delivery.firstCycle + static_cast<std::uint64_t>(m_plan.partsOf(buffer.channelID));
}

// ---------------------------------------------------------------------------------------------------------------------
// The account

void StreamOracle::count(const OfferedDelivery& delivery)
{
    const std::uint32_t skippedBefore = m_numSkipped;
    for (const OfferedBuffer& buffer : delivery.buffers) {
        if (buffer.fate == OfferedBuffer::NOT_DUE) {
            ++m_counts.notDue;
        } else if (buffer.fate == OfferedBuffer::SKIPPED) {
            ++m_counts.skipped;
            ++m_numSkipped;
        } else {
            ++(behindCycle(delivery, buffer) > m_cycle ? m_counts.delivered : m_counts.dropped);
        }
    }
    m_flags[delivery.firstChannel] = m_numSkipped != skippedBefore ? 1 : 0;
}

void StreamOracle::checkRoom(const OfferedDelivery& delivery)
{
    expect(delivery.numSkipped == m_numSkipped, "the host counts skipped buffers differently at delivery",
           delivery.number);
    for (const OfferedBuffer& buffer : delivery.buffers) {
        const bool whole = m_plan.kindOf(buffer.channelID) == 'n';
        const bool waits = whole && m_plan.queueLength < 0 && !delivery.constant;
        const int limit = whole && !delivery.constant ? std::abs(m_plan.queueLength) : 1;
        // The sender counts a cycle's whole buffers as sent a moment after it has taken it (positive length)
        // or a moment before it gives it up (negative).
        const std::uint64_t early = whole && m_plan.queueLength < 0 ? 1 : 0;
        const std::uint64_t late = whole && m_plan.queueLength > 0 && delivery.oldestFront != 0 ? 1 : 0;
        std::set<std::uint64_t>& held = m_heldUpTo[buffer.channelID];
        held.erase(held.begin(), held.upper_bound(delivery.oldestFront - late));
        const auto fewest = std::distance(held.upper_bound(delivery.newestFront + early), held.end());
        const bool mayHaveRoom = fewest < limit || buffer.channelID == 0;
        const bool mayBeFull = static_cast<int>(held.size()) >= limit && !waits && buffer.channelID != 0;
        expect(mayHaveRoom || buffer.fate != OfferedBuffer::QUEUED, "beyond its limit was queued channel",
               static_cast<std::uint64_t>(buffer.channelID));
        expect(mayBeFull || buffer.fate != OfferedBuffer::SKIPPED, "in spite of room was skipped channel",
               static_cast<std::uint64_t>(buffer.channelID));
    }
}

// A delivery begins in the first cycle that the sender hasn't taken and that has no whole buffer yet.
void StreamOracle::checkFirstCycle(const OfferedDelivery& delivery)
{
    const std::uint64_t taken = m_plan.queueLength < 0 ? 1 : 0; // the one in hand may be the front
    expect(delivery.firstCycle >= std::max(m_openCycle, delivery.oldestFront) &&
               delivery.firstCycle <= std::max(m_openCycle, delivery.newestFront + taken),
           "it began too early or too late, delivery", delivery.number);
    m_openCycle = delivery.firstCycle;
    for (const OfferedBuffer& buffer : delivery.buffers) {
        if (buffer.fate == OfferedBuffer::QUEUED) {
            const std::uint64_t behind = behindCycle(delivery, buffer);
            m_heldUpTo[buffer.channelID].insert(behind);
            m_openCycle = m_plan.partsOf(buffer.channelID) == 1 ? behind : m_openCycle;
        }
    }
}

// A record is a snapshot from the delivery that was the first to use the cycle: the oldest of those that it
// carries.
void StreamOracle::checkRecord(const WireCycle& cycle, const OfferedDelivery& creator)
{
    m_settledNumber = creator.number;
    expect(cycle.diag(4) == creator.numSkipped, "not all skipped buffers are counted, but", cycle.diag(4));
    // A slot tells its package itself. Slots that nobody has used say channel 0.
    bool found = false;
    for (std::size_t slot = 8; slot < 208; slot += 40) {
        const auto package = static_cast<int>(cycle.diag(slot + 4));
        const auto flag = creator.flags.find(package);
        found = found || package == creator.firstChannel;
        expect(package == 0 || flag == creator.flags.end() || flag->second == cycle.diag(slot + 12),
               "the wrong flag has package", cycle.diag(slot + 4));
    }
    expect(found, "no slot has the package of delivery", creator.number);
    const std::uint64_t ahead = m_cycle + cycle.diag(0) + (m_plan.queueLength > 0 ? 1 : 0);
    expect(ahead >= m_ahead && ahead > m_cycle, "the queue can't have had the length", cycle.diag(0));
    m_ahead = ahead;
    m_longestQueue = std::max(m_longestQueue, cycle.diag(0));
}
