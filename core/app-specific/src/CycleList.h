#ifndef LODESTONE_APP_CYCLELIST_H
#define LODESTONE_APP_CYCLELIST_H

#include "LodestoneCommon.h"
#include "LodestoneDiag.h"
#include "PayloadBlock.h"

#include <cstdint>
#include <list>
#include <vector>

namespace Lodestone
{

/// The kind of a cycle.
enum CycleType
{
    NORMAL = 0,
    ONCE = 1
};

/// One buffer of a delivery that is on its way to the client.
struct StoredBuffer
{
    static constexpr std::uint32_t UNCOUNTED = 0xFFFFFFFFU;

    /// Its bytes: the host's until they are copied, then in a block of the delivery. Null if there are none.
    const std::uint8_t* payload = nullptr;
    std::int32_t byteSize = 0; ///< As in SondeBuffer: a negative size has no bytes.
    std::int32_t channelID = 0;
    std::int32_t noParts = 1; ///< 1: sent whole, in the delivery's first cycle only.
    /// Whose count goes up when this buffer's cycle leaves the queue: its channel's index, or UNCOUNTED.
    std::uint32_t countedIndex = UNCOUNTED;
};

/// Buffers in the order of transmission.
typedef std::vector<StoredBuffer> BufferList;

/// One part of one buffer in one cycle, as the sender works it out.
struct SendJob
{
    SendJob(const StoredBuffer* buffer, std::int32_t parts, std::int32_t part)
        : itBuffer(buffer), noParts(parts), partNo(part), partByteSize(0), partOffset(0)
    {}

    const StoredBuffer* itBuffer; ///< Alive until the cycle with the buffer's last part is finished.
    std::int32_t noParts;
    std::int32_t partNo; ///< From 0.
    std::int32_t partByteSize;
    std::int32_t partOffset; ///< In bytes, from the start of the payload.
};

/// What one call of addBuffers queues: its buffers, and the run of consecutive cycles that carry them.
///
/// Whole buffers go out in the first cycle of the run, part k of every split buffer in its k-th. That is all
/// there is to a part: a delivery takes the same memory and the same work whether it is cut into ten parts or
/// a million.
///
/// The delivery owns the bytes. `whole` is given back after the first cycle, everything else after the last.
struct Delivery
{
    BufferList buffers;      ///< In the order of the host's array.
    PayloadBlock whole;      ///< Bytes of the buffers with one part.
    PayloadBlock parts;      ///< Bytes of the split buffers.
    BufferMap onceBuffers;   ///< Bytes of a ONCE cycle.
    LodestoneDiag diag = {}; ///< Goes out with the cycles that this delivery was the first to use.

    CycleType cycleType = NORMAL;
    std::int32_t noCycles = 1;         ///< Length of the run.
    std::uint64_t firstCycle = 0;      ///< Set when the delivery is queued.
    std::uint64_t firstFreshCycle = 0; ///< The first cycle that this delivery was the first to use.
    bool hasWhole = false;             ///< Some buffer has one part.
    std::uint64_t wholeBytes = 0;      ///< Memory that `whole` has to hold ...
    std::uint64_t partsBytes = 0;      ///< ... and `parts`.

    /// As a new one, but for the memory that `buffers` keeps.
    void clear() noexcept;

    std::uint64_t behindCycle() const { return firstCycle + static_cast<std::uint64_t>(noCycles); }
};

typedef std::list<Delivery> DeliveryList;

/// The cycle that the sender has in hand. From take to finish the sender reads its deliveries, and takes
/// whole buffers out of the newest one, without the lock: meanwhile the list doesn't remove them, and append
/// only touches the links behind the last one.
struct CycleJob
{
    bool taken = false;       ///< False if there was no cycle to take.
    bool leftInQueue = false; ///< The cycle counts as queued until it is finished. Decided once, when taken.
    CycleType cycleType = NORMAL;
    std::uint64_t cycleCounter = 0; ///< The cycle's number; the wire carries its low 32 bits.
    std::int32_t noJobs = 0;        ///< Parts and whole buffers in it, without the diagnostics pair.
    LodestoneDiag diag = {};
    DeliveryList::iterator oldest = {}; ///< The cycle's deliveries: from here ...
    DeliveryList::iterator newest = {}; ///< ... to here, that one included.
};

/// The queue of numbered cycles, oldest first.
///
/// Cycles aren't stored one by one. They are consecutive numbers, and what a cycle carries follows from the
/// deliveries whose runs cover its number, newest delivery first. A delivery's run begins at the first cycle
/// that carries no whole buffer yet and that the sender hasn't taken (the first open one), so whole buffers
/// ride beside the parts of older buffers, and cycles are added at the back only for the rest. Deliveries
/// stand in the order of their queueing, which is the order of their first cycles too: those that cover the
/// front cycle are always the first ones in the list.
///
/// A delivery stays in the list until its last cycle is finished, also while the sender has it in hand.
///
/// All of it under one lock of the owner. No operation but clear depends on the number of cycles, buffers or
/// bytes; take and finish take a step for each delivery that the cycle carries.
class CycleList
{
public:
    /// No cycle waits. The sender may still have one in hand.
    bool empty() const noexcept { return m_frontCycle == m_cycleCounter; }
    /// Cycles that wait, and the one in hand if it was left in the queue.
    std::uint64_t size() const noexcept { return m_cycleCounter - m_frontCycle; }
    /// No cycle waits and none is in hand, so no buffer is stored.
    bool idle() const noexcept { return m_deliveries.empty(); }
    /// The number of the oldest cycle.
    std::uint64_t frontCycle() const noexcept { return m_frontCycle; }

    /// Queues the one delivery of `one` by moving its node and returns the first cycle of its run. A ONCE
    /// delivery gets a fresh cycle of its own.
    std::uint64_t append(DeliveryList& one) noexcept;

    /// Takes the front cycle; `leaveInQueue` leaves it there until it is finished. The list must not be
    /// empty.
    void take(bool leaveInQueue, CycleJob& job) noexcept;
    /// Ends a cycle that was taken: deliveries that it was the last cycle of go to `finished`.
    void finish(CycleJob& job, DeliveryList& finished) noexcept;

    /// Gives all deliveries to `removed`. No cycle may be in hand. The numbers run on.
    void clear(DeliveryList& removed) noexcept;

private:
    friend struct QueueProbe;

    DeliveryList m_deliveries;
    // 64 bits, so that numbers never wrap here; only the wire's do.
    std::uint64_t m_frontCycle = 0;   // the oldest cycle in the queue
    std::uint64_t m_openCycle = 0;    // the first that new deliveries may use
    std::uint64_t m_cycleCounter = 0; // the next fresh cycle
};

} // namespace Lodestone

#endif
