#include "Schedule.h"
#include "StandIn.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <random>
#include <string_view>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" int __real_poll(pollfd* entries, nfds_t count, int timeout_ms);
extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

namespace Schedule
{

namespace
{

const std::int64_t NEVER = INT64_MAX;
const std::int64_t EPOCH = 1000 * NS_PER_S;      // nothing is before it
const std::int64_t MAX_TIME = 120 * NS_PER_S;    // on the run's own clock
const std::int64_t STALL_TIME = 200 * NS_PER_MS; // well below the library's own limits
const int MAX_STEPS = 400000;
const int KERNEL_TIME_MS = 10000; // in life
const int TEST_PACE = 16;
const int NARROW = 4096;

enum State
{
    FREE,
    READY,
    WAITS,
    ENDED
};

/// A thread. All of this belongs to whoever runs; the hand-over orders it.
struct Slot
{
    pthread_t handle = {};
    void* (*function)(void*) = nullptr;
    void* argument = nullptr;
    Who who = NOBODY;
    State state = FREE;
    const char* at = "";
    const void* object = nullptr;  // that it waits for: a mutex, a condition, a thread ...
    pollfd socket = {-1, 0, 0};    // ... a socket ...
    std::int64_t deadline = NEVER; // ... a moment
    bool expired = false;
    int heldUntil = 0;        // a step
    std::atomic<int> turn{0}; // a futex
};

Slot g_slots[8];
thread_local Slot* t_self = nullptr;
Slot* g_last = nullptr; // whoever ran at the last step
Slot* g_stalled = nullptr;
bool g_on = false;
bool g_hostInside = false;
bool g_stallExpected = false;

Plan g_plan;
Outcome g_outcome;
std::mt19937 g_random;
std::int64_t g_time = 0;
int g_stepsOfStalled = 0;

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "%s at step %d, %lld ms\n", what, g_outcome.steps,
                 static_cast<long long>(g_time / NS_PER_MS));
    for (const Slot& slot : g_slots) {
        if (slot.state != FREE) {
            std::fprintf(stderr, "  %s at %s\n", nameOf(slot.who), slot.at);
        }
    }
    std::abort();
}

bool inLibrary(const Slot& slot)
{
    return slot.who == SENDER || slot.who == SERVER || (slot.who == HOST && g_hostInside);
}

void wake(Slot& slot, bool expired = false)
{
    if (&slot == g_stalled) {
        g_outcome.hostWaits = g_slots[0].at;
        g_stalled = nullptr;
    }
    slot.state = READY;
    slot.object = nullptr;
    slot.socket.fd = -1;
    slot.deadline = NEVER;
    slot.expired = expired;
}

void wakeWaitingFor(const void* object, bool onlyOne = false)
{
    for (Slot& slot : g_slots) {
        if (slot.state == WAITS && slot.object == object) {
            wake(slot);
            if (onlyOne) {
                return;
            }
        }
    }
}

/// Wakes those whose sockets have what they wait for.
bool lookAtSockets(int timeout_ms)
{
    pollfd entries[std::size(g_slots)];
    std::transform(std::begin(g_slots), std::end(g_slots), entries,
                   [](const Slot& slot) { return slot.socket; });
    const bool found = __real_poll(entries, std::size(g_slots), timeout_ms) > 0;
    for (std::size_t k = 0; found && k < std::size(g_slots); ++k) {
        if (entries[k].revents != 0) {
            wake(g_slots[k]);
        }
    }
    return found;
}

/// Time passes: up to the next moment that somebody waits for. The host is the last to be woken, so that the
/// end of a stall still finds it waiting.
bool moveClock()
{
    std::int64_t next = NEVER;
    for (const Slot& slot : g_slots) {
        next = std::min(next, slot.deadline);
    }
    g_time = next == NEVER ? g_time : std::max(g_time, next);
    for (Slot* slot = std::end(g_slots); slot-- != g_slots;) {
        if (slot->deadline <= g_time) {
            wake(*slot, true);
        }
    }
    return next != NEVER;
}

/// Nobody can run: ends the delays, lets time pass or the kernel catch up.
void unblock()
{
    bool held = false;
    for (Slot& slot : g_slots) {
        held = held || slot.state == READY;
        slot.heldUntil = 0;
    }
    if (!held && !moveClock() && !lookAtSockets(KERNEL_TIME_MS)) {
        fail("Deadlock");
    }
    if (g_time > MAX_TIME) {
        fail("Hang");
    }
}

Slot& choose()
{
    for (;; unblock()) {
        lookAtSockets(0);
        Slot* ready[std::size(g_slots)];
        unsigned count = 0;
        for (Slot& slot : g_slots) {
            if (slot.state == READY && slot.heldUntil <= g_outcome.steps) {
                ready[count++] = &slot;
            }
        }
        if (count != 0) {
            const bool same = std::count(ready, ready + count, g_last) != 0 && dice(8) != 0;
            g_last = same ? g_last : ready[dice(count)];
            return *g_last;
        }
    }
}

void awaitTurn(Slot& self)
{
    while (self.turn.load(std::memory_order_acquire) == 0) {
        syscall(SYS_futex, &self.turn, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    }
    self.turn.store(0, std::memory_order_relaxed);
}

void giveTurn(Slot& next)
{
    next.turn.store(1, std::memory_order_release);
    syscall(SYS_futex, &next.turn, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void goOn()
{
    Slot& next = choose();
    if (&next != t_self) {
        giveTurn(next);
        awaitTurn(*t_self);
    }
}

/// False at the deadline.
bool block(const void* object, std::int64_t deadline = NEVER)
{
    t_self->state = WAITS;
    t_self->object = object;
    t_self->deadline = deadline;
    goOn();
    return !t_self->expired;
}

void blockOnSocket(int sock, short events, std::int64_t deadline = NEVER)
{
    t_self->socket = {sock, events, 0};
    block(nullptr, deadline);
}

bool inRun()
{
    return g_on && t_self != nullptr;
}

/// The calling thread is at `event`. False if it isn't one of a run.
bool step(const char* event)
{
    if (!inRun()) {
        return false;
    }
    const int error = errno;
    t_self->at = event;
    if (++g_outcome.steps > MAX_STEPS) {
        fail("Endless loop");
    }
    if (dice(16) == 0) { // so many steps are for the others
        t_self->heldUntil = g_outcome.steps + 1 + static_cast<int>(dice(40));
    }
    if (inLibrary(*t_self)) {
        const std::size_t hash = std::hash<std::string_view>()(event) + t_self->who;
        g_outcome.hash = g_outcome.hash * 1099511628211U + hash;
        if (t_self->who == g_plan.stalled && ++g_stepsOfStalled == g_plan.stalledAt) {
            g_outcome.reached = true;
            g_outcome.where = event;
            g_stalled = t_self;
            block(nullptr, g_time + STALL_TIME);
        }
    }
    goOn();
    errno = error;
    return true;
}

/// A limit of the library's is far away for a test that polls in steps of milliseconds: its own waits last
/// longer than it thinks.
std::int64_t deadlineIn(std::int64_t wait_ns)
{
    return g_time + (inLibrary(*t_self) ? wait_ns : wait_ns * TEST_PACE);
}

void lockMutex(pthread_mutex_t* mutex)
{
    while (pthread_mutex_trylock(mutex) == EBUSY) {
        block(mutex);
    }
}

void unlockMutex(pthread_mutex_t* mutex)
{
    __real_pthread_mutex_unlock(mutex);
    wakeWaitingFor(mutex);
}

int sleepOn(pthread_cond_t* condition, pthread_mutex_t* mutex, std::int64_t deadline)
{
    unlockMutex(mutex);
    const bool signalled = block(condition, deadline);
    lockMutex(mutex);
    return signalled ? 0 : ETIMEDOUT;
}

void* runThread(void* argument)
{
    Slot& self = *static_cast<Slot*>(argument);
    t_self = &self;
    awaitTurn(self);
    void* const result = self.function(self.argument);
    t_self = nullptr;
    self.state = ENDED;
    wakeWaitingFor(&self);
    giveTurn(choose());
    return result;
}

/// A forked child goes on alone, in the same run.
void loseOthers()
{
    for (Slot& slot : g_slots) {
        slot.state = &slot == t_self ? READY : FREE;
        slot.deadline = NEVER;
        slot.socket.fd = -1;
    }
}

} // namespace

const char* nameOf(Who who)
{
    static const char* const names[] = {"host", "sender", "server", "client", "nobody"};
    return names[who];
}

void begin(const Plan& plan)
{
    static const int inChildren = pthread_atfork(nullptr, nullptr, &loseOthers);
    static_cast<void>(inChildren);
    g_plan = plan;
    g_outcome = Outcome();
    g_random.seed(plan.seed);
    g_stallExpected = false;
    g_time = 0;
    g_stepsOfStalled = 0;
    t_self = g_last = &g_slots[0];
    t_self->state = READY;
    t_self->who = HOST;
    t_self->heldUntil = 0;
    g_on = true;
}

Outcome end()
{
    g_on = false;
    t_self->state = FREE;
    t_self = nullptr;
    if (std::any_of(std::begin(g_slots), std::end(g_slots), [](const Slot& s) { return s.state != FREE; })) {
        fail("Threads left");
    }
    return g_outcome;
}

void hostIsInLibrary(bool inside)
{
    g_hostInside = inside;
}

void expectStall()
{
    g_stallExpected = true;
}

void frameDone()
{
    if (stalling() && ++g_outcome.frames >= ENOUGH_FRAMES) {
        wake(*g_stalled);
    }
}

bool stalling()
{
    return g_stalled != nullptr;
}

unsigned dice(unsigned sides)
{
    return static_cast<unsigned>(g_random() % sides);
}

} // namespace Schedule

// ---------------------------------------------------------------------------------------------------------------------
// The linker's names

using namespace Schedule;

extern "C" void lodestoneTestPoint(const char* name) noexcept
{
    step(name);
}

STAND_IN(ssize_t, send, (int sock, const void* data, std::size_t size, int flags))
{
    if (!step("send")) {
        return __real_send(sock, data, size, flags);
    }
    for (std::size_t done = 0;;) {
        const char* const rest = static_cast<const char*>(data) + done;
        const ssize_t taken = __real_send(sock, rest, size - done, flags | MSG_DONTWAIT);
        done += taken > 0 ? static_cast<std::size_t>(taken) : 0;
        if (done == size || (taken < 0 && errno != EAGAIN)) {
            return done != 0 ? static_cast<ssize_t>(done) : taken;
        }
        blockOnSocket(sock, POLLOUT);
    }
}

STAND_IN(int, accept4, (int sock, sockaddr* address, socklen_t* length, int flags))
{
    step("accept");
    const int connection = __real_accept4(sock, address, length, flags);
    if (g_stallExpected) {
        setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &NARROW, sizeof NARROW);
    }
    return connection;
}

STAND_IN(int, listen, (int sock, int backlog))
{
    return __real_listen(sock, backlog + 16); // a full one would make clients try again in a second of life
}

STAND_IN(int, connect, (int sock, const sockaddr* address, socklen_t length))
{
    step("connect");
    return __real_connect(sock, address, length); // needs no thread of ours, there is room in the backlog
}

STAND_IN(int, poll, (pollfd * entries, nfds_t count, int timeout_ms))
{
    if (!step("poll")) {
        return __real_poll(entries, count, timeout_ms);
    }
    const std::int64_t deadline = timeout_ms < 0 ? NEVER : deadlineIn(timeout_ms * NS_PER_MS);
    for (;;) {
        const int result = __real_poll(entries, count, 0);
        if (result != 0 || g_time >= deadline) {
            return result;
        }
        count == 0 ? void(block(nullptr, deadline)) : blockOnSocket(entries->fd, entries->events, deadline);
    }
}

STAND_IN(int, select, (int count, fd_set* readable, fd_set* writable, fd_set* except, timeval* timeout))
{
    if (!step("select")) {
        return __real_select(count, readable, writable, except, timeout);
    }
    const fd_set wanted = *readable;
    const std::int64_t deadline = g_time + timeout->tv_sec * NS_PER_S + timeout->tv_usec * std::int64_t{1000};
    for (;;) {
        timeval none = {};
        const int result = __real_select(count, readable, writable, except, &none);
        if (result != 0 || g_time >= deadline) {
            return result;
        }
        *readable = wanted;
        blockOnSocket(count - 1, POLLIN, deadline); // the library asks for one at a time
    }
}

STAND_IN(int, usleep, (useconds_t time_us))
{
    return step("usleep") ? (block(nullptr, g_time + time_us * std::int64_t{1000}), 0)
                          : __real_usleep(time_us);
}

STAND_IN(int, nanosleep, (const timespec* time, timespec* left))
{
    if (step("nanosleep")) {
        block(nullptr, deadlineIn(nanoseconds(*time)));
    }
    return __real_nanosleep(time, left); // a test's own wait, which may be for another process
}

STAND_IN(int, clock_gettime, (clockid_t clock, timespec* now))
{
    if (!inRun() || clock != CLOCK_MONOTONIC) {
        return __real_clock_gettime(clock, now);
    }
    *now = timespecOf(EPOCH + g_time);
    return 0;
}

STAND_IN(int, pthread_create,
         (pthread_t * handle, const pthread_attr_t* attributes, void* (*function)(void*), void* argument))
{
    if (!step("create")) {
        return __real_pthread_create(handle, attributes, function, argument);
    }
    Slot* const slot = std::find_if(std::begin(g_slots), std::end(g_slots),
                                    [](const Slot& other) { return other.state == FREE; });
    if (slot == std::end(g_slots)) {
        fail("Too many threads");
    }
    slot->who = inLibrary(*t_self) ? NOBODY : CLIENT;
    slot->function = function;
    slot->argument = argument;
    slot->heldUntil = 0;
    slot->at = "start";
    const int result = __real_pthread_create(&slot->handle, attributes, &runThread, slot);
    slot->state = result == 0 ? READY : FREE;
    *handle = slot->handle;
    return result;
}

STAND_IN(int, pthread_setname_np, (pthread_t handle, const char* name))
{
    if (t_self != nullptr) { // the first thing that a thread of the library does
        t_self->who = std::strcmp(name, "lodestone-send") == 0 ? SENDER : SERVER;
    }
    return __real_pthread_setname_np(handle, name);
}

STAND_IN(int, pthread_join, (pthread_t handle, void** result))
{
    const bool known = step("join");
    for (Slot& slot : g_slots) {
        if (known && slot.who != HOST && slot.state != FREE && pthread_equal(slot.handle, handle) != 0) {
            while (slot.state != ENDED) {
                block(&slot);
            }
            slot.state = FREE;
        }
    }
    return __real_pthread_join(handle, result);
}

STAND_IN(int, pthread_mutex_lock, (pthread_mutex_t * mutex))
{
    return step("lock") ? (lockMutex(mutex), 0) : __real_pthread_mutex_lock(mutex);
}

STAND_IN(int, pthread_mutex_unlock, (pthread_mutex_t * mutex))
{
    if (!inRun()) {
        return __real_pthread_mutex_unlock(mutex);
    }
    unlockMutex(mutex);
    step("unlock");
    return 0;
}

STAND_IN(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex))
{
    return step("wait") ? sleepOn(condition, mutex, NEVER) : __real_pthread_cond_wait(condition, mutex);
}

STAND_IN(int, pthread_cond_timedwait,
         (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* limit))
{
    return step("look") ? sleepOn(condition, mutex, nanoseconds(*limit) - EPOCH)
                        : __real_pthread_cond_timedwait(condition, mutex, limit);
}

STAND_IN(int, pthread_cond_signal, (pthread_cond_t * condition))
{
    return step("signal") ? (wakeWaitingFor(condition, true), 0) : __real_pthread_cond_signal(condition);
}

STAND_IN(int, pthread_cond_broadcast, (pthread_cond_t * condition))
{
    return step("broadcast") ? (wakeWaitingFor(condition), 0) : __real_pthread_cond_broadcast(condition);
}
