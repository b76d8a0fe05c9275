#include "LibraryCalls.h"

#include "CycleGate.h"
#include "StreamClient.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <limits>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace LibraryCalls
{

std::atomic<bool> g_sendThrows{false};
std::atomic<int> g_acceptError{0};
std::atomic<int> g_acceptFaults{0};
std::atomic<bool> g_acceptThrows{false};
std::function<void()> g_atRest;
std::atomic<int> g_threads{0};
std::atomic<int> g_earlyWakes{0};
std::atomic<bool> g_signalsOpen{false};
std::atomic<int> g_connection{-1};
std::atomic<int> g_looksLeft{0};

namespace
{

thread_local Thread t_thread = HOST;
std::atomic<int> g_counts[NO_CALLS][NO_THREADS];

std::atomic<bool> g_clockStands{false};
timespec g_stoppedAt = {};
std::atomic<int> g_looks{0}; // since then

/// A pthread mutex would come along here itself.
class SpinLock
{
public:
    void lock()
    {
        while (m_taken.test_and_set(std::memory_order_acquire)) {
            sched_yield();
        }
    }
    void unlock() { m_taken.clear(std::memory_order_release); }

private:
    std::atomic_flag m_taken = ATOMIC_FLAG_INIT;
};
SpinLock g_holdsLock;
Hold* g_holds[4] = {};
[[maybe_unused]] const int g_openInChildren =
    pthread_atfork([] { g_holdsLock.lock(); }, [] { g_holdsLock.unlock(); }, [] { g_holdsLock.unlock(); });

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

bool signalsOpen()
{
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    bool open = false;
    for (int signal = 1; signal < SIGRTMAX - 1; ++signal) {     // an emulator keeps the last two for itself,
        const bool reserved = signal > 31 && signal < SIGRTMIN; // the C library these
        open = open ||
               (!reserved && signal != SIGKILL && signal != SIGSTOP && sigismember(&blocked, signal) == 0);
    }
    return open;
}

struct Start
{
    void* (*function)(void*);
    void* argument;
    Thread thread;
};
Start g_starts[64]; // taken in turn
std::atomic<unsigned> g_noStarts{0};

void* runThread(void* argument)
{
    const Start start = *static_cast<Start*>(argument);
    t_thread = start.thread;
    g_signalsOpen = g_signalsOpen || signalsOpen();
    void* const result = start.function(start.argument);
    --g_threads;
    return result;
}

} // namespace

int count(Call call, Thread thread)
{
    return g_counts[call][thread];
}

bool Calls::await(int number) const
{
    return waitFor([&] { return sinceThen() >= number; });
}

Hold::Hold(Call call, Thread thread, std::function<bool(const void*)> when)
    : m_call(call), m_thread(thread), m_when(std::move(when))
{
    const std::lock_guard<SpinLock> lock(g_holdsLock);
    *std::find(std::begin(g_holds), std::end(g_holds), nullptr) = this;
}

Hold::~Hold()
{
    release();
    const std::lock_guard<SpinLock> lock(g_holdsLock);
    *std::find(std::begin(g_holds), std::end(g_holds), this) = nullptr;
}

bool Hold::awaitHeld() const
{
    return waitFor([this] { return held(); });
}

void Hold::release()
{
    {
        const std::lock_guard<SpinLock> lock(g_holdsLock);
        State state = ARMED;
        if (!m_state.compare_exchange_strong(state, LEFT) && state == HELD) {
            m_state.compare_exchange_strong(state, RELEASED);
        }
    }
    waitFor([this] { return m_state == LEFT; });
}

void Hold::pass(Call call, const void* object)
{
    ++g_counts[call][t_thread];
    Hold* const hold = find(call, object);
    if (hold != nullptr) {
        waitFor([hold] { return hold->m_state == RELEASED; });
        hold->m_state = LEFT;
    }
}

Hold* Hold::find(Call call, const void* object)
{
    const std::lock_guard<SpinLock> lock(g_holdsLock);
    for (Hold* const hold : g_holds) {
        if (hold != nullptr && hold->m_call == call && hold->m_thread == t_thread && hold->m_state == ARMED &&
            (!hold->m_when || hold->m_when(object))) {
            hold->m_state = HELD;
            return hold;
        }
    }
    return nullptr;
}

void stopClock(bool stop)
{
    g_clockStands = false;
    clock_gettime(CLOCK_MONOTONIC, &g_stoppedAt);
    g_looks = 0;
    g_looksLeft = std::numeric_limits<int>::max();
    g_clockStands = stop;
}

bool beginsCycle(const void* byteSize)
{
    return *static_cast<const std::size_t*>(byteSize) == 12;
}

} // namespace LibraryCalls

// ---------------------------------------------------------------------------------------------------------------------
// The linker's names

using namespace LibraryCalls;

extern "C" {

ssize_t __real_send(int sock, const void* data, std::size_t size, int flags);
int __real_accept4(int sock, sockaddr* address, socklen_t* length, int flags);
int __real_usleep(useconds_t time_us);
int __real_clock_gettime(clockid_t clock, timespec* now);
int __real_pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* limit);
int __real_pthread_cond_signal(pthread_cond_t* condition);

ssize_t __wrap_send(int sock, const void* data, std::size_t size, int flags)
{
    Hold::pass(SEND, &size);
    if (g_sendThrows.exchange(false)) {
        throw std::bad_alloc();
    }
    return __real_send(sock, data, size, flags);
}

int __wrap_accept4(int sock, sockaddr* address, socklen_t* length, int flags)
{
    Hold::pass(ACCEPT, nullptr);
    if (g_acceptThrows.exchange(false)) {
        throw std::bad_alloc();
    }
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
    Hold::pass(REST, nullptr);
    if (t_thread == HOST && g_atRest) {
        g_atRest();
    }
    return t_thread == SERVER ? sched_yield()
                              : __real_usleep(time_us); // the server's rest is counted, not waited for
}

int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    if (!g_clockStands) {
        return __real_clock_gettime(clock, now);
    }
    *now = later(g_stoppedAt, g_looks * Lodestone::CycleGate::LOOK_INTERVAL_MS);
    return 0;
}

namespace
{

bool isAhead(const timespec& moment)
{
    timespec now;
    __real_clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec != moment.tv_sec ? now.tv_sec < moment.tv_sec : now.tv_nsec < moment.tv_nsec;
}

} // namespace

int __wrap_pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument)
{
    static void* (*const senderFunction)(void*) = function; // the first thread of any queue
    Hold::pass(CREATE, nullptr);
    Start& start = g_starts[g_noStarts++ % 64];
    start = {function, argument, function == senderFunction ? SENDER : SERVER};
    ++g_threads;
    const int result = __real_pthread_create(handle, attributes, &runThread, &start);
    g_threads -= result == 0 ? 0 : 1;
    return result;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    const int result = __real_pthread_mutex_unlock(mutex);
    Hold::pass(UNLOCK, mutex);
    return result;
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    Hold::pass(SLEEP, condition);
    return __real_pthread_cond_wait(condition, mutex);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* limit)
{
    Hold::pass(LOOK, condition);
    const bool stands = g_clockStands;
    timespec soon;
    __real_clock_gettime(CLOCK_MONOTONIC, &soon);
    soon = later(soon, 1);
    const int result = __real_pthread_cond_timedwait(condition, mutex, stands ? &soon : limit);
    g_earlyWakes += result == ETIMEDOUT && isAhead(stands ? soon : *limit) ? 1 : 0;
    g_looks += stands && useUp(g_looksLeft) ? 1 : 0;
    return result;
}

int __wrap_pthread_cond_signal(pthread_cond_t* condition)
{
    Hold::pass(SIGNAL, condition);
    return __real_pthread_cond_signal(condition);
}

} // extern "C"
