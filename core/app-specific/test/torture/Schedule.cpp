#include "Schedule.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
ssize_t __real_send(int sock, const void* data, std::size_t size, int flags);
int __real_accept4(int sock, sockaddr* address, socklen_t* length, int flags);
int __real_listen(int sock, int backlog);
int __real_connect(int sock, const sockaddr* address, socklen_t length);
int __real_select(int count, fd_set* readable, fd_set* writable, fd_set* except, timeval* timeout);
int __real_poll(pollfd* entries, nfds_t count, int timeout_ms);
int __real_usleep(useconds_t time_us);
int __real_nanosleep(const timespec* time, timespec* left);
int __real_clock_gettime(clockid_t clock, timespec* now);
int __real_pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument);
int __real_pthread_setname_np(pthread_t handle, const char* name);
int __real_pthread_join(pthread_t handle, void** result);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* limit);
int __real_pthread_cond_signal(pthread_cond_t* condition);
int __real_pthread_cond_broadcast(pthread_cond_t* condition);
}

namespace Schedule
{

namespace
{

const std::int64_t NEVER = INT64_MAX;
const std::int64_t MS = 1000000;
const std::int64_t S = 1000 * MS;
const int MAX_STEPS = 400000;
const std::int64_t EPOCH = 1000 * S;      // nothing is before it
const std::int64_t MAX_TIME = 120 * S;    // on the run's own clock
const std::int64_t STALL_TIME = 200 * MS; // well below the library's own limits
const int EARLY_MOVES = 150;
const unsigned WATCHDOG_S = 120; // in life, for a thread that hangs in none of the calls here
const int FAIR_FROM = 4000;      // steps; priorities alone would keep the lowest out for ever

enum State
{
    FREE,
    READY,
    ON_MUTEX,
    ON_CONDITION,
    ON_JOIN,
    ON_SOCKET,
    ASLEEP,
    STALLED,
    ENDED
};

/// A thread. All of this belongs to whoever runs; the hand-over orders it.
struct Slot
{
    pthread_t handle = {};
    void* (*function)(void*) = nullptr;
    void* argument = nullptr;
    const char* at = "";
    const void* object = nullptr; // of the wait
    std::int64_t deadline = NEVER;
    pollfd socket = {-1, 0, 0};
    std::atomic<int> turn{0}; // a futex
    State state = FREE;
    Who who = HOST;
    std::uint32_t priority = 0;
    int heldFor = 0; // steps of others
    bool expired = false;
};

const int NO_SLOTS = 8;
Slot g_slots[NO_SLOTS];
thread_local Slot* t_self = nullptr;
Slot* g_last = nullptr; // whoever ran at the last step
bool g_on = false;

Plan g_plan;
Outcome g_outcome;
const char* g_label = "";
char g_runText[200];
std::uint64_t g_random = 0;
int g_changes[4] = {};
unsigned g_earliness = 0; // one step in so many moves the clock; 0 for none
std::int64_t g_time = 0;
int g_early = 0;
int g_wakesLeft = 0; // without a signal
std::int64_t g_stallEnd = 0;
int g_stepsOfStalled = 0;
bool g_hostInside = false;
bool g_stallExpected = false;
Who g_nextWho = NOBODY; // of the thread that is about to start, if the run knows

std::uint32_t randomBits()
{
    g_random += 0x9E3779B97F4A7C15U;
    std::uint64_t z = g_random;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
    return static_cast<std::uint32_t>(z >> 32);
}

[[noreturn]] void fail(const char* what)
{
    static const char* const states[] = {"free",   "ready",  "mutex",   "condition", "join",
                                         "socket", "asleep", "stalled", "ended"};
    std::fprintf(stderr, "%s in %s, LODESTONE_TEST_SEED=%u, stalled %s %d, step %d, %lld ms\n", what, g_label,
                 g_plan.seed, nameOf(g_plan.stalled), g_plan.stalledAt, g_outcome.steps,
                 static_cast<long long>(g_time / MS));
    for (const Slot& slot : g_slots) {
        if (slot.state != FREE) {
            std::fprintf(stderr, "  %-6s %-9s at %s\n", nameOf(slot.who), states[slot.state], slot.at);
        }
    }
    std::abort();
}

/// A crash, or a hang outside of the calls here.
void tellRun(int signal)
{
    static_cast<void>(!write(STDERR_FILENO, g_runText, std::strlen(g_runText)));
    std::signal(signal, SIG_DFL);
    raise(signal);
}

void watchSignals()
{
    std::snprintf(g_runText, sizeof g_runText, "\nIn %s, LODESTONE_TEST_SEED=%u, stalled %s %d\n", g_label,
                  g_plan.seed, nameOf(g_plan.stalled), g_plan.stalledAt);
    for (const int signal : {SIGALRM, SIGSEGV, SIGBUS}) {
        struct sigaction present;
        sigaction(signal, nullptr, &present);
        if (present.sa_handler == SIG_DFL) { // or a sanitizer's
            std::signal(signal, &tellRun);
        }
    }
    alarm(WATCHDOG_S);
}

bool waits(const Slot& slot)
{
    return slot.state >= ON_MUTEX && slot.state <= ASLEEP;
}

void wake(Slot& slot, bool expired = false)
{
    slot.state = READY;
    slot.expired = expired;
    slot.deadline = NEVER;
}

void wakeAll(State state, const void* object)
{
    for (Slot& slot : g_slots) {
        if (slot.state == state && slot.object == object) {
            wake(slot);
        }
    }
}

bool anyIn(State state)
{
    return std::any_of(std::begin(g_slots), std::end(g_slots),
                       [state](const Slot& slot) { return slot.state == state; });
}

/// Wakes those whose sockets have what they wait for.
void lookAtSockets(int timeout_ms)
{
    pollfd entries[NO_SLOTS];
    Slot* owners[NO_SLOTS];
    nfds_t count = 0;
    for (Slot& slot : g_slots) {
        if (slot.state == ON_SOCKET) {
            owners[count] = &slot;
            entries[count++] = slot.socket;
        }
    }
    if (count != 0 && __real_poll(entries, count, timeout_ms) > 0) {
        for (nfds_t k = 0; k < count; ++k) {
            if (entries[k].revents != 0) {
                wake(*owners[k]);
            }
        }
    }
}

void endStall()
{
    for (Slot& slot : g_slots) {
        if (slot.state == STALLED) {
            g_outcome.hostWaits = g_slots[0].state == READY ? "nothing" : g_slots[0].at;
            wake(slot);
        }
    }
}

std::int64_t nextMoment()
{
    std::int64_t next = NEVER;
    for (const Slot& slot : g_slots) {
        next = waits(slot) ? std::min(next, slot.deadline) : next;
    }
    return next;
}

void moveClock(std::int64_t moment)
{
    g_time = std::max(g_time, moment);
    if (g_time > g_stallEnd) {
        endStall();
    }
    for (Slot& slot : g_slots) {
        if (waits(slot) && slot.deadline <= g_time) {
            wake(slot, true);
        }
    }
}

/// As the system is free to do. Not in all runs, and not often: it mends the loss of a signal.
void wakeWithoutSignal()
{
    Slot& slot = g_slots[randomBits() % NO_SLOTS];
    if (g_wakesLeft != 0 && slot.state == ON_CONDITION && randomBits() % 16 == 0) {
        --g_wakesLeft;
        wake(slot);
    }
}

/// Time passes for the others while somebody runs, but never as much as the library's limits.
void moveClockEarly()
{
    if (g_earliness != 0 && !anyIn(STALLED) && g_early < EARLY_MOVES && randomBits() % g_earliness == 0) {
        const std::int64_t next = nextMoment();
        if (next != NEVER && next - g_time < 60 * MS) {
            ++g_early;
            moveClock(next);
        }
    }
}

/// Nobody can run: lets the kernel catch up, time pass, or a stalled thread go.
void unblock()
{
    lookAtSockets(0);
    if (anyIn(READY)) {
        return;
    }
    const std::int64_t next = nextMoment();
    if (next != NEVER) {
        moveClock(next);
    } else if (anyIn(STALLED)) {
        endStall();
    } else if (anyIn(ON_SOCKET)) {
        lookAtSockets(1000);
    } else {
        fail("Deadlock");
    }
    if (g_time > MAX_TIME) {
        fail("Hang");
    }
}

Slot& pickFrom(Slot* const* ready, unsigned count)
{
    Slot* const last = *std::find(ready, ready + count - 1, g_last);
    if (g_plan.seed % 2 == 0 && g_outcome.steps < FAIR_FROM) {
        return **std::max_element(ready, ready + count,
                                  [](const Slot* a, const Slot* b) { return a->priority < b->priority; });
    }
    return last == g_last && randomBits() % 8 != 0 ? *last : *ready[randomBits() % count];
}

unsigned listReady(Slot** ready)
{
    unsigned count = 0;
    for (Slot& slot : g_slots) {
        if (slot.state == READY && slot.heldFor == 0) {
            ready[count++] = &slot;
        }
    }
    return count;
}

Slot& choose()
{
    lookAtSockets(0);
    moveClockEarly();
    wakeWithoutSignal();
    Slot* ready[NO_SLOTS];
    unsigned count = listReady(ready);
    while (count == 0) {
        for (Slot& slot : g_slots) {
            slot.heldFor = 0;
        }
        if (!anyIn(READY)) {
            unblock();
        }
        count = listReady(ready);
    }
    Slot& next = pickFrom(ready, count);
    g_last = &next;
    return next;
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

void goOnWith(Slot& next)
{
    if (&next != t_self) {
        giveTurn(next);
        awaitTurn(*t_self);
    }
}

/// False at the deadline.
bool block(State state, const void* object, std::int64_t deadline = NEVER)
{
    t_self->state = state;
    t_self->object = object;
    t_self->deadline = deadline;
    goOnWith(choose());
    return !t_self->expired;
}

bool blockOnSocket(int sock, short events, std::int64_t deadline = NEVER)
{
    t_self->socket = {sock, events, 0};
    return block(ON_SOCKET, nullptr, deadline);
}

void record(const char* event)
{
    const auto add = [](unsigned byte) { g_outcome.hash = (g_outcome.hash ^ byte) * 1099511628211U; };
    add(t_self->who);
    for (; *event != '\0'; ++event) {
        add(static_cast<unsigned char>(*event));
    }
}

void disturb(Slot& self)
{
    for (Slot& slot : g_slots) {
        slot.heldFor -= &slot != &self && slot.heldFor > 0 ? 1 : 0;
    }
    if (g_plan.seed % 2 == 0) {
        for (std::uint32_t k = 0; k < 4; ++k) {
            self.priority = g_changes[k] == g_outcome.steps ? k : self.priority;
        }
    } else if (randomBits() % 16 == 0) {
        self.heldFor = 1 + static_cast<int>(randomBits() % 40);
    }
}

void standStill(Slot& self)
{
    g_outcome.reached = true;
    g_outcome.where = self.at;
    g_stallEnd = g_time + STALL_TIME;
    self.state = STALLED;
}

/// The calling thread is at `event`. False if it isn't one of a run.
bool step(const char* event)
{
    if (!g_on || t_self == nullptr) {
        return false;
    }
    const int error = errno;
    Slot& self = *t_self;
    self.at = event;
    if (++g_outcome.steps > MAX_STEPS) {
        fail("Endless loop");
    }
    disturb(self);
    if (self.who == SENDER || self.who == SERVER || (self.who == HOST && g_hostInside)) {
        record(event);
        if (self.who == g_plan.stalled && ++g_stepsOfStalled == g_plan.stalledAt) {
            standStill(self);
        }
    }
    goOnWith(choose());
    errno = error;
    return true;
}

std::int64_t nanoseconds(const timespec& time)
{
    return time.tv_sec * S + time.tv_nsec;
}

/// Of the library's clock, not of its sleeps.
int clockFactor()
{
    return g_stallExpected ? 16 : 1;
}

timespec toTimespec(std::int64_t time)
{
    timespec result;
    result.tv_sec = static_cast<time_t>(time / S);
    result.tv_nsec = static_cast<long>(time % S);
    return result;
}

void lockMutex(pthread_mutex_t* mutex)
{
    while (pthread_mutex_trylock(mutex) == EBUSY) {
        block(ON_MUTEX, mutex);
    }
}

void unlockMutex(pthread_mutex_t* mutex)
{
    __real_pthread_mutex_unlock(mutex);
    wakeAll(ON_MUTEX, mutex);
}

int sleepOn(pthread_cond_t* condition, pthread_mutex_t* mutex, std::int64_t deadline)
{
    unlockMutex(mutex);
    const bool signalled = block(ON_CONDITION, condition, deadline);
    lockMutex(mutex);
    return signalled ? 0 : ETIMEDOUT;
}

void sleepFor(std::int64_t time)
{
    block(ASLEEP, nullptr, g_time + time);
}

Slot& slotIn(State state)
{
    Slot* const slot = std::find_if(std::begin(g_slots), std::end(g_slots),
                                    [state](const Slot& s) { return s.state == state; });
    if (slot == std::end(g_slots)) {
        fail("Too many threads");
    }
    return *slot;
}

void* runThread(void* argument)
{
    Slot& self = *static_cast<Slot*>(argument);
    t_self = &self;
    awaitTurn(self);
    void* const result = self.function(self.argument);
    t_self = nullptr;
    self.state = ENDED;
    wakeAll(ON_JOIN, &self);
    giveTurn(choose());
    return result;
}

/// A forked child goes on alone, in the same run.
void loseOthers()
{
    for (Slot& slot : g_slots) {
        slot.state = &slot == t_self ? READY : FREE;
    }
}

Slot* threadOf(pthread_t handle)
{
    for (Slot& slot : g_slots) {
        if (slot.state != FREE && slot.who != HOST && pthread_equal(slot.handle, handle) != 0) {
            return &slot;
        }
    }
    return nullptr;
}

} // namespace

const char* nameOf(Who who)
{
    static const char* const names[] = {"host", "sender", "server", "client", "nobody"};
    return names[who];
}

void begin(const Plan& plan, const char* label)
{
    static const int inChildren = pthread_atfork(nullptr, nullptr, &loseOthers);
    static_cast<void>(inChildren);
    g_plan = plan;
    g_outcome = Outcome();
    g_label = label;
    g_random = plan.seed * std::uint64_t{0x2545F4914F6CDD1D};
    const unsigned horizon = 32U << randomBits() % 6;
    for (int& change : g_changes) {
        change = static_cast<int>(randomBits() % horizon);
    }
    g_earliness = randomBits() % 3 == 0 ? 0 : 8U << randomBits() % 5;
    g_time = g_stallEnd = 0;
    g_early = 0;
    g_wakesLeft = randomBits() % 4 == 0 ? 4 : 0;
    g_stepsOfStalled = 0;
    g_hostInside = g_stallExpected = false;
    t_self = g_last = &g_slots[0];
    t_self->state = READY;
    t_self->who = HOST;
    t_self->priority = randomBits() | 16;
    t_self->heldFor = 0;
    watchSignals();
    g_on = true;
}

Outcome end()
{
    alarm(0);
    g_on = false;
    t_self->state = FREE;
    t_self = nullptr;
    if (std::any_of(std::begin(g_slots), std::end(g_slots),
                    [](const Slot& slot) { return slot.state != FREE; })) {
        fail("Threads left");
    }
    return g_outcome;
}

void hostEnters()
{
    g_hostInside = true;
}

void hostLeaves()
{
    g_hostInside = false;
}

void expectStall()
{
    g_stallExpected = true;
}

void frameDone()
{
    if (anyIn(STALLED) && ++g_outcome.frames >= ENOUGH_FRAMES) {
        wake(slotIn(STALLED));
    }
}

bool stalling()
{
    return anyIn(STALLED);
}

unsigned dice(unsigned sides)
{
    return randomBits() % sides;
}

void startClient(void* (*function)(void*), void* argument, pthread_t& handle)
{
    g_nextWho = CLIENT;
    pthread_create(&handle, nullptr, function, argument);
    g_nextWho = NOBODY;
}

} // namespace Schedule

// ---------------------------------------------------------------------------------------------------------------------
// The linker's names

using namespace Schedule;

extern "C" {

void lodestoneTestPoint(const char* name) noexcept
{
    step(name);
}

ssize_t __wrap_send(int sock, const void* data, std::size_t size, int flags)
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

int __wrap_accept4(int sock, sockaddr* address, socklen_t* length, int flags)
{
    step("accept");
    const int connection = __real_accept4(sock, address, length, flags);
    const int size = 4096;
    if (g_stallExpected) {
        setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
    return connection;
}

int __wrap_listen(int sock, int backlog)
{
    return __real_listen(sock, backlog + 16); // a full one would make clients try again in a second of life
}

int __wrap_connect(int sock, const sockaddr* address, socklen_t length)
{
    step("connect");
    return __real_connect(sock, address, length); // needs no thread of ours, there is room in the backlog
}

int __wrap_poll(pollfd* entries, nfds_t count, int timeout_ms)
{
    if (!step("poll")) {
        return __real_poll(entries, count, timeout_ms);
    }
    const std::int64_t deadline = timeout_ms < 0 ? NEVER : g_time + timeout_ms * MS;
    int result = __real_poll(entries, count, 0);
    while (result == 0 && g_time < deadline) {
        count == 0 ? block(ASLEEP, nullptr, deadline) : blockOnSocket(entries->fd, entries->events, deadline);
        result = __real_poll(entries, count, 0);
    }
    return result;
}

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* except, timeval* timeout)
{
    if (!step("select")) {
        return __real_select(count, readable, writable, except, timeout);
    }
    const fd_set wanted = *readable;
    const std::int64_t deadline = g_time + timeout->tv_sec * S + timeout->tv_usec * (MS / 1000);
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

int __wrap_usleep(useconds_t time_us)
{
    return step("usleep") ? (sleepFor(time_us * (MS / 1000)), 0) : __real_usleep(time_us);
}

int __wrap_nanosleep(const timespec* time, timespec* left)
{
    if (step("nanosleep")) {
        sleepFor(nanoseconds(*time));
    }
    return __real_nanosleep(time, left); // a test's own wait, which may be for another process
}

int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    if (!g_on || t_self == nullptr || clock != CLOCK_MONOTONIC) {
        return __real_clock_gettime(clock, now);
    }
    *now = toTimespec(EPOCH + g_time * clockFactor());
    return 0;
}

int __wrap_pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument)
{
    if (!step("create")) {
        return __real_pthread_create(handle, attributes, function, argument);
    }
    Slot& slot = slotIn(FREE);
    slot.who = g_nextWho;
    slot.function = function;
    slot.argument = argument;
    slot.priority = randomBits() | 16;
    slot.heldFor = 0;
    slot.at = "start";
    const int result = __real_pthread_create(&slot.handle, attributes, &runThread, &slot);
    slot.state = result == 0 ? READY : FREE;
    *handle = slot.handle;
    return result;
}

int __wrap_pthread_setname_np(pthread_t handle, const char* name)
{
    if (t_self != nullptr) { // the first thing that a thread of the library does
        t_self->who = std::strcmp(name, "lodestone-send") == 0 ? SENDER : SERVER;
    }
    return __real_pthread_setname_np(handle, name);
}

int __wrap_pthread_join(pthread_t handle, void** result)
{
    Slot* const slot = step("join") ? threadOf(handle) : nullptr;
    while (slot != nullptr && slot->state != ENDED) {
        block(ON_JOIN, slot);
    }
    const int error = __real_pthread_join(handle, result);
    if (slot != nullptr) {
        slot->state = FREE;
    }
    return error;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    return step("lock") ? (lockMutex(mutex), 0) : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    if (!g_on || t_self == nullptr) {
        return __real_pthread_mutex_unlock(mutex);
    }
    unlockMutex(mutex);
    step("unlock");
    return 0;
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    return step("wait") ? sleepOn(condition, mutex, NEVER) : __real_pthread_cond_wait(condition, mutex);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* limit)
{
    return step("look") ? sleepOn(condition, mutex, (nanoseconds(*limit) - EPOCH) / clockFactor())
                        : __real_pthread_cond_timedwait(condition, mutex, limit);
}

int __wrap_pthread_cond_signal(pthread_cond_t* condition)
{
    if (!step("signal")) {
        return __real_pthread_cond_signal(condition);
    }
    for (Slot& slot : g_slots) { // no condition has two sleepers
        if (slot.state == ON_CONDITION && slot.object == condition) {
            wake(slot);
            break;
        }
    }
    return 0;
}

int __wrap_pthread_cond_broadcast(pthread_cond_t* condition)
{
    if (!step("broadcast")) {
        return __real_pthread_cond_broadcast(condition);
    }
    wakeAll(ON_CONDITION, condition);
    return 0;
}

} // extern "C"
