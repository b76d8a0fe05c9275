#include "Schedule.h"
#include "StandIn.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <random>
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
    std::string_view who;
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
thread_local Slot* t_self = nullptr; // null for a thread that isn't one of a run
Slot* g_last = nullptr;              // whoever ran at the last step
Slot* g_stalled = nullptr;

struct Run
{
    Plan plan;
    std::mt19937 random;
    Outcome outcome;
    std::int64_t time = 0;
    int stepsOfStalled = 0;
    bool hostInside = false;
    bool stallExpected = false;
};
Run g_run;

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "%s at step %d, %lld ms\n", what, g_run.outcome.steps,
                 static_cast<long long>(g_run.time / NS_PER_MS));
    for (const Slot& slot : g_slots) {
        if (slot.state != FREE) {
            std::fprintf(stderr, "  %s at %s\n", slot.who.data(), slot.at);
        }
    }
    std::abort();
}

bool inLibrary(const Slot& slot)
{
    return slot.who == SENDER || slot.who == SERVER || (slot.who == HOST && g_run.hostInside);
}

void wake(Slot& slot, bool expired = false)
{
    if (&slot == g_stalled) {
        g_run.outcome.hostWaits = g_slots[0].at;
        g_stalled = nullptr;
    }
    slot.state = READY;
    slot.object = nullptr;
    slot.socket.fd = -1;
    slot.deadline = NEVER;
    slot.expired = expired;
}

int wakeWaitingFor(const void* object, bool onlyOne = false)
{
    for (Slot& slot : g_slots) {
        if (slot.state == WAITS && slot.object == object) {
            wake(slot);
            if (onlyOne) {
                break;
            }
        }
    }
    return 0;
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
    g_run.time = next == NEVER ? g_run.time : std::max(g_run.time, next);
    for (Slot* slot = std::end(g_slots); slot-- != g_slots;) {
        if (slot->deadline <= g_run.time) {
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
    if (g_run.time > MAX_TIME) {
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
            if (slot.state == READY && slot.heldUntil <= g_run.outcome.steps) {
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

int narrowed(int connection)
{
    if (g_run.stallExpected) {
        setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &NARROW, sizeof NARROW);
    }
    return connection;
}

int sleepUntil(std::int64_t deadline)
{
    block(nullptr, deadline);
    return 0;
}

/// Until `look` finds something. No socket: until the deadline.
template<typename Look>
int waitOnSocket(int sock, short events, std::int64_t deadline, Look look)
{
    for (;;) {
        const int result = look();
        if (result != 0 || g_run.time >= deadline) {
            return result;
        }
        t_self->socket = {sock, events, 0};
        block(nullptr, deadline);
    }
}

/// The calling thread is at `event`. False if it isn't one of a run.
bool step(const char* event)
{
    if (t_self == nullptr) {
        return false;
    }
    const int error = errno;
    t_self->at = event;
    if (++g_run.outcome.steps > MAX_STEPS) {
        fail("Endless loop");
    }
    if (dice(16) == 0) { // so many steps are for the others
        t_self->heldUntil = g_run.outcome.steps + 1 + static_cast<int>(dice(40));
    }
    if (inLibrary(*t_self)) {
        const std::hash<std::string_view> hash;
        g_run.outcome.hash = g_run.outcome.hash * 1099511628211U + hash(event) + hash(t_self->who);
        if (t_self->who == g_run.plan.stalled && ++g_run.stepsOfStalled == g_run.plan.stalledAt) {
            g_run.outcome.reached = true;
            g_run.outcome.where = event;
            g_stalled = t_self;
            sleepUntil(g_run.time + STALL_TIME);
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
    return g_run.time + (inLibrary(*t_self) ? wait_ns : wait_ns * TEST_PACE);
}

int lockMutex(pthread_mutex_t* mutex)
{
    while (pthread_mutex_trylock(mutex) == EBUSY) {
        block(mutex);
    }
    return 0;
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

void begin(const Plan& plan)
{
    static const int inChildren = pthread_atfork(nullptr, nullptr, &loseOthers);
    static_cast<void>(inChildren);
    g_run = Run();
    g_run.plan = plan;
    g_run.random.seed(plan.seed);
    t_self = g_last = &g_slots[0];
    t_self->state = READY;
    t_self->who = HOST;
    t_self->heldUntil = 0;
}

Outcome end()
{
    t_self->state = FREE;
    t_self = nullptr;
    if (std::any_of(std::begin(g_slots), std::end(g_slots), [](const Slot& s) { return s.state != FREE; })) {
        fail("Threads left");
    }
    return g_run.outcome;
}

void hostIsInLibrary(bool inside)
{
    g_run.hostInside = inside;
}

void expectStall()
{
    g_run.stallExpected = true;
}

void frameDone()
{
    if (stalling() && ++g_run.outcome.frames >= ENOUGH_FRAMES) {
        wake(*g_stalled);
    }
}

bool stalling()
{
    return g_stalled != nullptr;
}

unsigned dice(unsigned sides)
{
    return static_cast<unsigned>(g_run.random() % sides);
}

} // namespace Schedule

// ---------------------------------------------------------------------------------------------------------------------
// The linker's names

using namespace Schedule;

extern "C" void lodestoneTestPoint(const char* name) noexcept
{
    step(name);
}

// A stand-in that is a step of a run's threads and an action then. For others it is the function itself.
#define SCHEDULED(result, name, parameters, arguments, action)                                               \
    STAND_IN(result, name, parameters)                                                                       \
    {                                                                                                        \
        return step(#name) ? (action) : __real_##name arguments;                                             \
    }

STAND_IN(ssize_t, send, (int sock, const void* data, std::size_t size, int flags))
{
    std::size_t done = 0;
    const auto sendMore = [&](int moreFlags) {
        const auto* const rest = static_cast<const char*>(data) + done;
        const ssize_t taken = __real_send(sock, rest, size - done, flags | moreFlags);
        done += taken > 0 ? static_cast<std::size_t>(taken) : 0;
        return taken;
    };
    if (!step("send")) {
        return sendMore(0);
    }
    const int failed = waitOnSocket(sock, POLLOUT, NEVER, [&] {
        const bool fails = sendMore(MSG_DONTWAIT) < 0 && errno != EAGAIN;
        return fails ? -1 : done == size ? 1 : 0;
    });
    return failed < 0 && done == 0 ? -1 : static_cast<ssize_t>(done);
}

SCHEDULED(int, accept4, (int sock, sockaddr* address, socklen_t* length, int flags),
          (sock, address, length, flags), narrowed(__real_accept4(sock, address, length, flags)))
// Needs no thread of ours, there is room in the backlog.
SCHEDULED(int, connect, (int sock, const sockaddr* address, socklen_t length), (sock, address, length),
          __real_connect(sock, address, length))

STAND_IN(int, listen, (int sock, int backlog))
{
    return __real_listen(sock, backlog + 16); // a full one would make clients try again in a second of life
}

STAND_IN(int, poll, (pollfd * entries, nfds_t count, int timeout_ms))
{
    if (!step("poll")) {
        return __real_poll(entries, count, timeout_ms);
    }
    const pollfd first = count == 0 ? pollfd{-1, 0, 0} : *entries; // nobody asks for several
    return waitOnSocket(first.fd, first.events, timeout_ms < 0 ? NEVER : deadlineIn(timeout_ms * NS_PER_MS),
                        [&] { return __real_poll(entries, count, 0); });
}

STAND_IN(int, select, (int count, fd_set* readable, fd_set* writable, fd_set* except, timeval* timeout))
{
    if (!step("select")) {
        return __real_select(count, readable, writable, except, timeout);
    }
    const fd_set wanted = *readable;
    const std::int64_t wait = timeout->tv_sec * NS_PER_S + timeout->tv_usec * std::int64_t{1000};
    return waitOnSocket(count - 1, POLLIN, g_run.time + wait, [&] {
        *readable = wanted;
        timeval none = {};
        return __real_select(count, readable, writable, except, &none);
    });
}

SCHEDULED(int, usleep, (useconds_t time_us), (time_us), sleepUntil(g_run.time + time_us * std::int64_t{1000}))

STAND_IN(int, nanosleep, (const timespec* time, timespec* left))
{
    if (step("nanosleep")) {
        sleepUntil(deadlineIn(nanoseconds(*time)));
    }
    return __real_nanosleep(time, left); // a test's own wait, which may be for another process
}

STAND_IN(int, clock_gettime, (clockid_t clock, timespec* now))
{
    if (t_self == nullptr || clock != CLOCK_MONOTONIC) {
        return __real_clock_gettime(clock, now);
    }
    *now = timespecOf(EPOCH + g_run.time);
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
    slot->who = inLibrary(*t_self) ? SERVER : CLIENT; // or the sender
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
    if (t_self != nullptr && name == std::string_view("lodestone-send")) {
        t_self->who = SENDER; // the first thing that it does
    }
    return __real_pthread_setname_np(handle, name);
}

STAND_IN(int, pthread_join, (pthread_t handle, void** result))
{
    const bool known = step("pthread_join");
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

STAND_IN(int, pthread_mutex_unlock, (pthread_mutex_t * mutex))
{
    if (t_self == nullptr) {
        return __real_pthread_mutex_unlock(mutex);
    }
    unlockMutex(mutex);
    step("pthread_mutex_unlock");
    return 0;
}

SCHEDULED(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), lockMutex(mutex))
SCHEDULED(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex), (condition, mutex),
          sleepOn(condition, mutex, NEVER))
SCHEDULED(int, pthread_cond_timedwait,
          (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* limit),
          (condition, mutex, limit), sleepOn(condition, mutex, nanoseconds(*limit) - EPOCH))
SCHEDULED(int, pthread_cond_signal, (pthread_cond_t * condition), (condition),
          wakeWaitingFor(condition, true))
SCHEDULED(int, pthread_cond_broadcast, (pthread_cond_t * condition), (condition), wakeWaitingFor(condition))
