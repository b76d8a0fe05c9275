#ifndef LODESTONE_APP_SONDEBUFFERQUEUE_H
#define LODESTONE_APP_SONDEBUFFERQUEUE_H

#include "BufferStore.h"
#include "ChannelTable.h"
#include "ConfigStringParser.h"
#include "CycleGate.h"
#include "CycleList.h"
#include "LodestoneDiag.h"
#include "MutexLocker.h"
#include "TCPSocket.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <pthread.h>
#include <vector>

namespace Lodestone
{

/// Everything between a frame and the TCP stream: the queue of cycles, the copies of the buffers that they
/// will send, the connection, and the diagnostics.
///
/// Three threads meet here.
///
///   Host    enters by addBuffers, once or twice a frame. Decides about every buffer, copies what is
///           wanted, queues it in m_JobList and wakes the sender. Starts and stops the sender. With a
///           positive queue length it waits for nobody, but for the end of a sender that it stops.
///   Sender  runs while there is a client: takes the front cycle (getNextJob), writes it (transmitCycle),
///           gives its memory back (jobDone). The only one to write to the socket; may block there. Woken by
///           m_jobCondition.
///   Server  accepts clients for the whole life of the queue and replaces the socket between two cycles.
///           Does nothing else; the host finds out at its next frame.
///
/// The life of a payload. addBuffers copies it once, into a Delivery that it builds in a local list. Queueing
/// moves the Delivery into m_JobList, which owns it until its last cycle is finished, also while the sender
/// has a cycle of it in hand. jobDone moves it to m_bufferList, and the next delivery takes its memory over
/// (m_store). So a payload has one owner at any time, and whatever becomes of a cycle, sent, failed or
/// dropped, its memory comes back by one road. A once channel's payload waits in m_onceBuffers before that,
/// until the set is complete.
///
/// Locks, in the order in which they may be nested:
///
///   m_addBufferMutex   The cycle-building section of addBuffers. Host only. The host may join the sender
///                      under it, since the sender never takes it.
///   m_socketMutex      m_sondeSocket. The sender holds it for a whole cycle, jobDone included, the server
///                      for a replacement; m_gate, in front of it, makes sure that neither starves nor waits
///                      without bound. Nobody joins the sender under it.
///   m_jobMutex         m_JobList, and the sleep on m_jobCondition. Inside either of the two above. Held for
///                      a constant time; never during a send or a copy of a payload.
///   m_bufferListMutex  m_bufferList. As m_jobMutex, and never together with it.
///
/// m_addBufferMutex and m_socketMutex are never held by one thread at once.
class SondeBufferQueue
{
public:
    /// Copies `config` and starts both threads. Throws std::runtime_error if a thread can't be started, or
    /// std::bad_alloc; no thread is left running then.
    explicit SondeBufferQueue(const ConfigStringParser::Config& config);

    /// Stops and joins both threads: within 500 ms, and not before the cycle under way has gone out to a
    /// client that takes it. In a forked child, where the threads don't exist, it waits for nobody.
    ~SondeBufferQueue();

    SondeBufferQueue(const SondeBufferQueue&) = delete;
    SondeBufferQueue& operator=(const SondeBufferQueue&) = delete;

    /// Decides the fate of every buffer of one delivery, copies and queues what is to be sent. The array is
    /// read during the call only. `constantBuffer` limits each channel to one queued cycle and never waits.
    ///
    /// Returns the diagnostics record of the package, known by the channel of its first buffer; it lives as
    /// long as the queue, and the caller adds its run time there. Null if nothing in the array is of
    /// interest, or if the queue is out of service because its port couldn't be bound.
    ///
    /// Throws std::runtime_error or std::bad_alloc; the queue is then as before the call, apart from counts
    /// of skipped buffers and the turns of intermittent channels. One thread at a time.
    PerPackageDiag* addBuffers(AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize,
                               bool constantBuffer);

    /// False in a forked child. Such a queue can't be used and must not be destroyed: leave its memory alone.
    bool threadsAreHere() const;

private:
    friend struct QueueProbe;

    enum TransmissionState
    {
        TRANSFER_INITIATE = 0,  ///< A sender was started for a client; once channels are collected.
        TRANSFER_ONCE_DATA = 1, ///< The ONCE cycle is queued; nothing else is until it has gone out.
        TRANSFER_NORMAL_DATA = 2,
        TRANSFER_FINISHED = 3 ///< The sender was told to stop.
    };

    static constexpr std::int64_t NO_CONNECTION = -1;
    static constexpr std::int32_t SHARED_SLOT = 4; ///< Of the fifth package and all later ones.
    typedef std::map<int, int> PackageDiagMap;

    // --- Host thread ---

    bool needsProcessing(const AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize);
    PerPackageDiag* registerPackage(std::int32_t firstChannelID);
    void waitForRoom(const AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize,
                     std::int32_t maxAppearance, PerPackageDiag& diag) LODESTONE_EXCLUDES(m_addBufferMutex);
    void collectOnceData(const AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize)
        LODESTONE_REQUIRES(m_addBufferMutex);
    void queueOnceCycle() LODESTONE_REQUIRES(m_addBufferMutex);
    void awaitOnceData() LODESTONE_REQUIRES(m_addBufferMutex);
    void queueNormalData(const AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize,
                         std::int32_t maxAppearance, PerPackageDiag& diag)
        LODESTONE_REQUIRES(m_addBufferMutex);

    bool chooseBuffers(const AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize,
                       std::int32_t maxAppearance, Delivery& delivery) LODESTONE_REQUIRES(m_addBufferMutex);
    bool intermittentIsDue(const Channel& channel);
    bool spaceLeftInQueue(const Channel& channel, std::int32_t maxAppearance, bool splitted) const;
    void addToBufferList(Delivery& delivery, const AlgoMeasBuffer& measBuffer, Channel& channel,
                         std::int32_t noParts);
    void copyPayloads(Delivery& delivery);
    std::uint64_t mergeIntoQueue(DeliveryList& newList) noexcept LODESTONE_REQUIRES(m_addBufferMutex)
        LODESTONE_EXCLUDES(m_jobMutex, m_bufferListMutex);
    void publishFront() LODESTONE_REQUIRES(m_jobMutex);

    bool connectionLost() const;
    bool transferRuns() const;
    void reset() LODESTONE_REQUIRES(m_addBufferMutex) LODESTONE_EXCLUDES(m_jobMutex, m_bufferListMutex);
    void clearJobList() LODESTONE_EXCLUDES(m_jobMutex, m_bufferListMutex);
    void clearBufferList() LODESTONE_EXCLUDES(m_jobMutex, m_bufferListMutex);
    void collectReturned() LODESTONE_EXCLUDES(m_jobMutex, m_bufferListMutex);
    void toggleSenderThread(bool start) LODESTONE_EXCLUDES(m_socketMutex, m_jobMutex);
    void startSender() LODESTONE_EXCLUDES(m_socketMutex, m_jobMutex);
    void stopSender() noexcept LODESTONE_EXCLUDES(m_socketMutex, m_jobMutex);
    void reapSender() noexcept LODESTONE_EXCLUDES(m_socketMutex, m_jobMutex);

    // --- Sender thread ---

    static void* senderThreadFunction(void* arg);
    void sendCycles();
    bool sendNextCycle() LODESTONE_EXCLUDES(m_socketMutex, m_jobMutex, m_bufferListMutex);
    void getNextJob(CycleJob& job) LODESTONE_EXCLUDES(m_jobMutex);
    void sendOrLoseConnection(CycleGate::Cycle& passage, CycleJob& job) LODESTONE_REQUIRES(m_socketMutex);
    void transmitCycle(CycleJob& job) LODESTONE_REQUIRES(m_socketMutex);
    void transmitEntry(const CycleJob& job, SendJob& sendJob) LODESTONE_REQUIRES(m_socketMutex);
    void transmitDiagnostics(CycleJob& job) LODESTONE_REQUIRES(m_socketMutex);
    void sendPiece(const void* data, std::int32_t byteSize) LODESTONE_REQUIRES(m_socketMutex);
    void loseConnection() LODESTONE_REQUIRES(m_socketMutex);
    void jobDone(CycleJob& job) LODESTONE_EXCLUDES(m_jobMutex, m_bufferListMutex);
    void dropJob(CycleJob& job) LODESTONE_EXCLUDES(m_jobMutex, m_bufferListMutex);
    void countSent(const CycleJob& job);
    static void returnWhole(const CycleJob& job, ReturnedBuffers& returned);
    static void calcOffsetLength(SendJob& job);

    // --- Server thread ---

    static void* serverThreadFunction(void* arg);
    void serveConnections();
    AcceptResult replaceConnection(TCPServerSocket& serverSocket, unsigned int& socketID)
        LODESTONE_EXCLUDES(m_socketMutex);
    void dropConnection() LODESTONE_EXCLUDES(m_socketMutex);

    // --- Constant after construction; read by all threads without a lock ---

    const ConfigStringParser::Config m_config;
    const std::uint32_t m_forks; ///< Forks before this queue was built.

    // --- Locks ---

    Mutex m_addBufferMutex LODESTONE_ACQUIRED_BEFORE(m_jobMutex, m_bufferListMutex);
    Mutex m_socketMutex LODESTONE_ACQUIRED_BEFORE(m_jobMutex, m_bufferListMutex);
    Mutex m_jobMutex;
    Mutex m_bufferListMutex;
    pthread_cond_t m_jobCondition; ///< With m_jobMutex. The sender sleeps on it while m_JobList is empty.
    CycleGate m_gate; ///< Has a lock of its own, taken inside none but m_addBufferMutex or m_socketMutex.

    // --- Guarded ---

    CycleList m_JobList LODESTONE_GUARDED_BY(m_jobMutex);
    /// Memory of finished cycles, on its way from the sender back to m_store.
    ReturnedBuffers m_bufferList LODESTONE_GUARDED_BY(m_bufferListMutex);
    std::unique_ptr<TCPSocket> m_sondeSocket LODESTONE_GUARDED_BY(m_socketMutex);
    /// A byte of the cycle in transmission has gone out.
    bool m_cycleBegun LODESTONE_GUARDED_BY(m_socketMutex) = false;

    // --- Atomic: one thread asks while another one changes them; no decision needs two of them at once ---

    /// The id of the socket in m_sondeSocket, or NO_CONNECTION. Changes under m_socketMutex; read without it
    /// by the host and by the sender before it takes the mutex.
    std::atomic<std::int64_t> m_connectedID{NO_CONNECTION};
    /// What is queued belongs to a client that is gone: the host's next frame resets, until then nothing is
    /// sent. Set before the connection that was lost is taken away or replaced, cleared by the reset alone.
    std::atomic<bool> m_restartMarked{false};
    /// The sender is wanted. The host clears it under m_jobMutex, or the sender could go to sleep on a stop.
    std::atomic<bool> m_senderRunning{false};
    std::atomic<bool> m_serverThreadRunning{true};
    /// Written by the host under m_addBufferMutex, or when no addBuffers can run.
    std::atomic<TransmissionState> m_transmissionState{TRANSFER_INITIATE};
    /// Copy of m_JobList.frontCycle() for the host's backlog test; changes under m_jobMutex.
    std::atomic<std::uint64_t> m_frontCycle{0};

    // --- Host thread only ---

    ChannelTable m_channels; ///< But for the sender's counts in it.
    /// Split channels that the delivery in progress queues. Room for all of them.
    std::vector<Channel*> m_newSplit;
    BufferStore m_store;
    bool m_clean = true;     ///< Nothing was queued and no counter has moved since the last reset.
    BufferMap m_onceBuffers; ///< The newest copy of each once channel seen in this transfer.
    std::uint32_t m_numSkipped = 0;
    std::uint32_t m_deliveryCounter = 0; ///< Tells two buffers of a channel in one delivery from two in two.
    PackageDiagMap m_packageDiagMap; ///< First channel of a package to its slot, for the first four packages.
    std::int32_t m_numPackages = 0;  ///< Packages with a slot of their own; stops at SHARED_SLOT.
    PerPackageDiag m_packages[5];    ///< The caller of addBuffers writes run times here, on the same thread.
    pthread_t m_threadHandle = {};   ///< The sender, if m_senderJoinable.
    bool m_senderJoinable = false; ///< A sender was started and not joined yet, whether or not it still runs.
    pthread_t m_ServerThread = {};
};

} // namespace Lodestone

#endif
