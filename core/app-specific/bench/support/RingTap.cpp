#include "RingTap.h"

#include <algorithm>
#include <cstring>
#include <sys/socket.h>

RingTap::RingTap(int sock, std::size_t capacity) : m_sock(sock), m_ring(capacity), m_thread([this] { run(); })
{}

RingTap::~RingTap()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_filled.notify_one();
    m_thread.join();
}

bool RingTap::apply(const AlgoMeasBuffer* buffers, std::size_t count)
{
    std::size_t size = 12;
    for (std::size_t k = 0; k < count; ++k) {
        size += 20 + buffers[k].sizeTotal;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_head + size - m_tail > m_ring.size()) {
            return false;
        }
    }
    const std::int32_t header[3] = {0, 0, static_cast<std::int32_t>(count)};
    m_next = m_head;
    put(header, sizeof header);
    for (std::size_t k = 0; k < count; ++k) {
        const auto total = static_cast<std::int32_t>(buffers[k].sizeTotal);
        const std::int32_t entry[5] = {buffers[k].channelID, 1, total, 0, total};
        put(entry, sizeof entry);
        put(buffers[k].buffer, buffers[k].sizeTotal);
    }
    bool wasEmpty = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        wasEmpty = m_head == m_tail;
        m_head = m_next;
    }
    if (wasEmpty) {
        m_filled.notify_one();
    }
    return true;
}

void RingTap::put(const void* bytes, std::size_t size)
{
    const std::size_t at = m_next % m_ring.size();
    const std::size_t first = std::min(size, m_ring.size() - at);
    std::memcpy(&m_ring[at], bytes, first);
    std::memcpy(m_ring.data(), static_cast<const char*>(bytes) + first, size - first);
    m_next += size;
}

void RingTap::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (true) {
        m_filled.wait(lock, [this] { return m_stop || m_head != m_tail; });
        if (m_stop) {
            return;
        }
        const std::size_t at = m_tail % m_ring.size();
        const std::size_t size = std::min(static_cast<std::size_t>(m_head - m_tail), m_ring.size() - at);
        lock.unlock();
        const ssize_t sent = ::send(m_sock, &m_ring[at], size, MSG_NOSIGNAL);
        lock.lock();
        if (sent <= 0) {
            return;
        }
        m_tail += static_cast<std::uint64_t>(sent);
    }
}
