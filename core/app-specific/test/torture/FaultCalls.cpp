#include "FaultCalls.h"

#include "AllocationHook.h"
#include "Schedule.h"
#include "StandIn.h"

#include <atomic>
#include <cerrno>
#include <new>
#include <set>
#include <sys/mman.h>
#include <sys/socket.h>

extern "C" void* __real_mmap(void* address, size_t size, int protection, int flags, int descriptor,
                             off_t offset);

namespace
{

const int NARROW = 4096;

/// What this process and its children share.
struct Shared
{
    Fault fault;
    std::atomic<int> calls{0}; // of the kind
    std::atomic<int> hits{0};
    // In the call of the host that is under way, or the last one:
    bool hostHit = false;
    int hostCalls = 0; // of the kind
};

Shared& shared()
{
    static auto* const memory = static_cast<Shared*>(
        __real_mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return *memory;
}

bool g_stallExpected = false;

} // namespace

const std::vector<FaultKind>& faultKinds()
{
    typedef FaultKind K;
    static const auto& kinds =
        *new std::vector<K>{// lives until the last exit handler is through
                            {"allocation", "", ENOMEM, K::HURTS, {}},
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
                            {"send", "EINTR", EINTR, K::HURTS, {}},
                            {"send", "short", K::SHORT, K::HARMLESS, {}},
                            {"send", "nothing", K::NOTHING, K::HURTS, {}},
                            {"send", "throws", K::THROWS, K::HURTS, {}},
                            {"ioctl", "", EINVAL, K::HARMLESS, {"StalledClient", "FullQueue"}},
                            {"getsockopt", "", ENOPROTOOPT, K::HARMLESS, {"StalledClient", "FullQueue"}},
                            {"clock_gettime", "jumps", K::JUMP, K::HURTS, {}},
                            {"clock_gettime", "stands", K::STANDS, K::HURTS, {}},
                            {"usleep", "", EINTR, K::HARMLESS, {"HostThatWaits"}},
                            {"condition", "wakes", EINTR, K::HARMLESS, {}}}; // without a signal
    return kinds;
}

namespace FaultCalls
{

void arm(const Fault& fault)
{
    new (&shared()) Shared;
    shared().fault = fault;
    g_stallExpected = false;
    AllocationScope::setFilter([] { return fails("allocation") != 0; });
}

int fails(const char* call)
{
    Shared& s = shared();
    const std::string_view who = Schedule::inLibrary();
    if (who.empty() || s.fault.number == 0 || s.fault.kind->call != call) {
        return 0;
    }
    s.hostCalls += who == Schedule::HOST ? 1 : 0;
    const int late = ++s.calls - s.fault.number;
    if (late != 0 && (late < 0 || !s.fault.everAfter)) {
        return 0;
    }
    ++s.hits;
    s.hostHit = s.hostHit || who == Schedule::HOST;
    return errno = s.fault.kind->error;
}

void hostEnters()
{
    shared().hostHit = false;
    shared().hostCalls = 0;
}

// What fails on the host's thread fails its call. The library's threads keep their failures to themselves.
std::vector<std::string> expectedTexts()
{
    const std::string call = shared().hostHit ? shared().fault.kind->call : "none";
    if (call == "allocation") {
        return {"std::bad_alloc", "Out of memory"};
    }
    if (call == "mmap") {
        return {"std::bad_alloc"};
    }
    if (call == "pthread_create") {
        return {shared().hostCalls == 1 ? "Unable to create sender thread"
                                        : "Unable to create server thread (pthread_create)"};
    }
    return {};
}

void expectStall()
{
    g_stallExpected = true;
}

int hits()
{
    return shared().hits;
}

bool happened()
{
    const Fault& fault = shared().fault;
    const FaultKind::Effect effect = fault.kind->effect;
    return hits() != 0 && effect != FaultKind::HARMLESS && (effect == FaultKind::HURTS || fault.everAfter);
}

bool isOver()
{
    return !shared().fault.everAfter;
}

bool heals()
{
    static const std::set<std::string> calls = {"accept4", "clock_gettime", "poll", "select", "send"};
    return hits() != 0 && calls.count(shared().fault.kind->call) != 0;
}

} // namespace FaultCalls

// ---------------------------------------------------------------------------------------------------------------------
// The linker's names of the calls in which no threads meet. The others are in Schedule.cpp.

using FaultCalls::fails;
typedef void* Address;

// A stand-in that either fails with -1 and an errno, or calls the function itself.
#define FAILING(result, name, parameters, arguments)                                                         \
    STAND_IN(result, name, parameters)                                                                       \
    {                                                                                                        \
        return fails(#name) != 0 ? result(-1) : __real_##name arguments;                                     \
    }

FAILING(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAILING(int, setsockopt, (int sock, int level, int name, const void* value, socklen_t length),
        (sock, level, name, value, length))
FAILING(int, getsockopt, (int sock, int level, int name, void* value, socklen_t* length),
        (sock, level, name, value, length))
FAILING(int, bind, (int sock, const sockaddr* address, socklen_t length), (sock, address, length))
FAILING(Address, mmap, (void* address, size_t size, int protection, int flags, int descriptor, off_t offset),
        (address, size, protection, flags, descriptor, offset))
// These two take any arguments. The library gives them one word each.
FAILING(int, fcntl, (int descriptor, int command, long argument), (descriptor, command, argument))
FAILING(int, ioctl, (int descriptor, unsigned long request, void* argument), (descriptor, request, argument))

STAND_IN(int, listen, (int sock, int backlog))
{
    if (g_stallExpected) {
        __real_setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &NARROW,
                          sizeof NARROW); // its connections have it then
    }
    // A full backlog would make clients try again in a second of life.
    return fails("listen") != 0 ? -1 : __real_listen(sock, backlog + 16);
}
