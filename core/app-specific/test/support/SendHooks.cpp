#include "SendHooks.h"

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const std::size_t CYCLE_HEADER_SIZE = 12;
const std::size_t NEVER = ~std::size_t{0};

struct State
{
    std::vector<SendHooks::SendCall> calls;
    std::size_t failIndex = NEVER;
    ssize_t failResult = 0;
    bool failed = false;
    bool holding = false;
    bool standing = false; // the sender is before a cycle
    bool passing = false;  // and may go on
    std::function<void()> hostWait;
    unsigned gateWaits = 0;
};

std::mutex g_mutex; // guards g_state, and sleeps of the sender on g_changed
std::condition_variable g_changed;
State g_state;

void standBeforeCycle(std::unique_lock<std::mutex>& lock)
{
    g_state.standing = true;
    g_changed.wait(lock, [] { return g_state.passing || !g_state.holding; });
    g_state.standing = false;
    g_state.passing = false;
}

} // namespace

extern "C" {

ssize_t __real_send(int sock, const void* data, size_t byteSize, int flags);
int __real_usleep(useconds_t wait_us);
int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* moment);

ssize_t __wrap_send(int sock, const void* data, size_t byteSize, int flags)
{
    std::unique_lock<std::mutex> lock(g_mutex);
    if (g_state.holding && byteSize == CYCLE_HEADER_SIZE) {
        standBeforeCycle(lock);
    }
    const std::size_t index = g_state.calls.size();
    g_state.calls.push_back({sock, byteSize, flags});
    if (index == g_state.failIndex) {
        g_state.failed = true;
        errno = EPIPE;
        return g_state.failResult;
    }
    lock.unlock(); // the kernel may block
    return __real_send(sock, data, byteSize, flags);
}

int __wrap_usleep(useconds_t wait_us)
{
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        action = g_state.hostWait;
    }
    if (action) {
        action();
    }
    return __real_usleep(wait_us);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* moment)
{
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        ++g_state.gateWaits;
    }
    return __real_pthread_cond_timedwait(condition, mutex, moment);
}

} // extern "C"

void SendHooks::clear()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    const bool standing = g_state.standing; // the sender's own; it goes on now
    g_state = State();
    g_state.standing = standing;
    g_changed.notify_all();
}

std::vector<SendHooks::SendCall> SendHooks::sendCalls()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_state.calls;
}

void SendHooks::failSend(std::size_t index, ssize_t result)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_state.failIndex = g_state.calls.size() + index;
    g_state.failResult = result;
    g_state.failed = false;
}

bool SendHooks::sendFailed()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_state.failed;
}

void SendHooks::holdCycles()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_state.holding = true;
}

bool SendHooks::cycleHeld()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_state.standing && !g_state.passing;
}

void SendHooks::passCycle()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_state.passing = true;
    g_changed.notify_all();
}

void SendHooks::releaseCycles()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_state.holding = false;
    g_changed.notify_all();
}

void SendHooks::onHostWait(std::function<void()> action)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_state.hostWait = std::move(action);
}

unsigned SendHooks::gateWaits()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_state.gateWaits;
}
