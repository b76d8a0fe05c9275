#include "CycleGate.h"

#include "TCPSocket.h"
#include "TestPoints.h"

#include <ctime>

namespace Lodestone
{

namespace
{

const long NS_PER_MS = 1000000L;
const long NS_PER_S = 1000000000L;

timespec monotonicIn(int wait_ms)
{
    timespec moment;
    clock_gettime(CLOCK_MONOTONIC, &moment);
    moment.tv_nsec += wait_ms % 1000 * NS_PER_MS;
    moment.tv_sec += wait_ms / 1000 + moment.tv_nsec / NS_PER_S;
    moment.tv_nsec %= NS_PER_S;
    return moment;
}

bool isPast(const timespec& moment)
{
    const timespec now = monotonicIn(0);
    return now.tv_sec != moment.tv_sec ? now.tv_sec > moment.tv_sec : now.tv_nsec >= moment.tv_nsec;
}

} // namespace

CycleGate::CycleGate()
{
    pthread_mutex_init(&m_mutex, nullptr);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&m_changed, &attributes);
    pthread_condattr_destroy(&attributes);
}

CycleGate::Cycle::Cycle(CycleGate& gate) : m_gate(gate)
{
    MutexLocker lock(m_gate.m_mutex);
    m_gate.m_cycleWaits = true;
    while (m_gate.cycleMustWait()) {
        pthread_cond_wait(&m_gate.m_changed, &m_gate.m_mutex);
    }
    m_gate.m_cycleWaits = false;
    m_gate.m_cycleUnderWay = true;
    m_gate.m_replacementWasLast = false;
}

CycleGate::Cycle::~Cycle()
{
    MutexLocker lock(m_gate.m_mutex);
    m_gate.m_watched = nullptr;
    m_gate.m_cycleUnderWay = false;
    pthread_cond_broadcast(&m_gate.m_changed);
}

void CycleGate::Cycle::watch(TCPSocket* socket)
{
    MutexLocker lock(m_gate.m_mutex);
    m_gate.m_watched = socket;
}

CycleGate::Replacement::Replacement(CycleGate& gate) : m_gate(gate)
{
    MutexLocker lock(m_gate.m_mutex);
    m_gate.m_replacementWaits = true;
    m_gate.waitCuttingStalls(&CycleGate::replacementMustWait);
    m_gate.m_replacementWaits = false;
    m_gate.m_replacementUnderWay = true;
}

CycleGate::Replacement::~Replacement()
{
    MutexLocker lock(m_gate.m_mutex);
    m_gate.m_replacementUnderWay = false;
    m_gate.m_replacementWasLast = true;
    pthread_cond_broadcast(&m_gate.m_changed);
}

bool CycleGate::cycleMustWait() const
{
    return m_replacementUnderWay || (m_replacementWaits && !m_replacementWasLast);
}

bool CycleGate::replacementMustWait() const
{
    return m_cycleUnderWay || (m_cycleWaits && m_replacementWasLast);
}

void CycleGate::senderStarts()
{
    MutexLocker lock(m_mutex);
    m_senderLives = true;
}

void CycleGate::senderEnds()
{
    MutexLocker lock(m_mutex);
    LODESTONE_TEST_POINT(sender_signs_off);
    m_senderLives = false;
    pthread_cond_broadcast(&m_changed);
}

void CycleGate::awaitSenderEnd()
{
    MutexLocker lock(m_mutex);
    waitCuttingStalls(&CycleGate::senderLives);
}

void CycleGate::waitCuttingStalls(bool (CycleGate::*mustWait)() const)
{
    TCPSocket::Progress last;
    timespec limit = monotonicIn(STALL_LIMIT_MS);
    while ((this->*mustWait)()) {
        const TCPSocket::Progress now = m_watched != nullptr ? m_watched->progress() : TCPSocket::Progress();
        if (!(now == last)) {
            last = now;
            limit = monotonicIn(STALL_LIMIT_MS);
        } else if (isPast(limit) && m_watched != nullptr) {
            LODESTONE_TEST_POINT(stall_found);
            m_watched->abort();
        }
        const timespec nextLook = monotonicIn(LOOK_INTERVAL_MS);
        pthread_cond_timedwait(&m_changed, &m_mutex, &nextLook);
    }
}

} // namespace Lodestone
