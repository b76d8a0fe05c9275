// Hosts that end, fork or start other programs while the library is at work. Argument: the case.

#include "Child.h"

#include "LibraryCalls.h"
#include "Lodestone.h"
#include "SondeBufferQueue.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <utility>

using namespace LibraryCalls;

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

thread_local bool t_frameThread = false;
std::atomic<bool> g_callHeld{false};

// Registered before anything of the library's, so it runs behind the library's own exit handlers.
__attribute__((constructor(101))) void watchTheEnd()
{
    std::atexit([] { REQUIRE(!g_callHeld); }); // they have left a call behind
}

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

const int NARROW = 16384;

/// More than a client with NARROW buffers takes without reading.
const std::string& big()
{
    static const std::string& bytes = *new std::string(1000000, 'b'); // outlives the exit handlers
    return bytes;
}

void narrowConnection()
{
    REQUIRE(waitFor([] { return g_connection >= 0; }));
    ::setsockopt(g_connection, SOL_SOCKET, SO_SNDBUF, &NARROW, sizeof NARROW);
}

/// A thread of the host's that never stops calling. It must not look at anything that the exit handlers
/// destroy.
template<typename Call>
void keepCalling(Call call)
{
    std::thread([call] {
        t_frameThread = true;
        for (;;) {
            call();
        }
    }).detach();
}

// --- Exit while another thread is in a call ---

void exitBesideFrames()
{
    const StreamClient client(startTap("1,1,5"));
    keepCalling([] { apply("x"); });
    REQUIRE(waitFor([] { return count(SEND, SENDER) > 0; }));
    std::exit(0);
}

void exitBesideInit()
{
    keepCalling([] { Lodestone::Lodestone_Init(1, "0," + std::to_string(freePort()) + ",1,1,5:10,n"); });
    REQUIRE(waitFor([] { return count(CREATE, HOST) > 3; }));
    std::exit(0);
}

/// A host that waits for room which a stalled client doesn't give.
void stallInTheWait()
{
    stopClock(true); // the gate's two seconds pass with its looks
    static const StreamClient& client = *new StreamClient(startTap("1,1,-1"), NARROW);
    REQUIRE(client.connected());
    narrowConnection();
    keepCalling([] { apply(big()); });
    REQUIRE(waitFor([] { return count(REST, HOST) >= 3; }));
}

void exitBesideTheWait()
{
    stallInTheWait();
    std::exit(0);
}

void exitOutOfTheWait()
{
    g_atRest = [] { // as a signal handler might
        static bool exits = false;
        if (!std::exchange(exits, true)) { // the exit rests itself
            std::exit(0);
        }
    };
    stallInTheWait();
    for (;;) {
        ::pause();
    }
}

void exitBesideAHeldCall()
{
    const StreamClient client(startTap("1,1,5"));
    Hold inCall(SIGNAL, HOST, [](const void*) { return t_frameThread; });
    keepCalling([] { apply("x"); });
    REQUIRE(inCall.awaitHeld());
    g_callHeld = true;
    const Calls rests(REST, HOST);
    std::thread([&] {
        rests.await(3); // the exit handlers wait
        g_callHeld = false;
        inCall.release();
    }).detach();
    std::exit(0);
}

void exitInApply()
{
    void (*const lives[])() = {exitBesideFrames, exitBesideInit, exitBesideTheWait, exitOutOfTheWait,
                               exitBesideAHeldCall};
    for (int round = 0; round < 20; ++round) {
        REQUIRE(Child(lives[round % 5]).endsWell());
    }
}

// --- Fork and exec ---

struct Deed
{
    const char* what;
    void (*live)();
};
const Deed DEEDS[] = {
    {"exit", [] {}},
    {"Lodestone_Apply", [] { apply("child"); }},
    {"Lodestone_Init(0)", [] { REQUIRE(Lodestone::Lodestone_Init(0, "") == 0); }},
#ifndef NO_THREADS_AFTER_FORK
    {"a stream of the child's own",
     [] {
         StreamClient client(startTap("1,1,5"));
         expectStreamGoesOn(client, "child");
         REQUIRE(Child([] { apply("grandchild"); }).endsWell());
         expectStreamGoesOn(client, "child again");
     }},
#endif
};

void forks()
{
    StreamClient client(startTap("1,1,5"));
    expectStreamGoesOn(client, "before");
    for (const Deed& deed : DEEDS) {
        REQUIRE(Child(deed.live).endsWell());
        expectStreamGoesOn(client, deed.what);
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
}

void forksBesideACall()
{
    StreamClient client(startTap("1,1,5"));
    expectStreamGoesOn(client, "before");
    Hold inCall(SIGNAL, HOST); // holds two of the queue's mutexes
    const Calls signals(SIGNAL, HOST);
    std::thread frame([&] {
        while (signals.sinceThen() == 0) {
            apply("held");
        }
    });
    REQUIRE(inCall.awaitHeld());
    for (const Deed& deed : DEEDS) {
        std::fprintf(stderr, "%s\n", deed.what);
        REQUIRE(Child(deed.live).endsWell());
    }
    inCall.release();
    frame.join();
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
    const Deed cases[] = {
        {"ExitInApply", exitInApply}, {"Fork", forks}, {"ForkBesideACall", forksBesideACall}, {"Exec", exec}};
    for (const Deed& c : cases) {
        if (argc == 2 && std::strcmp(argv[1], c.what) == 0) {
            c.live();
            return 0;
        }
    }
    std::fprintf(stderr, "no such case\n");
    return 2;
}
