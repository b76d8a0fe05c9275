#include "CycleList.h"

#include <iterator>

namespace Lodestone
{

void Delivery::clear() noexcept
{
    buffers.clear();
    whole = PayloadBlock();
    parts = PayloadBlock();
    onceBuffers.clear();
    cycleType = NORMAL;
    noCycles = 1;
    hasWhole = false;
    wholeBytes = 0;
    partsBytes = 0;
}

std::uint64_t CycleList::append(DeliveryList& one) noexcept
{
    Delivery& delivery = one.front();
    if (delivery.cycleType == ONCE) {
        m_openCycle = m_cycleCounter; // never among what an earlier connection left behind
    }
    delivery.firstCycle = m_openCycle;
    delivery.firstFreshCycle = m_cycleCounter;

    const std::uint64_t available = m_cycleCounter - m_openCycle;
    const auto wanted = static_cast<std::uint64_t>(delivery.noCycles);
    if (wanted > available) {
        m_cycleCounter += wanted - available;
    }
    if (delivery.hasWhole) {
        ++m_openCycle;
    }
    m_deliveries.splice(m_deliveries.end(), one);
    return delivery.firstCycle;
}

void CycleList::take(bool leaveInQueue, CycleJob& job) noexcept
{
    const std::uint64_t cycle = m_frontCycle;
    job.taken = true;
    job.leftInQueue = leaveInQueue;
    job.cycleCounter = cycle;
    job.noJobs = 0;
    job.oldest = m_deliveries.begin();
    // A cycle in transmission takes no more jobs: they would never reach the wire.
    if (m_openCycle == cycle) {
        ++m_openCycle;
    }
    if (!leaveInQueue) {
        ++m_frontCycle;
    }

    for (auto it = job.oldest; it != m_deliveries.end(); ++it) {
        if (it->firstCycle > cycle) {
            break;
        }
        job.newest = it;
        job.noJobs += static_cast<std::int32_t>(it->buffers.size());
        // Fresh cycles follow one another, so exactly one of the deliveries was the first to use this one.
        if (it->firstFreshCycle <= cycle) {
            job.cycleType = it->cycleType;
            job.diag = it->diag;
        }
    }
    job.diag.queueLength = static_cast<std::int32_t>(size());
}

void CycleList::finish(CycleJob& job, DeliveryList& finished) noexcept
{
    if (job.leftInQueue) {
        ++m_frontCycle;
    }
    const auto behind = std::next(job.newest);
    for (auto it = job.oldest; it != behind;) {
        const auto current = it++;
        if (job.cycleCounter + 1 == current->behindCycle()) {
            finished.splice(finished.end(), m_deliveries, current);
        }
    }
    job.taken = false;
}

void CycleList::clear(DeliveryList& removed) noexcept
{
    m_frontCycle = m_cycleCounter;
    m_openCycle = m_cycleCounter;
    removed.splice(removed.end(), m_deliveries);
}

} // namespace Lodestone
