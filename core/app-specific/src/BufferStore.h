#ifndef LODESTONE_APP_BUFFERSTORE_H
#define LODESTONE_APP_BUFFERSTORE_H

#include "CycleList.h"
#include "PayloadBlock.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Lodestone
{

/// What a finished cycle leaves behind: memory on its way back to the host thread.
struct ReturnedBuffers
{
    DeliveryList deliveries;
    PayloadBlockStack blocks;

    /// Takes all of `other`. Constant time.
    void splice(ReturnedBuffers& other) noexcept
    {
        deliveries.splice(deliveries.end(), other.deliveries);
        blocks.splice(other.blocks);
    }
};

/// The memory of deliveries, kept for reuse: a steady stream runs without a call of the heap, and big
/// payloads without the page faults that fresh memory costs.
///
/// Only what was once in flight can wait here, and it doesn't wait for ever: what a whole window of
/// deliveries didn't need is freed, a few pieces at a time so that no frame pays for it all. Host thread
/// only.
class BufferStore
{
public:
    /// `longestPause`: deliveries that may lie between two uses of the same memory in a steady stream.
    explicit BufferStore(std::int64_t longestPause);

    BufferStore(const BufferStore&) = delete;
    BufferStore& operator=(const BufferStore&) = delete;

    /// Puts an empty delivery into the empty list `one`. Throws std::bad_alloc.
    void openDelivery(DeliveryList& one);

    /// A delivery with so many buffers goes its way; later ones get room for as many beforehand.
    void noteBuffers(std::size_t noBuffers) noexcept;

    /// Takes back an empty delivery that wasn't queued.
    void closeUnused(DeliveryList& one) noexcept;

    /// Memory for `byteSize` bytes or somewhat more; none for 0. Throws std::bad_alloc.
    PayloadBlock takeBlock(std::uint64_t byteSize);

    /// Takes in what the sender has finished with, and lets go of what hasn't been needed for long. Call it
    /// once per delivery.
    void recycle(ReturnedBuffers& returned) noexcept;

    /// Frees everything that waits.
    void clear() noexcept;

private:
    friend struct QueueProbe;

    // How long "not needed" lasts: ordinary scheduling moves what is in flight up and down, and memory that
    // was freed on the way down would be allocated again on the way up.
    static constexpr std::size_t NO_WINDOWS = 16;
    static constexpr std::int64_t SHORTEST_WINDOW = 256; // deliveries

    /// How many of a kind wait, and the fewest that did in each of the last windows: so many weren't needed.
    struct Stock
    {
        std::uint32_t waiting = 0;
        std::uint32_t fewest = 0;  ///< Since the present window began.
        std::uint32_t surplus = 0; ///< Still to be freed.
        std::array<std::uint32_t, NO_WINDOWS> fewestOf = {};

        void put() { ++waiting; }
        void take();
        /// Surpluses of up to `spared` pieces are left alone.
        void closeWindow(std::size_t window, std::uint32_t spared);
        bool dropOne();
    };

    // Sizes grow in steps of a quarter, so that at most a fifth of a block is unused. Above 2^40 bytes
    // nothing is kept.
    static constexpr std::size_t SMALLEST_BITS = 8;
    static constexpr std::size_t LARGEST_BITS = 40;
    static constexpr std::size_t NO_CLASSES = (LARGEST_BITS - SMALLEST_BITS) * 4 + 1;
    // What isn't worth a call of the heap: so many bytes of a size may wait for good.
    static constexpr std::uint64_t SPARED_BYTES = 65536;
    static constexpr std::uint32_t SPARED_DELIVERIES = 8;

    static std::size_t classOf(std::uint64_t byteSize);
    static std::uint64_t sizeOf(std::size_t sizeClass);

    void put(PayloadBlock block) noexcept;
    void closeWindow() noexcept;
    void trim() noexcept;

    DeliveryList m_deliveries;
    Stock m_deliveryStock;
    std::array<PayloadBlockStack, NO_CLASSES> m_blocks;
    std::array<Stock, NO_CLASSES> m_blockStocks;
    const std::int64_t m_windowLength; // deliveries
    std::int64_t m_deliveriesInWindow = 0;
    std::size_t m_window = 0;      // the present one's place among the last ones
    std::size_t m_trimClass = 0;   // where trim() goes on
    std::size_t m_surplusLeft = 0; // pieces that trim() still has to free
    std::size_t m_mostBuffers = 0; // in one delivery, in this window and the one before
    std::size_t m_mostInWindow = 0;
};

} // namespace Lodestone

#endif
