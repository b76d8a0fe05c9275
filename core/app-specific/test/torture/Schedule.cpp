#include "Schedule.h"
#include "FaultCalls.h"
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
#include <new>
#include <poll.h>
#include <pthread.h>
#include <random>
#include <sched.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" int __real_nanosleep(const timespec* time, timespec* left);
extern "C" int __real_poll(pollfd* entries, nfds_t count, int timeout_ms);
extern "C" int __real_select(int count, fd_set* readable, fd_set* writable, fd_set* except, timeval* timeout);
extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

using FaultCalls::fails;

namespace Schedule
{

namespace
{

const std::int64_t NEVER = INT64_MAX;
const std::int64_t EPOCH = 1000 * NS_PER_S;      // nothing is before it
const std::int64_t STALL_TIME = 200 * NS_PER_MS; // well below the library's own limits
const int MAX_STEPS = 400000;
const int KERNEL_TIME_MS = 10000; // in life
const int KERNEL_PACE = 20;       // and a client's waits so many times faster
const int LOOKED_EACH = 4;        // steps, for a look takes longer than one
const int TEST_PACE = 16;         // a test's own waits last longer than it thinks, so that limits are near

/// A thread. All of this belongs to whoever runs; the hand-over orders it.
struct Slot
{
    std::string_view who; // nobody: the slot is free
    pthread_t handle = {};
    pid_t id = 0;            // the kernel's
    Slot* creator = nullptr; // stays in pthread_create until the thread waits for its turn
    void* (*function)(void*) = nullptr;
    void* argument = nullptr;
    const char* at = "";
    const void* waitsFor = nullptr; // a mutex, a condition, a thread, or the slot itself for ...
    pollfd socket = {-1, 0, 0};     // ... a socket ...
    std::int64_t deadline = NEVER;  // ... or a moment
    unsigned priority = 0;
    std::atomic<int> turn{0}; // a futex
};

Slot g_slots[8];
const char THE_END = 0;              // what an ended thread waits for
thread_local Slot* t_self = nullptr; // null for a thread that isn't one of a run
Slot* g_stalled = nullptr;

struct Run
{
    Plan plan;
    std::mt19937 random;
    Outcome outcome;
    std::int64_t time = 0;
    int stepsOfStalled = 0;
    bool hostInside = false;
};
Run g_run;

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "%s at step %d, %lld ms\n", what, g_run.outcome.steps,
                 static_cast<long long>(g_run.time / NS_PER_MS));
    for (const Slot& slot : g_slots) {
        std::fprintf(stderr, "  %s at %s\n", slot.who.data(), slot.at);
    }
    std::abort();
}

void release(const void* object, bool onlyOne = false)
{
    for (Slot& slot : g_slots) {
        if (slot.waitsFor == object) {
            slot.waitsFor = nullptr;
            if (onlyOne) {
                break;
            }
        }
    }
}

/// Releases those whose sockets have what they wait for.
bool lookAtSockets(int timeout_ms)
{
    pollfd entries[std::size(g_slots)];
    std::transform(std::begin(g_slots), std::end(g_slots), entries,
                   [](const Slot& slot) { return slot.socket; });
    const bool found = __real_poll(entries, std::size(g_slots), timeout_ms) > 0;
    for (std::size_t k = 0; found && k < std::size(g_slots); ++k) {
        if (entries[k].revents != 0) {
            g_slots[k].waitsFor = nullptr;
        }
    }
    return found;
}

bool isThere(std::string_view who)
{
    return std::any_of(std::begin(g_slots), std::end(g_slots),
                       [who](const Slot& slot) { return slot.who == who; });
}

void endStall()
{
    g_run.outcome.hostWaits = g_slots[0].at;
    g_stalled->waitsFor = nullptr;
    g_stalled = nullptr;
}

/// Nobody can run: the next moment comes that somebody waits for, or else the kernel catches up. It may keep
/// bytes back for a while of life, as behind a small window, so a client's long waits take some of that too.
void passTime()
{
    std::int64_t next = NEVER;
    bool clientWaits = false;
    for (const Slot& slot : g_slots) {
        next = std::min(next, slot.deadline);
        clientWaits = clientWaits || (slot.socket.fd >= 0 && slot.who != SENDER && slot.who != SERVER);
    }
    const std::int64_t wait = next == NEVER || !clientWaits ? 0 : (next - g_run.time) / NS_PER_MS;
    if (lookAtSockets(static_cast<int>(wait / KERNEL_PACE))) {
        return;
    }
    if (next != NEVER) {
        g_run.time = next;
        if (g_stalled != nullptr && g_stalled->deadline == next) {
            endStall();
        }
    } else if (!lookAtSockets(KERNEL_TIME_MS)) {
        fail("Deadlock");
    }
}

Slot& choose()
{
    if (g_run.outcome.steps % LOOKED_EACH == 0) {
        lookAtSockets(0);
    }
    for (;; passTime()) {
        Slot* best = nullptr;
        for (Slot& slot : g_slots) {
            const bool ready = !slot.who.empty() && (slot.waitsFor == nullptr || slot.deadline <= g_run.time);
            if (ready && (best == nullptr || slot.priority > best->priority)) {
                best = &slot;
            }
        }
        if (best != nullptr) {
            return *best;
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

/// Until somebody releases `object`. False at the deadline.
bool block(const void* object, std::int64_t deadline = NEVER)
{
    t_self->waitsFor = object;
    t_self->deadline = deadline;
    goOn();
    const bool released = t_self->waitsFor == nullptr;
    t_self->waitsFor = nullptr;
    t_self->deadline = NEVER;
    t_self->socket.fd = -1;
    return released;
}

int sleepFor(std::int64_t time_ns)
{
    block(t_self, g_run.time + time_ns);
    return 0;
}

/// Until `look` finds something, or the deadline. No socket: until the deadline.
template<typename Look>
int waitOnSocket(int sock, short events, std::int64_t deadline, Look look)
{
    for (;;) {
        const int result = look();
        if (result != 0 || g_run.time >= deadline) {
            return result;
        }
        t_self->socket = {sock, events, 0};
        block(t_self, deadline);
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
    if (dice(4) == 0) {
        t_self->priority = dice(UINT_MAX);
    }
    if (!inLibrary().empty()) {
        const std::hash<std::string_view> hash;
        g_run.outcome.hash = g_run.outcome.hash * 1099511628211U + hash(event) + hash(t_self->who);
        if (t_self->who == g_run.plan.stalled && ++g_run.stepsOfStalled == g_run.plan.stalledAt) {
            g_run.outcome.reached = true;
            g_run.outcome.where = event;
            g_stalled = t_self;
            sleepFor(STALL_TIME);
        }
    }
    goOn();
    errno = error;
    return true;
}

/// Whether this call fails instead. That takes a moment: who tries again and again mustn't stop the clock.
bool failsSoon(const char* call)
{
    if (fails(call) == 0) {
        return false;
    }
    const int error = errno;
    sleepFor(NS_PER_MS);
    errno = error;
    return true;
}

int pollFirst(pollfd* entries, nfds_t count, int timeout_ms)
{
    const pollfd first = count == 0 ? pollfd{-1, 0, 0} : *entries; // nobody asks for several
    return waitOnSocket(first.fd, first.events, g_run.time + timeout_ms * NS_PER_MS,
                        [&] { return __real_poll(entries, count, 0); });
}

int selectReadable(int count, fd_set& readable, const timeval& timeout)
{
    const fd_set wanted = readable;
    const std::int64_t wait = timeout.tv_sec * NS_PER_S + timeout.tv_usec * NS_PER_US;
    return waitOnSocket(count - 1, POLLIN, g_run.time + wait, [&] {
        readable = wanted;
        timeval none = {};
        return __real_select(count, &readable, nullptr, nullptr, &none);
    });
}

int lockMutex(pthread_mutex_t* mutex)
{
    while (pthread_mutex_trylock(mutex) == EBUSY) {
        block(mutex);
    }
    return 0;
}

int unlockMutex(pthread_mutex_t* mutex)
{
    __real_pthread_mutex_unlock(mutex);
    release(mutex);
    return 0;
}

int sleepOn(pthread_cond_t* condition, pthread_mutex_t* mutex, std::int64_t deadline)
{
    const bool wakesUnasked = fails("condition") != 0;
    unlockMutex(mutex);
    const bool signalled = block(condition, wakesUnasked ? g_run.time + NS_PER_MS : deadline);
    lockMutex(mutex);
    return signalled || wakesUnasked ? 0 : ETIMEDOUT;
}

void* runThread(void* argument)
{
    Slot& self = *static_cast<Slot*>(argument);
    t_self = &self;
    self.id = ::gettid();
    giveTurn(*self.creator);
    awaitTurn(self);
    void* const result = self.function(self.argument);
    t_self = nullptr;
    self.waitsFor = &THE_END;
    release(&self);
    giveTurn(choose());
    return result;
}

/// Before a fork. One of them may be in the sanitizer's allocator still, and the child would wait for its
/// lock for ever.
void letTheEndedGo()
{
    for (const Slot& slot : g_slots) {
        const bool hasEnded = !slot.who.empty() && slot.waitsFor == &THE_END;
        for (int k = 0; hasEnded && ::tgkill(::getpid(), slot.id, 0) == 0; ++k) {
            if (k == KERNEL_TIME_MS) {
                fail("A thread that doesn't end");
            }
            const timespec pause = timespecOf(NS_PER_MS);
            __real_nanosleep(&pause, nullptr);
        }
    }
}

/// A forked child goes on alone, in the same run.
void loseOthers()
{
    for (Slot& slot : g_slots) {
        slot.who = &slot == t_self ? slot.who : std::string_view();
        slot.waitsFor = nullptr;
        slot.socket.fd = -1;
        slot.deadline = NEVER;
    }
}

/// Only one thread runs at a time anyway, and a hand-over costs more between processors.
void stayOnOneProcessor()
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(::sched_getcpu()), &one);
    ::sched_setaffinity(0, sizeof one, &one); // without it the runs take longer
}

// Registered before anything of the library's, so it runs behind the library's own exit handlers.
__attribute__((constructor(101))) void prepare()
{
    stayOnOneProcessor();
    ::pthread_atfork(&letTheEndedGo, nullptr, &loseOthers);
    std::atexit([] {
        if (t_self != nullptr) {
            end();
        }
    });
}

} // namespace

void begin(const Plan& plan)
{
    g_run = Run();
    g_run.plan = plan;
    g_run.random.seed(plan.seed);
    t_self = &g_slots[0];
    t_self->who = HOST;
    t_self->priority = 0;
}

Outcome end()
{
    t_self->who = {};
    t_self = nullptr;
    if (std::any_of(std::begin(g_slots), std::end(g_slots), [](const Slot& s) { return !s.who.empty(); })) {
        fail("Threads left");
    }
    return g_run.outcome;
}

void hostIsInLibrary(bool inside)
{
    g_run.hostInside = inside;
}

std::string_view inLibrary()
{
    const bool isInside =
        t_self != nullptr && t_self->who != CLIENT && (t_self->who != HOST || g_run.hostInside);
    return isInside ? t_self->who : std::string_view();
}

bool frameDone()
{
    if (g_stalled != nullptr && ++g_run.outcome.frames >= ENOUGH_FRAMES) {
        endStall();
    }
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

// A stand-in that is a step of a run's threads and an action then, unless it fails. For others it is the
// function itself.
#define SCHEDULED(result, name, parameters, arguments, action)                                               \
    STAND_IN(result, name, parameters)                                                                       \
    {                                                                                                        \
        return !step(#name) ? __real_##name arguments : failsSoon(#name) ? -1 : (action);                    \
    }

// Only the library sends, and always in a run.
STAND_IN(ssize_t, send, (int sock, const void* data, std::size_t size, int flags))
{
    const int how = step("send") ? fails("send") : 0;
    if (how == FaultKind::THROWS) {
        throw std::bad_alloc();
    }
    if (how != 0 && how != FaultKind::SHORT) {
        return how == FaultKind::NOTHING ? 0 : -1;
    }
    const std::size_t wanted = how == FaultKind::SHORT ? (size + 1) / 2 : size;
    std::size_t done = 0;
    const int result = waitOnSocket(sock, POLLOUT, NEVER, [&] {
        const auto* const rest = static_cast<const char*>(data) + done;
        const ssize_t taken = __real_send(sock, rest, wanted - done, flags | MSG_DONTWAIT);
        done += taken > 0 ? static_cast<std::size_t>(taken) : 0;
        return taken < 0 && errno != EAGAIN ? -1 : static_cast<int>(done == wanted);
    });
    return result < 0 && done == 0 ? -1 : static_cast<ssize_t>(done);
}

SCHEDULED(int, accept4, (int sock, sockaddr* address, socklen_t* length, int flags),
          (sock, address, length, flags), __real_accept4(sock, address, length, flags))
// Needs no thread of ours, there is room in the backlog.
SCHEDULED(int, connect, (int sock, const sockaddr* address, socklen_t length), (sock, address, length),
          __real_connect(sock, address, length))

SCHEDULED(int, poll, (pollfd * entries, nfds_t count, int timeout_ms), (entries, count, timeout_ms),
          pollFirst(entries, count, timeout_ms))
SCHEDULED(int, select, (int count, fd_set* readable, fd_set* writable, fd_set* except, timeval* timeout),
          (count, readable, writable, except, timeout), selectReadable(count, *readable, *timeout))
SCHEDULED(int, usleep, (useconds_t time_us), (time_us), sleepFor(time_us* NS_PER_US))

STAND_IN(int, nanosleep, (const timespec* time, timespec* left))
{
    if (step("nanosleep")) {
        sleepFor(nanoseconds(*time) * TEST_PACE);
    }
    return __real_nanosleep(time, left); // a test's own wait, which may be for another process
}

STAND_IN(int, clock_gettime, (clockid_t clock, timespec* now))
{
    if (t_self == nullptr || clock != CLOCK_MONOTONIC) {
        return __real_clock_gettime(clock, now);
    }
    const int how = fails("clock_gettime");
    if (how == FaultKind::JUMP) {
        g_run.time = std::max(g_run.time, 3600 * NS_PER_S);
    }
    *now = timespecOf(EPOCH + (how == FaultKind::STANDS ? 0 : g_run.time));
    return 0;
}

STAND_IN(int, pthread_create,
         (pthread_t * handle, const pthread_attr_t* attributes, void* (*function)(void*), void* argument))
{
    if (!step("create")) {
        return __real_pthread_create(handle, attributes, function, argument);
    }
    if (const int error = fails("pthread_create")) {
        return error;
    }
    Slot* const slot = std::find_if(std::begin(g_slots), std::end(g_slots),
                                    [](const Slot& other) { return other.who.empty(); });
    if (slot == std::end(g_slots)) {
        fail("Too many threads");
    }
    // A queue starts its sender first, and a new one when the old one is joined.
    slot->who = inLibrary().empty() ? CLIENT : isThere(SENDER) ? SERVER : SENDER;
    slot->function = function;
    slot->argument = argument;
    slot->creator = t_self;
    slot->at = "start";
    slot->waitsFor = nullptr;
    slot->priority = dice(UINT_MAX);
    const int result = __real_pthread_create(&slot->handle, attributes, &runThread, slot);
    *handle = slot->handle;
    if (result == 0) {
        awaitTurn(*t_self); // a fork mustn't meet it in the sanitizer's own start of a thread
    } else {
        slot->who = {};
    }
    return result;
}

STAND_IN(int, pthread_join, (pthread_t handle, void** result))
{
    const bool known = step("pthread_join");
    for (Slot& slot : g_slots) {
        if (known && &slot != t_self && !slot.who.empty() && pthread_equal(slot.handle, handle) != 0) {
            while (slot.waitsFor != &THE_END) {
                block(&slot);
            }
            slot.who = {};
        }
    }
    return __real_pthread_join(handle, result);
}

STAND_IN(int, pthread_mutex_unlock, (pthread_mutex_t * mutex))
{
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
SCHEDULED(int, pthread_cond_signal, (pthread_cond_t * condition), (condition), (release(condition, true), 0))
SCHEDULED(int, pthread_cond_broadcast, (pthread_cond_t * condition), (condition), (release(condition), 0))
