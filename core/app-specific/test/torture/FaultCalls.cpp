#include "FaultCalls.h"

#include "AllocationHook.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
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
const long NS_PER_S = 1000000000L;
const int NARROW = 4096;

/// What this process and its children share.
struct Shared
{
    FaultKind kind;
    int number;
    bool everAfter;
    std::atomic<bool> armed;
    std::atomic<int> calls; // of the kind
    std::atomic<int> hits;
    std::atomic<bool> stallExpected;
    std::atomic<bool> hostHit; // in the call of the host that is under way, or the last one
    std::atomic<int> starts;   // threads that it has tried to start
    std::atomic<std::int64_t> jumped_s;
};

Shared& shared()
{
    static auto* const memory = static_cast<Shared*>(
        __real_mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return *memory;
}

enum Role
{
    OUTSIDE,
    HOST,
    LIBRARY
};
thread_local Role t_role = OUTSIDE;
std::atomic<int> g_threadsUnjoined{0};

bool fails(FaultCall call)
{
    Shared& s = shared();
    if (t_role == OUTSIDE || !s.armed || s.kind.call != call) {
        return false;
    }
    const int number = ++s.calls;
    const bool hit = s.everAfter ? number >= s.number : number == s.number;
    if (hit) {
        ++s.hits;
        if (t_role == HOST) { // a library thread that fails at the same time mustn't write here
            s.hostHit = true;
        }
    }
    return hit;
}

bool failsWithError(FaultCall call)
{
    const bool hit = fails(call);
    errno = hit ? shared().kind.error : errno;
    return hit;
}

bool allocationFails()
{
    return fails(ALLOCATION);
}

timespec timespecOf(std::int64_t time_ns)
{
    return {static_cast<time_t>(time_ns / NS_PER_S), static_cast<long>(time_ns % NS_PER_S)};
}

struct Start
{
    void* (*function)(void*);
    void* argument;
};
Start g_starts[64]; // taken in turn
std::atomic<unsigned> g_noStarts{0};

void* runThread(void* argument)
{
    const Start start = *static_cast<Start*>(argument);
    t_role = LIBRARY;
    return start.function(start.argument);
}

// Registered before anything of the library's, so it runs behind the library's own exit handlers.
__attribute__((constructor(101))) void watchTheEnd()
{
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
    static const std::vector<K> kinds = {{ALLOCATION, "allocation", 0, K::HURTS},
                                         {MMAP, "mmap", ENOMEM, K::HURTS},
                                         {THREAD, "pthread_create", EAGAIN, K::HURTS},
                                         {SOCKET, "socket", EMFILE, K::HURTS},
                                         {SETSOCKOPT, "setsockopt", ENOBUFS, K::HURTS},
                                         {BIND, "bind", EADDRINUSE, K::HURTS},
                                         {LISTEN, "listen", EADDRINUSE, K::HURTS},
                                         {FCNTL, "fcntl", EBADF, K::HURTS},
                                         {ACCEPT, "accept-EMFILE", EMFILE, K::HURTS},
                                         {ACCEPT, "accept-ECONNABORTED", ECONNABORTED, K::HARMLESS_ONCE},
                                         {SELECT, "select-EINTR", EINTR, K::HARMLESS_ONCE},
                                         {SELECT, "select-EBADF", EBADF, K::HARMLESS_ONCE},
                                         {POLL, "poll", ENOMEM, K::HURTS},
                                         {SEND, "send-EPIPE", EPIPE, K::HURTS},
                                         {SEND, "send-ECONNRESET", ECONNRESET, K::HURTS},
                                         {SEND, "send-EAGAIN", EAGAIN, K::HURTS},
                                         {SEND, "send-EINTR", EINTR, K::HURTS},
                                         {SEND, "send-short", K::SHORT, K::HARMLESS},
                                         {SEND, "send-nothing", K::NOTHING, K::HURTS},
                                         {SEND, "send-throws", K::THROWS, K::HURTS},
                                         {IOCTL, "ioctl", EINVAL, K::HARMLESS},
                                         {GETSOCKOPT, "getsockopt", ENOPROTOOPT, K::HARMLESS},
                                         {CLOCK, "clock-jumps", K::JUMP, K::HURTS},
                                         {CLOCK, "clock-stands", K::STANDS, K::HURTS},
                                         {SYSTEM_CLOCK, "system-clock-jumps", K::JUMP, K::HARMLESS},
                                         {REST, "usleep", EINTR, K::HARMLESS},
                                         {SLEEP, "pthread_cond_wait", 0, K::HARMLESS},
                                         {LOOK, "pthread_cond_timedwait", 0, K::HARMLESS},
                                         {ATFORK, "pthread_atfork", ENOMEM, K::HARMLESS},
                                         {NAME, "pthread_setname_np", ERANGE, K::HARMLESS}};
    return kinds;
}

FaultCalls::FaultCalls(const Fault& fault)
{
    Shared& s = shared();
    s.kind = *fault.kind;
    s.number = fault.number;
    s.everAfter = fault.everAfter;
    s.calls = 0;
    s.hits = 0;
    s.stallExpected = false;
    s.jumped_s = 0;
    s.armed = fault.number != 0;
    AllocationScope::setFilter(&allocationFails);
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
    const Shared& s = shared();
    if (!s.hostHit) {
        return {};
    }
    switch (s.kind.call) {
    case ALLOCATION:
        return {"std::bad_alloc", "Out of memory"};
    case MMAP:
        return {"std::bad_alloc"};
    case THREAD:
        return {s.starts == 1 ? "Unable to create sender thread"
                              : "Unable to create server thread (pthread_create)"};
    default:
        return {};
    }
}

bool FaultCalls::happened() const
{
    const Shared& s = shared();
    const bool harmless =
        s.kind.effect == FaultKind::HARMLESS || (s.kind.effect == FaultKind::HARMLESS_ONCE && !s.everAfter);
    return s.hits != 0 && !harmless;
}

bool FaultCalls::isOver() const
{
    return !shared().everAfter;
}

void FaultCalls::expectStall()
{
    shared().stallExpected = true;
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

// A stand-in that either fails with -1 and an errno, or calls the function itself.
#define FAILING(CALL, name, parameters, arguments)                                                           \
    extern "C" int __real_##name parameters;                                                                 \
    extern "C" int __wrap_##name parameters                                                                  \
    {                                                                                                        \
        return failsWithError(CALL) ? -1 : __real_##name arguments;                                          \
    }

FAILING(SOCKET, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAILING(SETSOCKOPT, setsockopt, (int sock, int level, int name, const void* value, socklen_t length),
        (sock, level, name, value, length))
FAILING(GETSOCKOPT, getsockopt, (int sock, int level, int name, void* value, socklen_t* length),
        (sock, level, name, value, length))
FAILING(BIND, bind, (int sock, const sockaddr* address, socklen_t length), (sock, address, length))
FAILING(LISTEN, listen, (int sock, int backlog), (sock, backlog))

extern "C" {

int __real_accept4(int sock, sockaddr* address, socklen_t* length, int flags);
int __real_fcntl(int descriptor, int command, ...);
int __real_ioctl(int descriptor, unsigned long request, ...);
int __real_poll(pollfd* entries, nfds_t number, int timeout_ms);
int __real_select(int count, fd_set* reads, fd_set* writes, fd_set* others, timeval* timeout);
ssize_t __real_send(int sock, const void* data, size_t size, int flags);
int __real_usleep(useconds_t time_us);
int __real_clock_gettime(clockid_t clock, timespec* now);
int __real_pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument);
int __real_pthread_setname_np(pthread_t thread, const char* name);
int __real_pthread_join(pthread_t handle, void** result);
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* limit);

int __wrap_accept4(int sock, sockaddr* address, socklen_t* length, int flags)
{
    if (failsWithError(ACCEPT)) {
        return -1;
    }
    const int connection = __real_accept4(sock, address, length, flags);
    if (connection >= 0 && shared().stallExpected) {
        __real_setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &NARROW, sizeof NARROW);
    }
    return connection;
}

int __wrap_fcntl(int descriptor, int command, ...)
{
    va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);
    va_end(rest);
    return failsWithError(FCNTL) ? -1 : __real_fcntl(descriptor, command, argument);
}

int __wrap_ioctl(int descriptor, unsigned long request, ...)
{
    va_list rest;
    va_start(rest, request);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    return failsWithError(IOCTL) ? -1 : __real_ioctl(descriptor, request, argument);
}

void* __wrap_mmap(void* address, size_t size, int protection, int flags, int descriptor, off_t offset)
{
    return failsWithError(MMAP) ? MAP_FAILED
                                : __real_mmap(address, size, protection, flags, descriptor, offset);
}

int __wrap_poll(pollfd* entries, nfds_t number, int timeout_ms)
{
    const bool scaled = t_role != OUTSIDE && timeout_ms > 0;
    return failsWithError(POLL)
               ? -1
               : __real_poll(entries, number, scaled ? 1 + timeout_ms / WAIT_DIVISOR : timeout_ms);
}

int __wrap_select(int count, fd_set* reads, fd_set* writes, fd_set* others, timeval* timeout)
{
    if (failsWithError(SELECT)) {
        return -1;
    }
    if (t_role != OUTSIDE && timeout != nullptr) {
        *timeout = {0, timeout->tv_usec / WAIT_DIVISOR};
    }
    return __real_select(count, reads, writes, others, timeout);
}

ssize_t __wrap_send(int sock, const void* data, size_t size, int flags)
{
    if (!fails(SEND)) {
        return __real_send(sock, data, size, flags);
    }
    switch (shared().kind.error) {
    case FaultKind::SHORT:
        return __real_send(sock, data, (size + 1) / 2, flags);
    case FaultKind::NOTHING:
        return 0;
    case FaultKind::THROWS:
        throw std::bad_alloc();
    default:
        errno = shared().kind.error;
        return -1;
    }
}

int __wrap_usleep(useconds_t time_us)
{
    return failsWithError(REST) ? -1 : __real_usleep(t_role != OUTSIDE ? time_us / WAIT_DIVISOR : time_us);
}

int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    const int result = __real_clock_gettime(clock, now);
    if (t_role == OUTSIDE) {
        return result;
    }
    static const std::int64_t begin_s = now->tv_sec;
    Shared& s = shared();
    if (fails(CLOCK)) {
        if (s.kind.error == FaultKind::STANDS) {
            *now = {static_cast<time_t>(begin_s), 0};
            return result;
        }
        s.jumped_s = 3600;
    }
    const std::int64_t elapsed_ns = (now->tv_sec - begin_s) * NS_PER_S + now->tv_nsec;
    *now = timespecOf((begin_s + s.jumped_s) * NS_PER_S + elapsed_ns * (s.stallExpected ? STALL_SPEED : 1));
    return result;
}

int __wrap_pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument)
{
    ++shared().starts;
    if (fails(THREAD)) {
        return shared().kind.error;
    }
    Start& start = g_starts[g_noStarts++ % 64];
    start = {function, argument};
    const int result = __real_pthread_create(handle, attributes, &runThread, &start);
    g_threadsUnjoined += result == 0 ? 1 : 0;
    return result;
}

int __wrap_pthread_join(pthread_t handle, void** result)
{
    --g_threadsUnjoined;
    return __real_pthread_join(handle, result);
}

int __wrap_pthread_setname_np(pthread_t thread, const char* name)
{
    return fails(NAME) ? shared().kind.error : __real_pthread_setname_np(thread, name);
}

// For the module, which registers its own.
bool atforkFails()
{
    return fails(ATFORK);
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    if (!fails(SLEEP)) {
        return __real_pthread_cond_wait(condition, mutex);
    }
    pthread_mutex_unlock(mutex);
    sched_yield();
    return pthread_mutex_lock(mutex);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec*)
{
    if (fails(LOOK)) {
        pthread_mutex_unlock(mutex);
        sched_yield();
        pthread_mutex_lock(mutex);
        return 0;
    }
    timespec soon;
    __real_clock_gettime(CLOCK_MONOTONIC, &soon);
    soon = timespecOf(soon.tv_sec * NS_PER_S + soon.tv_nsec + NS_PER_S / 1000);
    return __real_pthread_cond_timedwait(condition, mutex, &soon);
}

} // extern "C"

// The clock of the C++ library, by the name that it has for the linker.
typedef std::chrono::system_clock SystemClock;
SystemClock::time_point realSystemNow() noexcept __asm__("__real__ZNSt6chrono3_V212system_clock3nowEv");
SystemClock::time_point wrapSystemNow() noexcept __asm__("__wrap__ZNSt6chrono3_V212system_clock3nowEv");

SystemClock::time_point wrapSystemNow() noexcept
{
    const bool jumps = fails(SYSTEM_CLOCK);
    return realSystemNow() - std::chrono::hours(jumps ? 1 : 0);
}
