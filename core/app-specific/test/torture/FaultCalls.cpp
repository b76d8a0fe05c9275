#include "FaultCalls.h"

#include "AllocationHook.h"
#include "StandIn.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" void* __real_mmap(void* address, size_t size, int protection, int flags, int descriptor,
                             off_t offset);

namespace
{

const int WAIT_DIVISOR = 500;
const int STALL_SPEED = 100;
const int NARROW = 4096;

/// What this process and its children share.
struct Shared
{
    Fault fault = {nullptr, 0, false};
    std::atomic<bool> armed{false};
    std::atomic<int> calls{0}; // of the kind
    std::atomic<int> hits{0};
    std::atomic<bool> stallExpected{false};
    std::atomic<bool> hostHit{false}; // in the call of the host that is under way, or the last one
    std::atomic<int> starts{0};       // threads that it has tried to start
    std::atomic<std::int64_t> jumped_ns{0};
};

Shared& shared()
{
    static auto* const memory = static_cast<Shared*>(
        __real_mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return *memory;
}

enum Role
{
    LIBRARY, // all threads but the main one
    HOST,
    OUTSIDE
};
thread_local Role t_role = LIBRARY;
std::atomic<int> g_threadsUnjoined{0};

bool fails(const char* call)
{
    Shared& s = shared();
    if (t_role == OUTSIDE || !s.armed || s.fault.kind->call != call) {
        return false;
    }
    const int number = ++s.calls;
    const bool hit = s.fault.everAfter ? number >= s.fault.number : number == s.fault.number;
    if (hit) {
        ++s.hits;
        if (t_role == HOST) { // a library thread that fails at the same time mustn't write here
            s.hostHit = true;
        }
    }
    return hit;
}

bool failsWithError(const char* call)
{
    const bool hit = fails(call);
    errno = hit ? shared().fault.kind->error : errno;
    return hit;
}

// Registered before anything of the library's, so it runs behind the library's own exit handlers.
__attribute__((constructor(101))) void watchTheEnd()
{
    t_role = OUTSIDE;
    ::pthread_atfork(nullptr, nullptr, [] { g_threadsUnjoined = 0; }); // they stay behind
    std::atexit([] {
        if (t_role != OUTSIDE && FaultCalls::threadsUnjoined() != 0) {
            static const char text[] = "threads are left at the end of the process\n";
            static_cast<void>(!::write(STDERR_FILENO, text, sizeof text - 1));
            ::_exit(3);
        }
    });
}

} // namespace

const std::vector<FaultKind>& faultKinds()
{
    typedef FaultKind K;
    static const auto& kinds =
        *new std::vector<K>{// lives until the last exit handler is through
                            {"allocation", "", 0, K::HURTS, {}},
                            {"mmap", "", ENOMEM, K::HURTS, {"Whole", "Split"}},
                            {"pthread_create", "", EAGAIN, K::HURTS, {}},
                            {"socket", "", EMFILE, K::HURTS, {}},
                            {"setsockopt", "", ENOBUFS, K::HURTS, {}},
                            {"bind", "", EADDRINUSE, K::HURTS, {}},
                            {"listen", "", EADDRINUSE, K::HURTS, {}},
                            {"fcntl", "", EBADF, K::HURTS, {}},
                            {"accept4", "EMFILE", EMFILE, K::HURTS, {}},
                            {"accept4", "ECONNABORTED", ECONNABORTED, K::HARMLESS_ONCE, {}},
                            {"select", "EINTR", EINTR, K::HARMLESS_ONCE, {}},
                            {"select", "EBADF", EBADF, K::HARMLESS_ONCE, {}},
                            {"poll", "", ENOMEM, K::HURTS, {"Takeover"}},
                            {"send", "EPIPE", EPIPE, K::HURTS, {}},
                            {"send", "ECONNRESET", ECONNRESET, K::HURTS, {}},
                            {"send", "EAGAIN", EAGAIN, K::HURTS, {}},
                            {"send", "EINTR", EINTR, K::HURTS, {}},
                            {"send", "short", K::SHORT, K::HARMLESS, {}},
                            {"send", "nothing", K::NOTHING, K::HURTS, {}},
                            {"send", "throws", K::THROWS, K::HURTS, {}},
                            {"ioctl", "", EINVAL, K::HARMLESS, {"StalledClient", "FullQueue"}},
                            {"getsockopt", "", ENOPROTOOPT, K::HARMLESS, {"StalledClient", "FullQueue"}},
                            {"clock_gettime", "jumps", K::JUMP, K::HURTS, {}},
                            {"clock_gettime", "stands", K::STANDS, K::HURTS, {}},
                            {"system_clock", "jumps", K::JUMP, K::HARMLESS, {}},
                            {"usleep", "", EINTR, K::HARMLESS, {"HostThatWaits"}},
                            {"pthread_cond_wait", "", 0, K::HARMLESS, {}}, // wakes up without a signal
                            {"pthread_cond_timedwait", "", 0, K::HARMLESS, {"StalledClient", "FullQueue"}},
                            {"pthread_atfork", "", ENOMEM, K::HARMLESS, {"Unload"}},
                            {"pthread_setname_np", "", ERANGE, K::HARMLESS, {}}};
    return kinds;
}

FaultCalls::FaultCalls(const Fault& fault)
{
    Shared* const s = new (&shared()) Shared;
    s->fault = fault;
    s->armed = fault.number != 0;
    AllocationScope::setFilter([] { return fails("allocation"); });
}

FaultCalls::~FaultCalls()
{
    AllocationScope::setFilter(nullptr);
    shared().armed = false;
}

void FaultCalls::hostEnters()
{
    shared().hostHit = false;
    shared().starts = 0;
    t_role = HOST;
}

void FaultCalls::hostLeaves()
{
    t_role = OUTSIDE;
}

// What fails on the host's thread fails its call. The library's threads keep their failures to themselves.
std::vector<std::string> FaultCalls::expectedTexts() const
{
    const std::string call = shared().hostHit ? shared().fault.kind->call : "none";
    if (call == "allocation") {
        return {"std::bad_alloc", "Out of memory"};
    }
    if (call == "mmap") {
        return {"std::bad_alloc"};
    }
    if (call == "pthread_create") {
        return {shared().starts == 1 ? "Unable to create sender thread"
                                     : "Unable to create server thread (pthread_create)"};
    }
    return {};
}

bool FaultCalls::happened() const
{
    const Fault& fault = shared().fault;
    const FaultKind::Effect effect = fault.kind->effect;
    const bool harmless =
        effect == FaultKind::HARMLESS || (effect == FaultKind::HARMLESS_ONCE && !fault.everAfter);
    return hits() != 0 && !harmless;
}

bool FaultCalls::isOver() const
{
    return !shared().fault.everAfter;
}

bool FaultCalls::expectStall()
{
    shared().stallExpected = true;
    return true;
}

int FaultCalls::hits()
{
    return shared().hits;
}

int FaultCalls::threadsUnjoined()
{
    return g_threadsUnjoined;
}

// ---------------------------------------------------------------------------------------------------------------------
// The linker's names

typedef void* Address;

namespace
{

std::int64_t shortened(std::int64_t wait)
{
    return t_role == OUTSIDE || wait <= 0 ? wait : 1 + (wait - 1) / WAIT_DIVISOR;
}

timeval* shortened(timeval* wait)
{
    *wait = t_role == OUTSIDE ? *wait : timeval{0, wait->tv_usec / WAIT_DIVISOR};
    return wait;
}

int wakeWithoutSignal(pthread_mutex_t* mutex)
{
    pthread_mutex_unlock(mutex);
    sched_yield();
    return pthread_mutex_lock(mutex);
}

} // namespace

// A stand-in that either fails with -1 and an errno, or calls the function itself.
#define FAILING(result, name, parameters, arguments)                                                         \
    STAND_IN(result, name, parameters)                                                                       \
    {                                                                                                        \
        return failsWithError(#name) ? result(-1) : __real_##name arguments;                                 \
    }

FAILING(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAILING(int, setsockopt, (int sock, int level, int name, const void* value, socklen_t length),
        (sock, level, name, value, length))
FAILING(int, getsockopt, (int sock, int level, int name, void* value, socklen_t* length),
        (sock, level, name, value, length))
FAILING(int, bind, (int sock, const sockaddr* address, socklen_t length), (sock, address, length))
FAILING(int, listen, (int sock, int backlog), (sock, backlog))
FAILING(Address, mmap, (void* address, size_t size, int protection, int flags, int descriptor, off_t offset),
        (address, size, protection, flags, descriptor, offset))
FAILING(int, poll, (pollfd * entries, nfds_t count, int timeout_ms),
        (entries, count, static_cast<int>(shortened(timeout_ms))))
FAILING(int, select, (int count, fd_set* reads, fd_set* writes, fd_set* others, timeval* timeout),
        (count, reads, writes, others, shortened(timeout)))
FAILING(int, usleep, (useconds_t time_us), (static_cast<useconds_t>(shortened(time_us))))
// These two take any arguments. The library gives them one word each.
FAILING(int, fcntl, (int descriptor, int command, long argument), (descriptor, command, argument))
FAILING(int, ioctl, (int descriptor, unsigned long request, void* argument), (descriptor, request, argument))

STAND_IN(int, accept4, (int sock, sockaddr* address, socklen_t* length, int flags))
{
    if (failsWithError("accept4")) {
        return -1;
    }
    const int connection = __real_accept4(sock, address, length, flags);
    if (connection >= 0 && shared().stallExpected) {
        __real_setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &NARROW, sizeof NARROW);
    }
    return connection;
}

STAND_IN(ssize_t, send, (int sock, const void* data, size_t size, int flags))
{
    const int how = fails("send") ? shared().fault.kind->error : 0;
    if (how > 0) {
        errno = how;
        return -1;
    }
    if (how == FaultKind::THROWS) {
        throw std::bad_alloc();
    }
    return how == FaultKind::NOTHING
               ? 0
               : __real_send(sock, data, how == FaultKind::SHORT ? (size + 1) / 2 : size, flags);
}

STAND_IN(int, clock_gettime, (clockid_t clock, timespec* now))
{
    const int result = __real_clock_gettime(clock, now);
    if (t_role == OUTSIDE) {
        return result;
    }
    static const std::int64_t begin = now->tv_sec * NS_PER_S;
    Shared& s = shared();
    const int hit = fails("clock_gettime") ? s.fault.kind->error : 0;
    if (hit == FaultKind::JUMP) {
        s.jumped_ns = 3600 * NS_PER_S;
    }
    const std::int64_t elapsed = (nanoseconds(*now) - begin) * (s.stallExpected ? STALL_SPEED : 1);
    *now = timespecOf(hit == FaultKind::STANDS ? begin : begin + s.jumped_ns + elapsed);
    return result;
}

STAND_IN(int, pthread_create,
         (pthread_t * handle, const pthread_attr_t* attributes, void* (*function)(void*), void* argument))
{
    ++shared().starts;
    const int error =
        fails("pthread_create") ? EAGAIN : __real_pthread_create(handle, attributes, function, argument);
    g_threadsUnjoined += error == 0 ? 1 : 0;
    return error;
}

STAND_IN(int, pthread_join, (pthread_t handle, void** result))
{
    --g_threadsUnjoined;
    return __real_pthread_join(handle, result);
}

STAND_IN(int, pthread_setname_np, (pthread_t thread, const char* name))
{
    return fails("pthread_setname_np") ? ERANGE : __real_pthread_setname_np(thread, name);
}

// For the module, which registers its own.
extern "C" bool atforkFails()
{
    return fails("pthread_atfork");
}

STAND_IN(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex))
{
    return fails("pthread_cond_wait") ? wakeWithoutSignal(mutex) : __real_pthread_cond_wait(condition, mutex);
}

STAND_IN(int, pthread_cond_timedwait, (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec*))
{
    timespec now;
    __real_clock_gettime(CLOCK_MONOTONIC, &now);
    const timespec soon = timespecOf(nanoseconds(now) + NS_PER_MS);
    return fails("pthread_cond_timedwait") ? wakeWithoutSignal(mutex)
                                           : __real_pthread_cond_timedwait(condition, mutex, &soon);
}

// The clock of the C++ library, by the name that it has for the linker.
typedef std::chrono::system_clock SystemClock;
SystemClock::time_point realSystemNow() noexcept __asm__("__real__ZNSt6chrono3_V212system_clock3nowEv");
SystemClock::time_point wrapSystemNow() noexcept __asm__("__wrap__ZNSt6chrono3_V212system_clock3nowEv");

SystemClock::time_point wrapSystemNow() noexcept
{
    const bool jumps = fails("system_clock");
    return realSystemNow() - std::chrono::hours(jumps ? 1 : 0);
}
