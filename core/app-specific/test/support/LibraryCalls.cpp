#include "LibraryCalls.h"

#include "AllocationHook.h"
#include "CycleGate.h"
#include "StreamClient.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <new>
#include <optional>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace LibraryCalls
{

std::atomic<SendFault> g_sendFault{SendFault::NONE};
std::atomic<int> g_acceptError{0};
std::atomic<int> g_acceptFaults{0};
std::atomic<int> g_createFault{0};
std::atomic<bool> g_serverAllocationFault{false};
std::atomic<void (*)()> g_atRest{nullptr};
std::atomic<int> g_threads{0};
std::atomic<bool> g_signalsOpen{false};
std::atomic<std::size_t> g_senderAllocations{0};
std::atomic<int> g_connection{-1};
std::atomic<int> g_looksLeft{MANY_LOOKS};

namespace
{

thread_local Thread t_thread = HOST;
std::atomic<int> g_counts[NO_CALLS][NO_THREADS];

std::atomic<bool> g_clockStands{false};
timespec g_stoppedAt = {};
std::atomic<int> g_looks{0}; // since then

// No mutex can guard these: it would come along here.
std::atomic_flag g_holdsLock = ATOMIC_FLAG_INIT;
Hold* g_holds[4] = {};

struct HoldsLock
{
    HoldsLock() { lock(); }
    ~HoldsLock() { unlock(); }

    static void lock()
    {
        while (g_holdsLock.test_and_set(std::memory_order_acquire)) {
            sched_yield();
        }
    }
    static void unlock() { g_holdsLock.clear(std::memory_order_release); }
};

// A forked child finds it open.
[[maybe_unused]] const int g_forkHandlers =
    pthread_atfork(&HoldsLock::lock, &HoldsLock::unlock, &HoldsLock::unlock);

/// One of `left` is used up, if there are any.
bool useUp(std::atomic<int>& left)
{
    int value = left;
    while (value > 0 && !left.compare_exchange_weak(value, value - 1)) {
    }
    return value > 0;
}

timespec later(timespec moment, int wait_ms)
{
    moment.tv_nsec += wait_ms % 1000 * 1000000L;
    moment.tv_sec += wait_ms / 1000 + moment.tv_nsec / 1000000000L;
    moment.tv_nsec %= 1000000000L;
    return moment;
}

struct Start
{
    void* (*function)(void*);
    void* argument;
    Thread thread;
};
Start g_starts[64];
std::atomic<unsigned> g_noStarts{0};

void checkSignals()
{
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    for (int signal = 1; signal < SIGRTMAX - 1; ++signal) { // emulators keep the last two for themselves
        const bool own = signal > 31 && signal < SIGRTMIN;  // the C library's own
        if (!own && signal != SIGKILL && signal != SIGSTOP && sigismember(&blocked, signal) == 0) {
            g_signalsOpen = true;
        }
    }
}

void* runThread(void* argument)
{
    const Start start = *static_cast<Start*>(argument);
    t_thread = start.thread;
    checkSignals();
    void* result = nullptr;
    {
        const AllocationScope scope;
        result = start.function(start.argument);
        if (start.thread == SENDER) {
            g_senderAllocations += scope.count();
        }
    }
    --g_threads;
    return result;
}

} // namespace

struct Gatekeeper
{
    static void pass(Call call, const void* object)
    {
        ++g_counts[call][t_thread];
        Hold* const hold = find(call, object);
        if (hold != nullptr) {
            waitFor([hold] { return hold->m_state == Hold::RELEASED; });
            hold->m_state = Hold::LEFT;
        }
    }

    static Hold* find(Call call, const void* object)
    {
        const HoldsLock lock;
        for (Hold* const hold : g_holds) {
            if (hold != nullptr && hold->m_call == call && hold->m_thread == t_thread &&
                hold->m_state == Hold::ARMED && (!hold->m_when || hold->m_when(object))) {
                hold->m_state = Hold::HELD;
                return hold;
            }
        }
        return nullptr;
    }
};

int count(Call call, Thread thread)
{
    return g_counts[call][thread];
}

Calls::Calls(Call call, Thread thread) : m_call(call), m_thread(thread), m_before(count(call, thread)) {}

bool Calls::await(int more) const
{
    return waitFor([&] { return sinceThen() >= more; });
}

int Calls::sinceThen() const
{
    return count(m_call, m_thread) - m_before;
}

void stopClock(bool stop)
{
    g_clockStands = false;
    clock_gettime(CLOCK_MONOTONIC, &g_stoppedAt);
    g_looks = 0;
    g_looksLeft = MANY_LOOKS;
    g_clockStands = stop;
}

Hold::Hold(Call call, Thread thread, std::function<bool(const void*)> when)
    : m_call(call), m_thread(thread), m_when(std::move(when))
{
    const HoldsLock lock;
    *std::find(std::begin(g_holds), std::end(g_holds), nullptr) = this;
}

Hold::~Hold()
{
    release();
    const HoldsLock lock;
    *std::find(std::begin(g_holds), std::end(g_holds), this) = nullptr;
}

bool Hold::awaitHeld() const
{
    return waitFor([this] { return held(); });
}

void Hold::release()
{
    {
        const HoldsLock lock;
        State state = ARMED;
        if (!m_state.compare_exchange_strong(state, LEFT) && state == HELD) {
            m_state.compare_exchange_strong(state, RELEASED);
        }
    }
    waitFor([this] { return m_state == LEFT; });
}

} // namespace LibraryCalls

// The names are the linker's.
// -----------------------------------------------------------------------------------------

using namespace LibraryCalls;

extern "C" {

ssize_t __real_send(int sock, const void* data, std::size_t size, int flags);
int __real_accept4(int sock, sockaddr* address, socklen_t* length, int flags);
int __real_usleep(useconds_t time_us);
int __real_clock_gettime(clockid_t clock, timespec* now);
int __real_pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* limit);
int __real_pthread_cond_signal(pthread_cond_t* condition);

ssize_t __wrap_send(int sock, const void* data, std::size_t size, int flags)
{
    Gatekeeper::pass(SEND, nullptr);
    switch (g_sendFault.exchange(SendFault::NONE)) {
    case SendFault::ERROR:
        errno = EPIPE;
        return -1;
    case SendFault::THROW:
        throw std::bad_alloc();
    case SendFault::NONE:
        break;
    }
    return __real_send(sock, data, size, flags);
}

int __wrap_accept4(int sock, sockaddr* address, socklen_t* length, int flags)
{
    Gatekeeper::pass(ACCEPT, nullptr);
    if (useUp(g_acceptFaults)) {
        errno = g_acceptError;
        return -1;
    }
    const int connection = __real_accept4(sock, address, length, flags);
    g_connection = connection;
    return connection;
}

int __wrap_usleep(useconds_t time_us)
{
    Gatekeeper::pass(REST, nullptr);
    void (*const atRest)() = g_atRest;
    if (t_thread == HOST && atRest != nullptr) {
        atRest();
    }
    return t_thread == SERVER ? sched_yield()
                              : __real_usleep(time_us); // the server's rest is counted, not waited for
}

int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    if (!g_clockStands) {
        return __real_clock_gettime(clock, now);
    }
    const int moved_ms = g_looks * Lodestone::CycleGate::LOOK_INTERVAL_MS;
    *now = later(g_stoppedAt, moved_ms);
    return 0;
}

int __wrap_pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument)
{
    static void* (*const senderFunction)(void*) = function; // the first thread of any queue
    Gatekeeper::pass(CREATE, nullptr);
    if (useUp(g_createFault) && g_createFault == 0) {
        return EAGAIN;
    }
    Start& start = g_starts[g_noStarts++ % 64];
    start = {function, argument, function == senderFunction ? SENDER : SERVER};
    ++g_threads;
    const int result = __real_pthread_create(handle, attributes, &runThread, &start);
    g_threads -= result == 0 ? 0 : 1;
    return result;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    Gatekeeper::pass(LOCK, mutex);
    const int result = __real_pthread_mutex_lock(mutex);
    static thread_local std::optional<AllocationScope> fault; // to the end of the thread that has it
    if (t_thread == SERVER && g_serverAllocationFault.exchange(false)) {
        fault.emplace(1);
    }
    return result;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    const int result = __real_pthread_mutex_unlock(mutex);
    Gatekeeper::pass(UNLOCK, mutex);
    return result;
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    Gatekeeper::pass(SLEEP, condition);
    return __real_pthread_cond_wait(condition, mutex);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* limit)
{
    Gatekeeper::pass(LOOK, condition);
    if (!g_clockStands) {
        return __real_pthread_cond_timedwait(condition, mutex, limit);
    }
    timespec soon;
    __real_clock_gettime(CLOCK_MONOTONIC, &soon);
    soon = later(soon, 1);
    const int result = __real_pthread_cond_timedwait(condition, mutex, &soon);
    if (useUp(g_looksLeft)) {
        ++g_looks;
    }
    return result;
}

int __wrap_pthread_cond_signal(pthread_cond_t* condition)
{
    Gatekeeper::pass(SIGNAL, condition);
    return __real_pthread_cond_signal(condition);
}

} // extern "C"
