#include "RateMeter.h"

#include <algorithm>

namespace LodestoneTap
{

void RateMeter::add(std::uint64_t amount, TimePoint now)
{
    const std::uint64_t slot = slotNumber(now);
    const std::uint64_t passed = std::min(slot - m_newestSlot, SLOTS);
    // Slots that went by without an amount still hold that of the round before.
    for (std::uint64_t i = 1; i <= passed; ++i) {
        m_amounts[place(m_newestSlot + i)] = 0;
    }
    m_newestSlot = slot;
    m_amounts[place(slot)] += amount;
}

double RateMeter::perSecond(TimePoint now) const
{
    const std::uint64_t slot = slotNumber(now);
    const std::uint64_t oldest = slot >= SLOTS - 1 ? slot - (SLOTS - 1) : 0;
    std::uint64_t sum = 0;
    for (std::uint64_t i = 0; i < SLOTS && i <= m_newestSlot; ++i) {
        if (m_newestSlot - i >= oldest) {
            sum += m_amounts[place(m_newestSlot - i)];
        }
    }
    const std::chrono::duration<double> window = now - (m_start + oldest * SLOT_LENGTH);
    // The first moments of a stream would make a rate of thousands out of one buffer.
    return static_cast<double>(sum) / std::max(window.count(), 0.1);
}

std::uint64_t RateMeter::slotNumber(TimePoint now) const
{
    const std::uint64_t slot = now <= m_start ? 0 : static_cast<std::uint64_t>((now - m_start) / SLOT_LENGTH);
    return std::max(slot, m_newestSlot);
}

} // namespace LodestoneTap
