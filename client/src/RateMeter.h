#ifndef LODESTONE_CLIENT_RATEMETER_H
#define LODESTONE_CLIENT_RATEMETER_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace LodestoneTap
{

/// Amount per second over the last 5 seconds, or since the start if that is less long ago. The window moves
/// in steps of 500 ms, so that a rate is steady and still falls to 0 within 5 s when nothing comes any more.
/// The caller brings the time, which must not run backwards.
class RateMeter
{
public:
    typedef std::chrono::steady_clock::time_point TimePoint;

    explicit RateMeter(TimePoint start) : m_start(start) {}

    void add(std::uint64_t amount, TimePoint now);

    double perSecond(TimePoint now) const;

private:
    static constexpr std::uint64_t SLOTS = 10;
    static constexpr std::chrono::milliseconds SLOT_LENGTH = std::chrono::milliseconds(500);

    static std::size_t place(std::uint64_t slot) { return static_cast<std::size_t>(slot % SLOTS); }
    std::uint64_t slotNumber(TimePoint now) const;

    TimePoint m_start;
    std::uint64_t m_newestSlot = 0; // counted from the start
    std::array<std::uint64_t, SLOTS> m_amounts = {};
};

} // namespace LodestoneTap

#endif
