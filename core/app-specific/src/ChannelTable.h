#ifndef LODESTONE_APP_CHANNELTABLE_H
#define LODESTONE_APP_CHANNELTABLE_H

#include "ConfigStringParser.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Lodestone
{

/// How a configured channel is sent.
enum class ChannelKind : std::uint8_t
{
    NON_SPLIT,
    SPLIT,
    INTERMITTENT,
    ONCE
};

/// What every buffer of a channel needs of it. Small, since a frame of a thousand channels touches all of
/// them. Host thread only.
struct Channel
{
    std::int32_t channelID = 0;
    ChannelKind kind = ChannelKind::NON_SPLIT;
    std::uint32_t lastDelivery = 0; ///< Number of the delivery that queued the channel last, see addBuffers.
    std::uint32_t queuedCycles = 0; ///< Whole: cycles that got the channel since the last reset. Wraps.
};

/// What split and intermittent channels need beside. Host thread only.
struct PartsState
{
    std::int32_t sinceDue = 0;     ///< Intermittent: deliveries of the channel since it was last due.
    std::uint64_t firstCycle = 0;  ///< First cycle of the newest buffer's parts ...
    std::uint64_t behindCycle = 0; ///< ... and the one behind the last; equal if there were none.
};

/// The configured channels, built once per queue and looked up once per buffer.
///
/// The backlog of a channel is kept as numbers, so that asking for it costs the same whatever the queue
/// holds: whole buffers as cycles queued minus cycles sent (counted by the sender), split ones as the range
/// of cycles that their parts occupy.
///
/// Host thread only, but for countSent, which the sender calls.
class ChannelTable
{
public:
    /// Throws std::bad_alloc.
    explicit ChannelTable(const ConfigStringParser::Config& config);

    /// Null for a channel that isn't configured.
    Channel* find(std::int32_t channelID) noexcept;

    /// The place of a channel of this table, by which the sender names it.
    std::uint32_t indexOf(const Channel& channel) const noexcept
    {
        return static_cast<std::uint32_t>(&channel - m_channels.data());
    }

    PartsState& parts(const Channel& channel) noexcept { return m_parts[indexOf(channel)]; }
    const PartsState& parts(const Channel& channel) const noexcept { return m_parts[indexOf(channel)]; }

    /// A cycle with a whole buffer of that channel enters the queue.
    void countQueued(std::uint32_t index) noexcept { ++m_channels[index].queuedCycles; }

    std::size_t size() const noexcept { return m_channels.size(); }

    /// Forgets the backlog and makes every intermittent channel due at its next delivery. No sender may run.
    void reset() noexcept;

    /// Cycles with a whole buffer of the channel that have left the queue since the last reset. Wraps.
    std::uint32_t sentCycles(const Channel& channel) const noexcept
    {
        return m_sentCycles[indexOf(channel)].load(std::memory_order_relaxed);
    }

    /// Sender thread: a cycle with a whole buffer of that channel has left the queue.
    void countSent(std::uint32_t index) noexcept
    {
        // One writer, so no read-modify-write is needed; the count orders nothing else, so relaxed will do.
        m_sentCycles[index].store(m_sentCycles[index].load(std::memory_order_relaxed) + 1,
                                  std::memory_order_relaxed);
    }

private:
    struct Slot
    {
        std::int32_t channelID = -1; // no configured channel is negative: the slot is free
        std::uint32_t index = 0;
    };

    void add(const std::set<int>& channels, ChannelKind kind);
    void buildSlots();
    std::size_t slotOf(std::int32_t channelID) const noexcept;

    const std::int32_t m_intermittentCount;
    std::vector<Channel> m_channels;
    std::vector<PartsState> m_parts; // in the same order
    std::vector<Slot> m_slots;       // open addressing, a power of two in size, at most half full
    unsigned m_shift = 0;            // 32 minus the logarithm of that size
    // Apart from the channels: what the sender writes shares no cache line with what the host writes.
    std::unique_ptr<std::atomic<std::uint32_t>[]> m_sentCycles;
};

} // namespace Lodestone

#endif
