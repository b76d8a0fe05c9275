#include "SondeBufferQueue.h"

#include "ALUtil.h"
#include "LibraryThread.h"
#include "ProcessLife.h"
#include "ProtocolIOT.h"
#include "TestPoints.h"
#include "sonde_ld_data.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace Lodestone
{

namespace
{

const unsigned ROOM_WAIT_US = 5000;
const int SERVER_POLL_MS = 500;
const std::uint32_t DIAGNOSTICS_CHANNEL = 10998;
const int DIAGNOSTICS_ENTRIES = 2;

// Payloads begin at multiples of this from the start of their block, so that copies run at full speed.
const std::uint64_t PAYLOAD_ALIGNMENT = 16;

std::uint64_t alignedSize(std::int32_t byteSize)
{
    const std::uint64_t size = byteSize > 0 ? static_cast<std::uint64_t>(byteSize) : 0;
    return (size + PAYLOAD_ALIGNMENT - 1) & ~(PAYLOAD_ALIGNMENT - 1);
}

} // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Start and end, on the host's thread

SondeBufferQueue::SondeBufferQueue(const ConfigStringParser::Config& config)
    : m_config(config), m_forks(ProcessLife::forks()), m_channels(config),
      m_store(2 * static_cast<std::int64_t>(config.intermittentCount)) // two deliveries a frame
{
    m_newSplit.reserve(m_channels.size());
    al_mem_zero(m_packages, sizeof m_packages);
    pthread_mutex_init(&m_jobMutex, nullptr);
    pthread_mutex_init(&m_bufferListMutex, nullptr);
    pthread_mutex_init(&m_addBufferMutex, nullptr);
    pthread_mutex_init(&m_socketMutex, nullptr);
    pthread_cond_init(&m_jobCondition, nullptr);
    ProcessLife::watchForks();

    toggleSenderThread(true);
    if (!startLibraryThread(m_ServerThread, &SondeBufferQueue::serverThreadFunction, this)) {
        m_serverThreadRunning = false;
        toggleSenderThread(false);
        throw std::runtime_error("Unable to create server thread (pthread_create)");
    }
}

SondeBufferQueue::~SondeBufferQueue()
{
    if (!threadsAreHere()) {
        return;
    }
    if (m_senderRunning) {
        stopSender();
    }
    reapSender();
    m_serverThreadRunning = false;
    pthread_join(m_ServerThread, nullptr);
    // From here on this thread is alone. The connection goes with the members, after its sender.
    clearJobList();
    clearBufferList();
}

bool SondeBufferQueue::threadsAreHere() const
{
    return m_forks == ProcessLife::forks();
}

void SondeBufferQueue::toggleSenderThread(bool start)
{
    if (start && !m_senderRunning) {
        startSender();
    } else if (!start && m_senderRunning) {
        stopSender();
    }
}

void SondeBufferQueue::startSender()
{
    reapSender(); // one that ended by itself may still be in its last jobDone
    m_transmissionState = TRANSFER_INITIATE;
    m_onceBuffers.clear();
    m_senderRunning = true;
    m_gate.senderStarts();
    if (!startLibraryThread(m_threadHandle, &SondeBufferQueue::senderThreadFunction, this)) {
        m_gate.senderEnds();
        m_senderRunning = false;
        throw std::runtime_error("Unable to create sender thread");
    }
    m_senderJoinable = true;
}

void SondeBufferQueue::stopSender() noexcept
{
    m_transmissionState = TRANSFER_FINISHED;
    LODESTONE_TEST_POINT(stop_begins);
    {
        // Under the sleeper's mutex: between its look at the flag and its sleep the signal would be lost.
        MutexLocker lock(m_jobMutex);
        m_senderRunning = false;
        pthread_cond_signal(&m_jobCondition);
    }
    reapSender();
}

void SondeBufferQueue::reapSender() noexcept
{
    if (m_senderJoinable) {
        m_gate.awaitSenderEnd(); // bounds the wait for a client that has stopped reading
        pthread_join(m_threadHandle, nullptr);
        m_senderJoinable = false;
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The frame path, on the host's thread

PerPackageDiag* SondeBufferQueue::addBuffers(AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize,
                                             bool constantBuffer)
{
    if (!m_serverThreadRunning || !threadsAreHere() || !needsProcessing(measBuffer, measBuffersArraySize)) {
        return nullptr;
    }
    PerPackageDiag* const diag = registerPackage(measBuffer[0].channelID);

    const std::int32_t maxAppearance = constantBuffer ? 1 : std::abs(m_config.queueLength);
    if (!constantBuffer && m_config.queueLength < 0) {
        waitForRoom(measBuffer, measBuffersArraySize, maxAppearance, *diag);
        if (!threadsAreHere()) {
            return diag; // a signal handler has forked in the wait, and this is the child
        }
    }

    MutexLocker lock(m_addBufferMutex);
    if (connectionLost()) {
        reset();
    }
    LODESTONE_TEST_POINT(loss_looked_for);
    if (m_connectedID == NO_CONNECTION || ProcessLife::exiting()) {
        return diag;
    }
    LODESTONE_TEST_POINT(client_found);
    toggleSenderThread(true);
    LODESTONE_TEST_POINT(sender_there);

    switch (m_transmissionState) {
    case TRANSFER_INITIATE:
        collectOnceData(measBuffer, measBuffersArraySize);
        break;
    case TRANSFER_ONCE_DATA:
        awaitOnceData();
        break;
    case TRANSFER_NORMAL_DATA:
        queueNormalData(measBuffer, measBuffersArraySize, maxAppearance, *diag);
        break;
    case TRANSFER_FINISHED:
        break;
    }
    return diag;
}

bool SondeBufferQueue::needsProcessing(const AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize)
{
    // Once channels have had their turn when normal data flow, but only if they flow to somebody: a frame of
    // nothing but once channels must be able to notice a lost client and to start the next transfer.
    const bool onceWanted = m_transmissionState != TRANSFER_NORMAL_DATA || !transferRuns();
    for (std::uint32_t idx = 0; idx < measBuffersArraySize; ++idx) {
        const Channel* const channel = m_channels.find(measBuffer[idx].channelID);
        if (channel != nullptr && (onceWanted || channel->kind != ChannelKind::ONCE)) {
            return true;
        }
    }
    return false;
}

bool SondeBufferQueue::connectionLost() const
{
    return m_connectedID == NO_CONNECTION || m_restartMarked;
}

bool SondeBufferQueue::transferRuns() const
{
    return !connectionLost() && m_senderRunning;
}

PerPackageDiag* SondeBufferQueue::registerPackage(std::int32_t firstChannelID)
{
    std::int32_t diagIdx = SHARED_SLOT;
    const auto it = m_packageDiagMap.find(firstChannelID);
    if (it != m_packageDiagMap.end()) {
        diagIdx = it->second;
    } else if (m_numPackages < SHARED_SLOT) {
        m_packageDiagMap.emplace(firstChannelID, m_numPackages);
        diagIdx = m_numPackages++;
    }
    PerPackageDiag* const diag = &m_packages[diagIdx];
    diag->firstChannelID = firstChannelID;
    diag->waitedForQueue = 0;
    return diag;
}

void SondeBufferQueue::waitForRoom(const AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize,
                                   std::int32_t maxAppearance, PerPackageDiag& diag)
{
    bool waitForJob = true;
    while (waitForJob) {
        waitForJob = false;
        for (std::uint32_t idx = 0; idx < measBuffersArraySize; ++idx) {
            const Channel* const channel = m_channels.find(measBuffer[idx].channelID);
            if (channel == nullptr || channel->kind == ChannelKind::ONCE) {
                continue;
            }
            if (!spaceLeftInQueue(*channel, maxAppearance, false)) {
                waitForJob = true;
                diag.waitedForQueue = 1;
                usleep(ROOM_WAIT_US);
            }
        }
        if (!threadsAreHere()) {
            return;
        }
        MutexLocker lock(m_addBufferMutex);
        if (connectionLost()) {
            reset();
            return;
        }
        // Without a sender nothing drains the queue; the caller starts one. And a process that ends can't
        // wait.
        if (!m_senderRunning || ProcessLife::exiting()) {
            return;
        }
    }
}

void SondeBufferQueue::collectOnceData(const AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize)
{
    m_numSkipped = 0;
    if (m_config.onceChannels.empty()) {
        m_transmissionState = TRANSFER_NORMAL_DATA;
        return;
    }
    BufferMap newer; // all of this frame or nothing: a set must not mix frames because memory ran out
    for (std::uint32_t idx = 0; idx < measBuffersArraySize; ++idx) {
        const Channel* const channel = m_channels.find(measBuffer[idx].channelID);
        if (channel != nullptr && channel->kind == ChannelKind::ONCE) {
            newer[channel->channelID] = SondeBuffer(measBuffer[idx]);
        }
    }
    replaceBuffers(m_onceBuffers, newer);
    if (m_onceBuffers.size() == m_config.onceChannels.size()) {
        queueOnceCycle();
    }
}

void SondeBufferQueue::queueOnceCycle()
{
    DeliveryList newList(1);
    Delivery& delivery = newList.front();
    delivery.cycleType = ONCE;
    delivery.hasWhole = true;
    delivery.buffers.reserve(m_onceBuffers.size());
    for (const auto& entry : m_onceBuffers) {
        StoredBuffer buffer;
        buffer.payload = entry.second.payload;
        buffer.byteSize = entry.second.byteSize;
        buffer.channelID = entry.second.channelID;
        delivery.buffers.push_back(buffer);
    }
    delivery.onceBuffers.swap(m_onceBuffers); // the payloads stay where they are
    m_clean = false;
    // Nothing fails from here on. The state comes first: by it the sender, who may be quicker than this
    // thread, leaves the cycle in the queue, and so a client that takes over before the first byte gets it
    // instead.
    m_transmissionState = TRANSFER_ONCE_DATA;
    LODESTONE_TEST_POINT(once_announced);
    mergeIntoQueue(newList);
}

void SondeBufferQueue::awaitOnceData()
{
    MutexLocker lock(m_jobMutex);
    if (m_JobList.idle()) {
        m_transmissionState = TRANSFER_NORMAL_DATA;
    }
}

void SondeBufferQueue::queueNormalData(const AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize,
                                       std::int32_t maxAppearance, PerPackageDiag& diag)
{
    m_clean = false;
    collectReturned();
    DeliveryList newList; // all of it is built here; until the merge an exception leaves the queue as it was
    m_store.openDelivery(newList);
    Delivery& delivery = newList.front();

    const bool skippedChannel = chooseBuffers(measBuffer, measBuffersArraySize, maxAppearance, delivery);
    diag.skipped = skippedChannel ? 1 : 0;
    if (delivery.buffers.empty()) {
        m_store.closeUnused(newList);
        return;
    }
    copyPayloads(delivery);
    const auto noCycles = static_cast<std::uint64_t>(delivery.noCycles);
    const std::uint64_t firstCycle = mergeIntoQueue(newList); // the delivery is the queue's from here on
    LODESTONE_TEST_POINT(delivery_queued);
    for (Channel* const channel : m_newSplit) {
        PartsState& parts = m_channels.parts(*channel);
        parts.firstCycle = firstCycle;
        parts.behindCycle = firstCycle + noCycles;
    }
}

bool SondeBufferQueue::chooseBuffers(const AlgoMeasBuffer* measBuffer, std::uint32_t measBuffersArraySize,
                                     std::int32_t maxAppearance, Delivery& delivery)
{
    if (++m_deliveryCounter == 0) {
        ++m_deliveryCounter; // it has wrapped; 0 stands for channels that were never queued
    }
    m_newSplit.clear();
    bool skippedChannel = false;
    for (std::uint32_t idx = 0; idx < measBuffersArraySize; ++idx) {
        Channel* const channel = m_channels.find(measBuffer[idx].channelID);
        if (channel == nullptr || channel->kind == ChannelKind::ONCE) {
            continue;
        }
        if (channel->kind == ChannelKind::INTERMITTENT && !intermittentIsDue(*channel)) {
            continue;
        }
        const bool splitted = channel->kind != ChannelKind::NON_SPLIT;
        if (spaceLeftInQueue(*channel, maxAppearance, splitted)) {
            addToBufferList(delivery, measBuffer[idx], *channel, splitted ? m_config.splitCount : 1);
        } else {
            skippedChannel = true;
            ++m_numSkipped;
        }
    }
    return skippedChannel;
}

bool SondeBufferQueue::intermittentIsDue(const Channel& channel)
{
    std::int32_t& sinceDue = m_channels.parts(channel).sinceDue;
    if (++sinceDue < m_config.intermittentCount) {
        return false;
    }
    sinceDue = 0;
    return true;
}

bool SondeBufferQueue::spaceLeftInQueue(const Channel& channel, std::int32_t maxAppearance,
                                        bool splitted) const
{
    if (channel.channelID <= 0) {
        return true;
    }
    std::uint64_t noFound = 0; // cycles in the queue that hold the channel
    if (channel.kind == ChannelKind::NON_SPLIT) {
        noFound = channel.queuedCycles - m_channels.sentCycles(channel);
    } else {
        // The newest buffer's parts are all there are: it was let in because the older ones' were through.
        const PartsState& parts = m_channels.parts(channel);
        const std::uint64_t front = std::max(m_frontCycle.load(std::memory_order_relaxed), parts.firstCycle);
        noFound = parts.behindCycle > front ? parts.behindCycle - front : 0;
    }
    return splitted ? noFound == 0 : noFound < static_cast<std::uint64_t>(maxAppearance);
}

void SondeBufferQueue::addToBufferList(Delivery& delivery, const AlgoMeasBuffer& measBuffer, Channel& channel,
                                       std::int32_t noParts)
{
    StoredBuffer buffer;
    // copyPayloads replaces the pointer when it knows how much memory all of them take.
    buffer.payload = static_cast<const std::uint8_t*>(measBuffer.buffer);
    buffer.byteSize = storedSize(measBuffer);
    buffer.channelID = measBuffer.channelID;
    buffer.noParts = noParts;
    delivery.noCycles = std::max(delivery.noCycles, noParts);
    delivery.hasWhole = delivery.hasWhole || noParts == 1;
    (noParts == 1 ? delivery.wholeBytes : delivery.partsBytes) += alignedSize(buffer.byteSize);
    // A cycle holds a channel once, however often the channel stands in the array.
    if (channel.lastDelivery != m_deliveryCounter) {
        channel.lastDelivery = m_deliveryCounter;
        if (channel.kind == ChannelKind::NON_SPLIT) {
            buffer.countedIndex = m_channels.indexOf(channel);
        } else {
            m_newSplit.push_back(&channel);
        }
    }
    delivery.buffers.push_back(buffer);
}

void SondeBufferQueue::copyPayloads(Delivery& delivery)
{
    delivery.whole = m_store.takeBlock(delivery.wholeBytes);
    delivery.parts = m_store.takeBlock(delivery.partsBytes);
    m_store.noteBuffers(delivery.buffers.size());

    // Nothing fails from here on, so what is counted stays counted.
    std::uint8_t* nextWhole = delivery.whole.data();
    std::uint8_t* nextPart = delivery.parts.data();
    for (StoredBuffer& buffer : delivery.buffers) {
        if (buffer.countedIndex != StoredBuffer::UNCOUNTED) {
            m_channels.countQueued(buffer.countedIndex);
        }
        if (buffer.byteSize <= 0) {
            buffer.payload = nullptr;
            continue;
        }
        std::uint8_t*& next = buffer.noParts == 1 ? nextWhole : nextPart;
        std::memcpy(next, buffer.payload, static_cast<std::size_t>(buffer.byteSize));
        buffer.payload = next;
        next += alignedSize(buffer.byteSize);
    }
}

std::uint64_t SondeBufferQueue::mergeIntoQueue(DeliveryList& newList) noexcept
{
    LodestoneDiag& diag = newList.front().diag;
    diag.numSkipped = static_cast<std::int32_t>(m_numSkipped);
    al_memcpy(diag.diags, m_packages, sizeof m_packages);

    MutexLocker lock(m_jobMutex);
    const bool listWasEmpty = m_JobList.empty();
    const std::uint64_t firstCycle = m_JobList.append(newList);
    if (listWasEmpty) {
        pthread_cond_signal(&m_jobCondition); // the sender sleeps on an empty list only
    }
    return firstCycle;
}

void SondeBufferQueue::publishFront()
{
    m_frontCycle.store(m_JobList.frontCycle(), std::memory_order_relaxed);
}

void SondeBufferQueue::collectReturned()
{
    ReturnedBuffers returned;
    {
        MutexLocker lock(m_bufferListMutex);
        returned.splice(m_bufferList);
    }
    m_store.recycle(returned);
}

void SondeBufferQueue::reset()
{
    toggleSenderThread(false);
    reapSender(); // the lists are this thread's only when the last jobDone is over
    LODESTONE_TEST_POINT(sender_reaped);
    m_restartMarked = false;
    LODESTONE_TEST_POINT(mark_cleared);
    if (!m_clean) {
        clearJobList();
        m_channels.reset();
        clearBufferList();
        m_clean = true;
    }
}

void SondeBufferQueue::clearJobList()
{
    DeliveryList removed;
    MutexLocker lock(m_jobMutex);
    m_JobList.clear(removed);
    publishFront();
}

void SondeBufferQueue::clearBufferList()
{
    collectReturned();
    m_store.clear();
}

// ---------------------------------------------------------------------------------------------------------------------
// The sender thread

void* SondeBufferQueue::senderThreadFunction(void* arg)
{
    nameLibraryThread("lodestone-send");
    auto* const queue = static_cast<SondeBufferQueue*>(arg);
    queue->sendCycles();
    LODESTONE_TEST_POINT(sender_leaves);
    queue->m_gate.senderEnds();
    return nullptr;
}

void SondeBufferQueue::sendCycles()
{
    try {
        while (m_senderRunning && sendNextCycle()) {
        }
    } catch (const std::exception& e) {
        std::printf("Lodestone sender thread exception: %s\n", e.what());
        m_senderRunning = false;
    } catch (...) {
        std::printf("Lodestone sender thread exception: %s\n", "unknown");
        m_senderRunning = false;
    }
}

// False if this sender is at its end.
bool SondeBufferQueue::sendNextCycle()
{
    CycleJob job;
    getNextJob(job);
    if (!m_senderRunning || !job.taken) {
        dropJob(job);
        return false;
    }
    LODESTONE_TEST_POINT(cycle_in_hand);
    const std::int64_t ID = m_connectedID;
    LODESTONE_TEST_POINT(id_taken);
    CycleGate::Cycle passage(m_gate);
    MutexLocker lock(m_socketMutex);
    if (m_restartMarked) {
        // The client that this was queued for is gone; a new one must not see the rest of its stream.
        dropJob(job);
        m_senderRunning = false;
        return false;
    }
    LODESTONE_TEST_POINT(mark_looked_for);
    if (m_connectedID != ID) {
        dropJob(job); // replaced while this thread waited: the new client begins with a cycle of its own
        return true;
    }
    try {
        sendOrLoseConnection(passage, job);
    } catch (...) {
        dropJob(job);
        throw;
    }
    jobDone(job);
    return m_senderRunning;
}

void SondeBufferQueue::getNextJob(CycleJob& job)
{
    {
        MutexLocker lock(m_jobMutex);
        while (m_JobList.empty() && m_senderRunning) {
            pthread_cond_wait(&m_jobCondition, &m_jobMutex);
        }
        if (m_JobList.empty()) {
            return;
        }
        // With a negative length the cycle counts as queued while it is sent, which keeps the host in step
        // with the wire (so its buffers are counted as sent in jobDone); and normal data must not begin
        // before the ONCE cycle is through.
        m_JobList.take(m_config.queueLength < 0 || m_transmissionState == TRANSFER_ONCE_DATA, job);
        publishFront();
    }
    LODESTONE_TEST_POINT(cycle_taken);
    if (!job.leftInQueue) {
        countSent(job);
    }
}

void SondeBufferQueue::sendOrLoseConnection(CycleGate::Cycle& passage, CycleJob& job)
{
    try {
        passage.watch(m_sondeSocket.get());
        transmitCycle(job);
    } catch (const std::runtime_error&) {
        passage.watch(nullptr);
        loseConnection();
    } catch (...) {
        if (!m_cycleBegun) {
            throw;
        }
        // Memory ran out while a failure was put into words. The client has half a cycle: nothing may follow
        // it.
        passage.watch(nullptr);
        loseConnection();
    }
}

// The one place that says what a cycle looks like on the wire.
void SondeBufferQueue::transmitCycle(CycleJob& job)
{
    m_cycleBegun = false;
    IOT_CycleHeader cycleHeader;
    cycleHeader.version = 0;
    cycleHeader.cycleCounter = static_cast<std::int32_t>(static_cast<std::uint32_t>(job.cycleCounter));
    cycleHeader.numberOfChannelsInCycle = job.noJobs + (job.cycleType == ONCE ? 0 : DIAGNOSTICS_ENTRIES);
    sendPiece(&cycleHeader, sizeof cycleHeader);

    for (auto it = job.newest;; --it) {
        const auto partNo = static_cast<std::int32_t>(job.cycleCounter - it->firstCycle);
        for (const StoredBuffer& buffer : it->buffers) {
            SendJob sendJob(&buffer, buffer.noParts, buffer.noParts == 1 ? 0 : partNo);
            transmitEntry(job, sendJob);
        }
        if (it == job.oldest) {
            break;
        }
    }
    if (job.cycleType != ONCE) {
        transmitDiagnostics(job);
    }
}

void SondeBufferQueue::transmitEntry(const CycleJob& job, SendJob& sendJob)
{
    calcOffsetLength(sendJob);
    IOT_ChannelHeader channelHeader;
    channelHeader.channelID = sendJob.itBuffer->channelID;
    channelHeader.numberOfParts = sendJob.noParts;
    channelHeader.totalSize = sendJob.itBuffer->byteSize;
    channelHeader.partNumber =
        job.cycleType == ONCE ? -std::max(1, m_config.intermittentCount) : sendJob.partNo;
    channelHeader.partByteSize = sendJob.partByteSize;
    sendPiece(&channelHeader, sizeof channelHeader);
    if (sendJob.partByteSize > 0) {
        sendPiece(sendJob.itBuffer->payload + sendJob.partOffset, sendJob.partByteSize);
    }
}

void SondeBufferQueue::transmitDiagnostics(CycleJob& job)
{
    AlgoMeasBuffer diagBuff[DIAGNOSTICS_ENTRIES];
    std::uint32_t diagIdx = 0;
    al_packSondeBuffer(diagBuff, &diagIdx, DIAGNOSTICS_CHANNEL, &job.diag, sizeof job.diag,
                       sondeGet_LodestoneDiag);
    for (const AlgoMeasBuffer& entry : diagBuff) {
        StoredBuffer buffer;
        buffer.payload = static_cast<const std::uint8_t*>(entry.buffer);
        buffer.byteSize = static_cast<std::int32_t>(entry.sizeTotal);
        buffer.channelID = entry.channelID;
        SendJob sendJob(&buffer, 1, 0);
        transmitEntry(job, sendJob);
    }
}

void SondeBufferQueue::sendPiece(const void* data, std::int32_t byteSize)
{
    if (!m_sondeSocket) {
        throw std::runtime_error(
            "No connection"); // only the server's own failure takes it away; counts as lost
    }
    const char* next = static_cast<const char*>(data);
    while (byteSize > 0) {
        const int taken = m_sondeSocket->send(next, byteSize);
        if (taken == 0) {
            throw std::runtime_error("The connection takes no more bytes");
        }
        m_cycleBegun = true;
        next += taken;
        byteSize -= taken;
    }
}

void SondeBufferQueue::loseConnection()
{
    // In this order: whoever sees the connection gone, or the sender ended, must see the mark.
    m_restartMarked = true;
    LODESTONE_TEST_POINT(mark_set);
    m_connectedID = NO_CONNECTION;
    LODESTONE_TEST_POINT(id_gone);
    m_sondeSocket.reset();
    LODESTONE_TEST_POINT(socket_gone);
    m_senderRunning = false;
}

void SondeBufferQueue::jobDone(CycleJob& job)
{
    if (job.leftInQueue) {
        countSent(job);
    }
    ReturnedBuffers returned;
    returnWhole(job, returned);
    {
        MutexLocker lock(m_jobMutex);
        m_JobList.finish(job, returned.deliveries);
        publishFront();
    }
    MutexLocker lock(m_bufferListMutex);
    m_bufferList.splice(returned);
}

// A cycle that isn't sent. If it left the queue it is lost with the buffers that end in it; else it waits at
// the front.
void SondeBufferQueue::dropJob(CycleJob& job)
{
    if (job.taken && !job.leftInQueue) {
        jobDone(job);
    }
}

// The cycle leaves the queue, and the backlog of its whole buffers goes down. Only the newest delivery can
// have brought any: whole buffers close a cycle for the deliveries that follow.
void SondeBufferQueue::countSent(const CycleJob& job)
{
    const Delivery& newest = *job.newest;
    if (newest.firstCycle != job.cycleCounter) {
        return;
    }
    for (const StoredBuffer& buffer : newest.buffers) {
        if (buffer.countedIndex != StoredBuffer::UNCOUNTED) {
            m_channels.countSent(buffer.countedIndex);
        }
    }
}

// The whole buffers of a delivery that goes on with its parts have gone out: their memory doesn't wait for
// the last part.
void SondeBufferQueue::returnWhole(const CycleJob& job, ReturnedBuffers& returned)
{
    Delivery& newest = *job.newest;
    if (newest.firstCycle == job.cycleCounter && newest.hasWhole && newest.noCycles > 1) {
        BufferList& buffers = newest.buffers;
        const auto isWhole = [](const StoredBuffer& buffer) { return buffer.noParts == 1; };
        buffers.erase(std::remove_if(buffers.begin(), buffers.end(), isWhole), buffers.end());
        returned.blocks.push(std::move(newest.whole));
    }
}

// Cuts a buffer into noParts slices. The last one takes the rest of the division; a buffer with fewer bytes
// than parts has slices of one byte, then empty ones.
void SondeBufferQueue::calcOffsetLength(SendJob& job)
{
    const std::int32_t byteSize = job.itBuffer->byteSize;
    if (job.noParts <= 0 || job.partNo >= job.noParts) {
        return;
    }
    job.partByteSize = std::max(byteSize / job.noParts, 1);
    if (static_cast<std::int64_t>(job.partByteSize) * job.partNo >= byteSize) {
        job.partByteSize = 0;
        job.partOffset = 0;
        return;
    }
    job.partOffset = job.partByteSize * job.partNo;
    if (job.partNo + 1 == job.noParts) {
        job.partByteSize = byteSize - job.partOffset;
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The server thread

void* SondeBufferQueue::serverThreadFunction(void* arg)
{
    nameLibraryThread("lodestone-srv");
    static_cast<SondeBufferQueue*>(arg)->serveConnections();
    return nullptr;
}

void SondeBufferQueue::serveConnections()
{
    try {
        TCPServerSocket serverSocket(m_config.port);
        unsigned int socketID = 0;
        while (m_serverThreadRunning) {
            if (serverSocket.waitForReadyRead(SERVER_POLL_MS) &&
                replaceConnection(serverSocket, socketID) == AcceptResult::FAILED) {
                // The connection still waits, so the next poll would return at once: rest, or this burns a
                // core.
                usleep(SERVER_POLL_MS * 1000);
            }
        }
    } catch (...) {
        // The queue is out of service: frames are ignored, and a client sees its connection end.
        m_serverThreadRunning = false;
        LODESTONE_TEST_POINT(server_gives_up);
        dropConnection();
    }
}

AcceptResult SondeBufferQueue::replaceConnection(TCPServerSocket& serverSocket, unsigned int& socketID)
{
    CycleGate::Replacement passage(m_gate);
    MutexLocker lock(m_socketMutex);
    auto connection = std::make_unique<TCPSocket>(socketID);
    AcceptResult result = serverSocket.accept(*connection);
    if (result == AcceptResult::VANISHED) {
        return result;
    }
    // Taking over from a live client leaves the transfer alone. But a client that had gone before this one
    // came, maybe the same one on its way back, was lost: this one gets a transfer of its own, from the once
    // data on.
    if (m_sondeSocket && m_sondeSocket->closedByPeer()) {
        LODESTONE_TEST_POINT(old_client_gone);
        m_restartMarked = true;
    }
    LODESTONE_TEST_POINT(old_client_judged);
    if (result == AcceptResult::FAILED && m_sondeSocket) {
        m_sondeSocket.reset(); // its descriptor may be the one that is missing; the gate keeps the sender off
        result = serverSocket.accept(*connection);
    }
    // Straight from the old id to the new one: a frame in between must not see "no client" and end the
    // transfer.
    m_sondeSocket = std::move(connection);
    LODESTONE_TEST_POINT(socket_swapped);
    m_connectedID = socketID;
    LODESTONE_TEST_POINT(id_swapped);
    ++socketID;
    return result;
}

void SondeBufferQueue::dropConnection()
{
    CycleGate::Replacement passage(m_gate);
    MutexLocker lock(m_socketMutex);
    m_connectedID = NO_CONNECTION;
    m_sondeSocket.reset();
}

} // namespace Lodestone
