#ifndef LODESTONE_TEST_QUEUEPROBE_H
#define LODESTONE_TEST_QUEUEPROBE_H

#include "SondeBufferQueue.h"

namespace Lodestone
{

/// The tests' look into a queue. Reads take the lock that the members name, so a probe may be used while the
/// threads run.
struct QueueProbe
{
    explicit QueueProbe(SondeBufferQueue& queue) : q(queue) {}

    bool senderRunning() const { return q.m_senderRunning; }
    bool connected() const { return q.m_connectedID != SondeBufferQueue::NO_CONNECTION; }
    std::int64_t connectedID() const { return q.m_connectedID; }
    const void* jobCondition() const { return &q.m_jobCondition; }
    bool restartMarked() const { return q.m_restartMarked; }
    int state() const { return q.m_transmissionState; }
    std::size_t packagesKnown() const { return q.m_packageDiagMap.size(); }
    const PerPackageDiag& package(int slot) const { return q.m_packages[slot]; }

    std::uint64_t queued() const
    {
        MutexLocker lock(q.m_jobMutex);
        return q.m_JobList.size();
    }
    /// The number of the next fresh cycle.
    std::uint32_t nextCycle() const
    {
        MutexLocker lock(q.m_jobMutex);
        return static_cast<std::uint32_t>(q.m_JobList.m_cycleCounter);
    }
    std::uint64_t frontCycle() const
    {
        MutexLocker lock(q.m_jobMutex);
        return q.m_JobList.frontCycle();
    }
    /// Whether the newest delivery of normal data queued that channel. Host thread.
    bool queuedLast(std::int32_t channelID) const
    {
        const Channel* const channel = q.m_channels.find(channelID);
        return channel != nullptr && channel->lastDelivery == q.m_deliveryCounter;
    }
    /// No buffer is stored anywhere: nothing queued, nothing in the sender's hand.
    bool storeEmpty() const
    {
        MutexLocker lock(q.m_jobMutex);
        return q.m_JobList.idle();
    }
    void setCycleCounter(std::uint64_t counter)
    {
        MutexLocker lock(q.m_jobMutex);
        q.m_JobList.m_cycleCounter = q.m_JobList.m_frontCycle = q.m_JobList.m_openCycle = counter;
        q.publishFront();
    }

    /// Stops the sender and makes the queue believe in a connection in TRANSFER_NORMAL_DATA, so that the test
    /// itself can play the sender. No bytes are ever sent. Call resetPlayed at the end.
    void playSender()
    {
        q.toggleSenderThread(false);
        q.reapSender();
        q.m_connectedID = 0;
        q.m_senderRunning = true;
        q.m_transmissionState = SondeBufferQueue::TRANSFER_NORMAL_DATA;
    }
    /// The reset after a lost client.
    void resetPlayed()
    {
        MutexLocker lock(q.m_addBufferMutex);
        q.reset();
    }
    std::uint32_t numSkipped() const { return q.m_numSkipped; }
    /// Takes and finishes one cycle.
    void sendPlayed()
    {
        CycleJob job;
        q.getNextJob(job);
        q.jobDone(job);
    }
    static void calcOffsetLength(SendJob& job) { SondeBufferQueue::calcOffsetLength(job); }

    SondeBufferQueue& q;
};

} // namespace Lodestone

#endif
