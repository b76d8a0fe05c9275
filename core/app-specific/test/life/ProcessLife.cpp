// Hosts that end, fork, start other programs or lose a thread while the library is at work. Argument: the
// case.

#include "Child.h"

#include "../torture/StandIn.h"
#include "Lodestone.h"
#include "SondeBufferQueue.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>

// These processes end beside threads that still own something, and leave it to the kernel.
extern "C" const char* __asan_default_options()
{
    return "detect_leaks=0";
}

// Not a second for every process that ends.
extern "C" const char* __tsan_default_options()
{
    return "atexit_sleep_ms=0";
}

namespace
{

/// What a host's thread does in a call that waits for room.
enum class InCall
{
    WAITS,
    STAYS_FOR_THE_END, ///< Until the exit handlers wait for it.
    EXITS,             ///< As a signal handler might.
    FORKS              ///< The same.
};
std::atomic<InCall> g_inCall{InCall::WAITS};
std::atomic<int> g_rests{0};      // there
std::atomic<int> g_otherRests{0}; // of the exit handlers
std::atomic<bool> g_callHeld{false};
std::atomic<pid_t> g_forked{-1};
StreamClient* g_staller = nullptr; // it and the host's thread outlive the exit handlers
thread_local bool t_frameThread = false;

// Registered before anything of the library's, so it runs behind the library's own exit handlers.
__attribute__((constructor(101))) void watchTheEnd()
{
    std::atexit([] { REQUIRE(!g_callHeld); }); // they have left a call behind
}

} // namespace

STAND_IN(int, usleep, (useconds_t time_us))
{
    ++(t_frameThread ? g_rests : g_otherRests);
    InCall deed = t_frameThread ? g_inCall.exchange(InCall::WAITS) : InCall::WAITS;
    if (deed == InCall::STAYS_FOR_THE_END) {
        g_callHeld = true;
        waitFor([] { return g_otherRests >= 3; });
        g_callHeld = false;
    } else if (deed == InCall::EXITS) {
        std::exit(0);
    } else if (deed == InCall::FORKS) {
        g_forked = ::fork();
        ::alarm(g_forked == 0 ? 60 : 0);
    }
    return __real_usleep(time_us);
}

namespace
{

/// A port on which the library streams channel 10.
int startTap(const std::string& numbers)
{
    const int port = freePort();
    REQUIRE(Lodestone::Lodestone_Init(1, "0," + std::to_string(port) + "," + numbers + ":10,n") == 0);
    return port;
}

void apply(const std::string& bytes)
{
    AlgoMeasBuffer buffer = {};
    buffer.buffer = bytes.data();
    buffer.sizeTotal = static_cast<alif_uint32_t>(bytes.size());
    buffer.channelID = 10;
    REQUIRE(Lodestone::Lodestone_Apply(&buffer, 1, 0) == 0);
}

void expectStreamGoesOn(StreamClient& client, const std::string& text)
{
    REQUIRE(waitFor([&] {
        apply(text);
        if (!client.somethingWaits()) {
            return false;
        }
        const WireCycle cycle = client.readCycle();
        REQUIRE(cycle.complete);
        return cycle.find(10)->payload == text;
    }));
}

/// A thread of the host's that never stops calling, unless it is cancelled or in a child. It must not look at
/// anything that the exit handlers destroy.
template<typename Call>
std::thread& keepCalling(Call call)
{
    return *new std::thread([call] {
        t_frameThread = true;
        while (g_forked != 0) {
            call();
            ::pthread_testcancel();
        }
        std::exit(0);
    });
}

/// A host that waits for room which a client doesn't give.
std::thread& stallInTheWait()
{
    static const std::string& tooMuch = *new std::string(20000000, 'b');
    g_staller = new StreamClient(startTap("1,1,-1"), 16384);
    REQUIRE(g_staller->connected());
    std::thread& host = keepCalling([] { apply(tooMuch); });
    REQUIRE(waitFor([] { return g_rests >= 3; }));
    return host;
}

// --- Exit while another thread is in a call ---

void exitBesideCalls()
{
    static std::atomic<int> rounds{0};
    keepCalling([] {
        Lodestone::Lodestone_Init(1, "0," + std::to_string(freePort()) + ",1,1,5:10,n");
        apply("x");
        ++rounds;
    });
    REQUIRE(waitFor([] { return rounds > 3; }));
    std::exit(0);
}

void exitBesideAHeldCall()
{
    stallInTheWait();
    g_inCall = InCall::STAYS_FOR_THE_END;
    REQUIRE(waitFor([] { return g_callHeld.load(); }));
    std::exit(0);
}

void exitOutOfACall()
{
    stallInTheWait();
    g_inCall = InCall::EXITS;
    for (;;) {
        ::pause();
    }
}

void exits()
{
    for (const auto life : {exitBesideAHeldCall, exitOutOfACall, exitBesideCalls, exitBesideCalls}) {
        REQUIRE(Child(life).endsWell());
    }
}

// --- Fork ---

void (*const DEEDS[])() = {
    [] {},
    [] { apply("child"); },
    [] { REQUIRE(Lodestone::Lodestone_Init(0, "") == 0); },
#ifndef NO_THREADS_AFTER_FORK
    [] { // a stream of the child's own
        StreamClient client(startTap("1,1,5"));
        expectStreamGoesOn(client, "child");
        REQUIRE(Child([] { apply("grandchild"); }).endsWell());
        expectStreamGoesOn(client, "child again");
    },
#endif
};

void forks()
{
    StreamClient client(startTap("1,1,5"));
    expectStreamGoesOn(client, "before");
    for (const auto deed : DEEDS) {
        REQUIRE(Child(deed).endsWell());
        expectStreamGoesOn(client, "after");
    }

    int ends[2];
    REQUIRE(::pipe(ends) == 0);
    const Child child([&ends] {
        ::close(ends[1]);
        char byte = 0;
        REQUIRE(::read(ends[0], &byte, 1) == 0);
    });
    Lodestone::Lodestone_Init(0, "");
    REQUIRE(client.waitForEnd()); // whatever the child has inherited
    ::close(ends[1]);
    REQUIRE(child.endsWell());

    Lodestone::ConfigStringParser parser;
    parser.parseString("0," + std::to_string(freePort()) + ",1,1,5:10,n");
    auto queue = std::make_unique<Lodestone::SondeBufferQueue>(parser.getConfig());
    REQUIRE(Child([&queue] { queue.reset(); }).endsWell());

    stallInTheWait();
    for (const auto deed : DEEDS) {
        REQUIRE(Child(deed).endsWell()); // its parent is in a call
    }
    g_inCall = InCall::FORKS;
    REQUIRE(waitFor([] { return g_forked > 0; }));
    int status = -1;
    REQUIRE(::waitpid(g_forked, &status, 0) == g_forked && status == 0);
}

// A thread that is cancelled comes out of its call first.
void cancel()
{
    std::thread& host = stallInTheWait();
    REQUIRE(::pthread_cancel(host.native_handle()) == 0);
    REQUIRE(waitFor([rests = g_rests.load()] { return g_rests > rests + 3; }));
    g_staller->vanish();
    host.join();
    StreamClient client(startTap("1,1,5"));
    expectStreamGoesOn(client, "after");
}

int inheritedSockets()
{
    FILE* const listing = ::popen("ls -l /proc/self/fd", "r");
    REQUIRE(listing != nullptr);
    int sockets = 0;
    char line[512];
    while (std::fgets(line, sizeof line, listing) != nullptr) {
        sockets += std::strstr(line, "socket:") != nullptr ? 1 : 0;
    }
    REQUIRE(::pclose(listing) == 0);
    return sockets;
}

void exec()
{
    const int before = inheritedSockets(); // of whoever has started this test
    StreamClient client(startTap("1,1,5"));
    expectStreamGoesOn(client, "x");
    REQUIRE(inheritedSockets() == before);
}

} // namespace

int main(int argc, char** argv)
{
    const std::pair<const char*, void (*)()> cases[] = {
        {"Exit", exits}, {"Fork", forks}, {"Exec", exec}, {"Cancel", cancel}};
    for (const auto& [name, live] : cases) {
        if (argc == 2 && std::strcmp(argv[1], name) == 0) {
            live();
            return 0;
        }
    }
    std::fprintf(stderr, "no such case\n");
    return 2;
}
