#include "Lodestone.h"

#include "ALUtil.h"
#include "ConfigStringParser.h"
#include "LodestoneCommon.h"
#include "ProcessLife.h"
#include "SondeBufferQueue.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <pthread.h>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace Lodestone
{

namespace
{

const alif_int32_t SUCCESS = 0;
const alif_int32_t FAILURE = 1;

// The process-wide state. All of it belongs to the host's thread; the library's own threads never come here.
// Built in this order when the library is loaded, and destroyed in the reverse one.

std::string g_lastError;
ConfigStringParser g_ConfigParser;
std::unique_ptr<SondeBufferQueue> g_Queue; // null: streaming is off

// The constant-buffer store: it outlives queues, so that a buffer delivered once reaches every later client.
// The array shows the map's entries in ascending order of their channels, in the form that a queue takes; it
// borrows the payloads.
BufferMap g_constantBufferMap;
std::int32_t g_constantBufferLength = 0;
std::unique_ptr<AlgoMeasBuffer[]> g_constantBuffers;

/// Marks a call of the host, and keeps it from starting when the exit handlers have begun.
///
/// A host should not end while it is in a call, but some do: one thread returns from main while another one
/// delivers a frame. Then the exit handlers wait for the call under way, and calls that come later find that
/// nothing is there.
///
/// A request to cancel the host's thread waits for the end of the call, as every exception does.
class EntryGuard
{
public:
    EntryGuard()
    {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancelState);
        s_thread.store(pthread_self(), std::memory_order_relaxed);
        // Sequentially consistent, as the handlers' store and load: one of the two sees the other.
        s_underWay.store(mark());
        m_entered = !ProcessLife::exiting();
    }
    ~EntryGuard()
    {
        s_underWay.store(0);
        pthread_setcancelstate(m_cancelState, nullptr);
    }

    EntryGuard(const EntryGuard&) = delete;
    EntryGuard& operator=(const EntryGuard&) = delete;

    bool entered() const { return m_entered; }

    /// Some thread of this process is in a call.
    static bool underWay() { return s_underWay.load() == mark(); }
    /// The calling thread itself is in a call.
    static bool ownUnderWay()
    {
        return underWay() && pthread_equal(s_thread.load(std::memory_order_relaxed), pthread_self()) != 0;
    }
    /// A call was under way when this process was forked off; it stayed behind, with its thread.
    static bool leftBehind()
    {
        const std::uint64_t value = s_underWay.load();
        return value != 0 && value != mark();
    }

private:
    static std::uint64_t mark() { return std::uint64_t{1} + ProcessLife::forks(); }

    static std::atomic<pthread_t> s_thread;
    static std::atomic<std::uint64_t> s_underWay; // 0, or the mark of the process whose thread is in a call

    int m_cancelState = PTHREAD_CANCEL_ENABLE; // of the calling thread, before the call
    bool m_entered;
};

std::atomic<pthread_t> EntryGuard::s_thread{};
std::atomic<std::uint64_t> EntryGuard::s_underWay{0};

// Streaming is off afterwards.
void destroyQueue()
{
    if (g_Queue && !g_Queue->threadsAreHere()) {
        // A forked child has the memory as it was in the middle of whatever the threads did: leave it alone.
        static_cast<void>(g_Queue.release());
    }
    g_Queue.reset();
}

// Moving takes the roots over and walks nothing. Nobody destroys what they are moved to, and nothing is
// allocated: the call may have been inside the allocator.
template<typename T>
void abandon(T& object)
{
    alignas(T) static unsigned char place[sizeof(T)];
    static_cast<void>(new (place) T(std::move(object)));
}

// What a call was in the middle of changing: leaves it alone for good.
void abandonState()
{
    static_cast<void>(g_Queue.release());
    static_cast<void>(g_constantBuffers.release());
    abandon(g_constantBufferMap);
    abandon(g_ConfigParser);
    abandon(g_lastError);
}

/// Destroyed before everything else of the library, so this is how the exit handlers begin.
class ExitGuard
{
public:
    ExitGuard()
    {
        ProcessLife::watchForks();
        // Older C libraries take the loader's lock when a thread is the first to come to the exceptions of a
        // C++ library that was loaded later: now, for a thread that throws while dlclose joins it can't have
        // that lock.
        static_cast<void>(std::uncaught_exceptions());
    }
    ~ExitGuard()
    {
        ProcessLife::announceExit();
        if (EntryGuard::ownUnderWay() || EntryGuard::leftBehind()) {
            // The call's own thread ends the process, out of a signal handler for example, and can't wait for
            // itself; or its thread doesn't exist in this process. Either way the call never comes to its
            // end.
            abandonState();
            return;
        }
        while (EntryGuard::underWay()) {
            usleep(1000); // nobody to wake us: the call's end is one store, so that frames stay cheap
        }
        destroyQueue();
    }

    ExitGuard(const ExitGuard&) = delete;
    ExitGuard& operator=(const ExitGuard&) = delete;
};

ExitGuard g_exitGuard; // the last of the variables

void storeError(const char* text) noexcept
{
    try {
        g_lastError = text;
    } catch (...) {
        g_lastError.assign("Out of memory"); // fits into every string's own bytes
    }
}

// What every entry point does with a failure: nothing that is thrown leaves the library.
template<typename Operation>
alif_int32_t reportFailure(Operation operation) noexcept
{
    try {
        operation();
        return SUCCESS;
    } catch (const std::exception& e) {
        storeError(e.what());
    } catch (...) {
        storeError("Unknown error");
    }
    return FAILURE;
}

void init(alif_int32_t lodestoneEnabled, const char* configStr, std::size_t length)
{
    if (lodestoneEnabled == 0) {
        destroyQueue();
        return;
    }
    if (configStr == nullptr) {
        throw std::runtime_error("Command string was a NULL pointer.");
    }
    g_ConfigParser.parseString(std::string(configStr, length));
    // First the old queue: its server thread must have released the port before the new one binds it.
    destroyQueue();
    g_Queue = std::make_unique<SondeBufferQueue>(g_ConfigParser.getConfig());
}

// Everything that can fail happens on locals; the commit only hands memory over.
void updateConstantStore(const AlgoMeasBuffer* measBuffer, alif_uint32_t measBuffersArraySize)
{
    BufferMap updates;
    std::size_t newEntries = 0;
    for (alif_uint32_t idx = 0; idx < measBuffersArraySize; ++idx) {
        const int channelID = measBuffer[idx].channelID;
        const bool isNew = g_constantBufferMap.count(channelID) == 0 && updates.count(channelID) == 0;
        updates[channelID] = SondeBuffer(measBuffer[idx]);
        newEntries += isNew ? 1 : 0;
    }
    const std::size_t length = g_constantBufferMap.size() + newEntries;
    std::unique_ptr<AlgoMeasBuffer[]> array;
    if (length != 0) {
        array = std::make_unique<AlgoMeasBuffer[]>(length);
    }

    replaceBuffers(g_constantBufferMap, updates);
    g_constantBuffers = std::move(array);
    g_constantBufferLength = 0;
    for (const auto& entry : g_constantBufferMap) {
        AlgoMeasBuffer& flat = g_constantBuffers[static_cast<std::size_t>(g_constantBufferLength++)];
        flat.buffer = entry.second.payload;
        flat.sizeTotal = static_cast<alif_uint32_t>(entry.second.byteSize);
        flat.channelID = entry.second.channelID;
    }
}

void profile(PerPackageDiag& d, alif_float32_t runtime_ms)
{
    // A mark of the queue for the reader, not an address to use: on a wider machine its low half.
    d.queue_ptr = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(g_Queue.get()));
    d.profiling.numCalls += 1;
    d.profiling.cumRuntimeMsecs += static_cast<alif_float64_t>(runtime_ms);
    d.profiling.maxRuntimeMsecs = al_maxf(runtime_ms, d.profiling.maxRuntimeMsecs);
    d.profiling.runtimeMsecs = runtime_ms;
    d.profiling.avgRuntimeMsecs =
        static_cast<alif_float32_t>(d.profiling.cumRuntimeMsecs / d.profiling.numCalls);
}

std::int64_t nowNanoseconds()
{
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count();
}

alif_int32_t apply(AlgoMeasBuffer* measBuffer, alif_uint32_t measBuffersArraySize,
                   alif_int32_t constantBuffers)
{
    const std::int64_t tstart = nowNanoseconds();
    PerPackageDiag* diagConstant = nullptr;
    PerPackageDiag* diagNormal = nullptr;
    const alif_int32_t result = reportFailure([&] {
        if (measBuffer == nullptr && measBuffersArraySize != 0) {
            throw std::runtime_error("Measurement buffer array was a NULL pointer.");
        }
        if (constantBuffers != 0) {
            updateConstantStore(measBuffer, measBuffersArraySize);
        }
        if (g_Queue) {
            const auto length = static_cast<std::uint32_t>(g_constantBufferLength);
            diagConstant = g_Queue->addBuffers(g_constantBuffers.get(), length, true);
            diagNormal = g_Queue->addBuffers(measBuffer, measBuffersArraySize, false);
        }
    });
    const std::int64_t tend = nowNanoseconds();
    const alif_float32_t runtime_ms = static_cast<alif_float32_t>(tend - tstart) * 1e-6F;
    if (diagNormal != nullptr) {
        profile(*diagNormal, runtime_ms);
    }
    if (diagConstant != nullptr) {
        profile(*diagConstant, runtime_ms);
    }
    return result;
}

// After the start of the exit handlers there is no text; a reference must show something all the same.
const std::string& emptyText()
{
    alignas(std::string) static unsigned char memory[sizeof(std::string)];
    static const std::string* const text = new (memory) std::string; // never destroyed, holds no memory
    return *text;
}

} // namespace

alif_int32_t Lodestone_Init(alif_int32_t lodestoneEnabled, const std::string& configStr)
{
    const EntryGuard guard;
    return guard.entered()
               ? reportFailure([&] { init(lodestoneEnabled, configStr.data(), configStr.size()); })
               : FAILURE;
}

alif_int32_t Lodestone_Apply(AlgoMeasBuffer* measBuffer, alif_uint32_t measBuffersArraySize,
                             alif_int32_t constantBuffers)
{
    const EntryGuard guard;
    return guard.entered() ? apply(measBuffer, measBuffersArraySize, constantBuffers) : SUCCESS;
}

const std::string& GetLastErrorString()
{
    return ProcessLife::exiting() ? emptyText() : g_lastError;
}

extern "C" alif_int32_t Lodestone_QueryVersion(AlgoVersion* version)
{
    const EntryGuard guard;
    if (!guard.entered()) {
        return FAILURE;
    }
    return reportFailure([&] {
        if (version == nullptr) {
            throw std::runtime_error("Version struct was a NULL pointer.");
        }
        version->major = 0;
        version->minor = 2;
        version->patch = 4;
    });
}

} // namespace Lodestone

extern "C" {

alif_int32_t CLodestone_Lodestone_Init(alif_int32_t lodestoneEnabled, const alif_int8_t* configStr)
{
    const Lodestone::EntryGuard guard;
    if (!guard.entered()) {
        return Lodestone::FAILURE;
    }
    const char* const text = reinterpret_cast<const char*>(configStr);
    return Lodestone::reportFailure([&] {
        // A string that isn't looked at needn't be there, nor end.
        const bool wanted = lodestoneEnabled != 0 && text != nullptr;
        Lodestone::init(lodestoneEnabled, text, wanted ? std::strlen(text) : 0);
    });
}

alif_int32_t CLodestone_Lodestone_Apply(AlgoMeasBuffer* measBuffer, alif_uint32_t measBuffersArraySize,
                                        alif_int32_t constantBuffers)
{
    return Lodestone::Lodestone_Apply(measBuffer, measBuffersArraySize, constantBuffers);
}

alif_int32_t CLodestone_GetLastErrorString(alif_int8_t* buffer, alif_uint32_t bufferSize)
{
    if (buffer == nullptr || bufferSize == 0) {
        return Lodestone::FAILURE;
    }
    const std::string& text = Lodestone::GetLastErrorString();
    if (bufferSize - 1 < text.size()) {
        buffer[0] = 0;
        return Lodestone::FAILURE;
    }
    std::memcpy(buffer, text.data(), text.size());
    buffer[text.size()] = 0;
    return Lodestone::SUCCESS;
}

alif_int32_t CLodestone_Lodestone_QueryVersion(AlgoVersion* version)
{
    return Lodestone::Lodestone_QueryVersion(version);
}

} // extern "C"
