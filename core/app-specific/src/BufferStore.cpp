#include "BufferStore.h"

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

namespace Lodestone
{

void BufferStore::Stock::take()
{
    --waiting;
    fewest = std::min(fewest, waiting);
}

void BufferStore::Stock::closeWindow(std::size_t window, std::uint32_t spared)
{
    fewestOf[window] = fewest;
    const std::uint32_t unneeded = *std::min_element(fewestOf.begin(), fewestOf.end());
    surplus = unneeded > spared ? unneeded - spared : 0;
    fewest = waiting;
}

bool BufferStore::Stock::dropOne()
{
    if (surplus == 0 || waiting == 0) {
        surplus = 0;
        return false;
    }
    --surplus;
    --waiting;
    fewest = std::min(fewest, waiting);
    for (std::uint32_t& count : fewestOf) {
        count -= count > 0 ? 1 : 0; // one fewer would have waited all along
    }
    return true;
}

BufferStore::BufferStore(std::int64_t longestPause)
    : m_windowLength(std::max(SHORTEST_WINDOW, longestPause / static_cast<std::int64_t>(NO_WINDOWS) + 1))
{}

void BufferStore::openDelivery(DeliveryList& one)
{
    if (m_deliveries.empty()) {
        one.emplace_back();
    } else {
        m_deliveryStock.take();
        one.splice(one.begin(), m_deliveries, m_deliveries.begin());
    }
    // Any of the host's arrays may come next, so a delivery that is reused has room for the largest of late.
    one.front().buffers.reserve(m_mostBuffers);
}

void BufferStore::noteBuffers(std::size_t noBuffers) noexcept
{
    m_mostInWindow = std::max(m_mostInWindow, noBuffers);
    m_mostBuffers = std::max(m_mostBuffers, noBuffers);
}

void BufferStore::closeUnused(DeliveryList& one) noexcept
{
    one.front().clear();
    m_deliveries.splice(m_deliveries.begin(), one);
    m_deliveryStock.put();
}

PayloadBlock BufferStore::takeBlock(std::uint64_t byteSize)
{
    if (byteSize == 0) {
        return PayloadBlock();
    }
    if (byteSize > std::numeric_limits<std::size_t>::max() / 2) {
        throw std::bad_alloc();
    }
    const std::size_t sizeClass = classOf(byteSize);
    if (sizeClass >= NO_CLASSES) {
        return PayloadBlock(static_cast<std::size_t>(byteSize));
    }
    // A block of up to twice the size will do: the sum of a frame's buffers changes with what is due and
    // skipped.
    const std::size_t behind = std::min(sizeClass + 5, NO_CLASSES);
    for (std::size_t candidate = sizeClass; candidate < behind; ++candidate) {
        if (!m_blocks[candidate].empty()) {
            m_blockStocks[candidate].take();
            return m_blocks[candidate].pop();
        }
    }
    return PayloadBlock(static_cast<std::size_t>(sizeOf(sizeClass)));
}

void BufferStore::recycle(ReturnedBuffers& returned) noexcept
{
    while (!returned.blocks.empty()) {
        put(returned.blocks.pop());
    }
    for (Delivery& delivery : returned.deliveries) {
        put(std::move(delivery.whole));
        put(std::move(delivery.parts));
        delivery.clear();
        if (delivery.buffers.capacity() > 2 * m_mostBuffers + 64) {
            delivery.buffers = BufferList(); // room for a frame that was once
        }
        m_deliveryStock.put();
    }
    m_deliveries.splice(m_deliveries.begin(), returned.deliveries);

    if (++m_deliveriesInWindow >= m_windowLength) {
        closeWindow();
    }
    trim();
}

void BufferStore::clear() noexcept
{
    if (m_deliveryStock.waiting != 0) {
        m_deliveries.clear();
        m_deliveryStock = Stock();
    }
    for (std::size_t sizeClass = 0; sizeClass < NO_CLASSES; ++sizeClass) {
        if (m_blockStocks[sizeClass].waiting != 0) {
            m_blocks[sizeClass].clear();
        }
        m_blockStocks[sizeClass] = Stock();
    }
    m_deliveriesInWindow = 0;
    m_surplusLeft = 0;
    m_mostBuffers = 0;
    m_mostInWindow = 0;
}

std::size_t BufferStore::classOf(std::uint64_t byteSize)
{
    // Class 4 * (b - SMALLEST_BITS) + q holds blocks of 2^b + q * 2^(b - 2) bytes.
    const std::uint64_t size = std::max(byteSize, std::uint64_t{1} << SMALLEST_BITS);
    const auto bits = static_cast<std::size_t>(63 - __builtin_clzll(size));
    const std::uint64_t step = std::uint64_t{1} << (bits - 2);
    const std::uint64_t quarters = (size - (std::uint64_t{1} << bits) + step - 1) / step;
    return (bits - SMALLEST_BITS) * 4 + static_cast<std::size_t>(quarters);
}

std::uint64_t BufferStore::sizeOf(std::size_t sizeClass)
{
    const std::size_t bits = SMALLEST_BITS + sizeClass / 4;
    return (std::uint64_t{1} << bits) + (sizeClass % 4) * (std::uint64_t{1} << (bits - 2));
}

void BufferStore::put(PayloadBlock block) noexcept
{
    if (!block) {
        return;
    }
    const std::size_t sizeClass = classOf(block.capacity());
    if (sizeClass < NO_CLASSES) {
        m_blockStocks[sizeClass].put();
        m_blocks[sizeClass].push(std::move(block));
    }
}

void BufferStore::closeWindow() noexcept
{
    m_deliveriesInWindow = 0;
    m_window = (m_window + 1) % NO_WINDOWS;
    m_mostBuffers = m_mostInWindow;
    m_mostInWindow = 0;
    m_deliveryStock.closeWindow(m_window, SPARED_DELIVERIES);
    m_surplusLeft = m_deliveryStock.surplus;
    for (std::size_t sizeClass = 0; sizeClass < NO_CLASSES; ++sizeClass) {
        m_blockStocks[sizeClass].closeWindow(m_window,
                                             static_cast<std::uint32_t>(SPARED_BYTES / sizeOf(sizeClass)));
        m_surplusLeft += m_blockStocks[sizeClass].surplus;
    }
    m_trimClass = 0;
}

void BufferStore::trim() noexcept
{
    if (m_surplusLeft == 0) {
        return;
    }
    // One delivery and one block a frame: giving big blocks back costs a system call each.
    if (m_deliveryStock.dropOne()) {
        m_deliveries.pop_back();
        --m_surplusLeft;
    }
    while (m_trimClass < NO_CLASSES) {
        if (m_blockStocks[m_trimClass].dropOne()) {
            m_blocks[m_trimClass].pop();
            --m_surplusLeft;
            return;
        }
        ++m_trimClass;
    }
    if (m_deliveryStock.surplus == 0) {
        m_surplusLeft = 0;
    }
}

} // namespace Lodestone
