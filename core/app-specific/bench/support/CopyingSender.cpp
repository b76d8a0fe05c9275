#include "CopyingSender.h"

#include "CpuClock.h"

#include <cstring>

CopyingSender::CopyingSender(const std::vector<Load>& slots) : m_slots(slots), m_thread([this] { run(); }) {}

CopyingSender::~CopyingSender()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_filled.notify_one();
    m_thread.join();
}

void CopyingSender::frame(const std::vector<AlgoMeasBuffer>& buffers)
{
    const Load& slot = m_slots[m_put % m_slots.size()];
    for (std::size_t k = 0; k < buffers.size(); ++k) {
        std::memcpy(const_cast<void*>(slot.buffers()[k].buffer), buffers[k].buffer, buffers[k].sizeTotal);
    }
    bool wasEmpty = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        wasEmpty = m_put == m_taken;
        ++m_put;
    }
    if (wasEmpty) {
        m_filled.notify_one();
    }
}

void CopyingSender::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (true) {
        m_filled.wait(lock, [this] { return m_stop || m_put != m_taken; });
        if (m_stop) {
            return;
        }
        const Load& slot = m_slots[m_taken % m_slots.size()];
        lock.unlock();
        m_sender.cycle(slot.buffers());
        m_cpuNs = ownCpuNs();
        lock.lock();
        ++m_taken;
    }
}
