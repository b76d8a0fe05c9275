#include "Scenario.h"

#include "TCPSocket.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const int NARROW = 16384;
const int STALLED = 4000;    // more bytes than small cycles can have left unread
const int A_WHILE_US = 1000; // on the clock of the run: until nobody can go on

void repeat(ScenarioRun& run, int number, const std::vector<int>& channels)
{
    for (int k = 0; k < number; ++k) {
        run.apply(channels);
    }
}

/// Whether the sender is in the middle of a big cycle, which the client doesn't read.
bool stalls(ScenarioRun& run, int client)
{
    ::usleep(A_WHILE_US);
    char bytes[STALLED];
    const ssize_t waiting =
        ::recv(run.stream(client).descriptor(), bytes, sizeof bytes, MSG_PEEK | MSG_DONTWAIT);
    return waiting == STALLED || run.missing(client, "has nothing to stall on");
}

const std::vector<Scenario> ALL = {
    {"InitAndInitAgain",
     [](ScenarioRun& run) {
         run.init("1,1,5:00000000000000000010,n:10,q", "Channel ID 10 already registered");
         run.apply({10});
         run.init("1,1,5:1,o:10,n");
         const bool streams = run.connect(1) && run.read(1, 10, 2, {{1, 10}});
         run.init("1,1,0:10,n", "Invalid queue length (0).");
         run.apply({10});
         if (streams && run.read(1, 10, 1, {{1, 10}})) {
             run.init("2,1,5:2,o:20,s");
             run.readToEnd(1);
             run.connect(2) && run.read(2, 20, 1, {{2, 20}});
         }
         run.disable();
         run.apply({2, 20});
     }},
    {"ConstantStore",
     [](ScenarioRun& run) {
         run.init("1,1,5:3,o:4,o:10,n:40,n");
         run.apply({3, 4}, true);
         const bool streams = run.connect(1) && run.read(1, 10, 2, {{10}});
         run.apply({3, 4, 40}, true);
         if (streams) {
             run.stream(1).close();
             run.connect(2) && run.read(2, 10, 1, {{10}});
         }
         const bool again = run.init("1,1,5:3,o:4,o:10,n:40,n"); // else it takes over in the old stream
         run.apply({3, 4}, true);
         run.connect(3, again ? ScenarioRun::ONCE : ScenarioRun::ANYWHERE) && run.read(3, 10, 1, {{10}});
     }},
    {"OnceCollection",
     [](ScenarioRun& run) {
         run.init("1,4,5:1,o:2,o:5,o:10,n");
         run.connect(1) && run.read(1, 10, 2, {{1, 2, 10}, {2, 10, 1}, {5, 10}});
     }},
    {"Whole",
     [](ScenarioRun& run) {
         run.init("1,1,5:1,o:10,n:11,n:12,n");
         run.connect(1) && run.read(1, 10, 3, {{1, 10, 11}, {12, 10}}) && run.read(1, 12, 1, {{12, 11}});
     }},
    {"Split",
     [](ScenarioRun& run) {
         run.init("3,1,5:1,o:10,n:20,s:22,s");
         run.connect(1) && run.read(1, 20, 1, {{1, 20}, {10}}) && run.read(1, 22, 1, {{22, 10}, {20}});
     }},
    {"Intermittent",
     [](ScenarioRun& run) {
         run.init("2,3,5:1,o:10,n:30,i");
         run.connect(1) && run.read(1, 30, 1, {{1, 10, 30}}) && run.read(1, 30, 1, {{30}, {10, 30}});
     }},
    {"HostThatWaits",
     [](ScenarioRun& run) {
         run.init("2,1,-1:1,o:10,n:20,s");
         if (run.connect(1) && run.read(1, 10, 1, {{1, 10}})) {
             repeat(run, 6, {10, 20});
             run.read(1, 10, 6, {{10, 20}});
         }
     }},
    {"Takeover",
     [](ScenarioRun& run) {
         run.init("3,1,5:1,o:10,n:20,s");
         if (run.connect(1) && run.read(1, 10, 1, {{1, 10}})) {
             repeat(run, 3, {10, 20});
             run.connect(2, ScenarioRun::AMID);
             repeat(run, 3, {1, 10, 20});
             run.readToEnd(1) && run.read(2, 20, 1, {{1, 10, 20}});
         }
     }},
    {"QuickReconnect",
     [](ScenarioRun& run) {
         run.init("2,1,5:1,o:10,n:20,s");
         if (run.connect(1) && run.read(1, 10, 1, {{1, 10}})) {
             run.apply({10, 20});
             run.stream(1).close();
             if (run.connect(2) && run.read(2, 10, 1, {{1, 10, 20}})) {
                 run.stream(2).vanish();
                 run.apply({10});
                 run.connect(3) && run.read(3, 10, 1, {{1, 10, 20}});
             }
         }
     }},
    {"StalledClient",
     [](ScenarioRun& run) {
         FaultCalls::expectStall();
         run.init("1,1,2:1,o:10,n:12,n");
         if (run.connect(1, ScenarioRun::ONCE, NARROW) && run.read(1, 10, 1, {{1, 10}})) {
             repeat(run, 3, {10, 12});
             stalls(run, 1) && run.connect(2) && run.read(2, 10, 1, {{1, 10}});
         }
     }},
    {"PortInUse",
     [](ScenarioRun& run) {
         auto holder = std::make_unique<Lodestone::TCPServerSocket>(run.port());
         run.init("1,1,-1:10,n");
         repeat(run, 3, {10}); // no wait for room, though nothing drains the queue
         run.disable();
         holder.reset();
         run.init("1,1,5:1,o:10,n");
         run.connect(1) && run.read(1, 10, 1, {{1, 10}});
     }},
    {"FullQueue",
     [](ScenarioRun& run) {
         FaultCalls::expectStall();
         run.init("3,1,5:1,o:10,n:12,n:20,s");
         if (run.connect(1, ScenarioRun::ONCE, NARROW) && run.read(1, 10, 1, {{1, 10}})) {
             repeat(run, 8, {10, 12, 20});
             stalls(run, 1); // so the stop surely finds a cycle under way
         }
         run.disable();
     }},
    {"ProcessExit",
     [](ScenarioRun& run) {
         run.inChild([](ScenarioRun& child) {
             child.init("3,1,5:1,o:10,n:20,s");
             child.connect(1) && child.read(1, 10, 1, {{1, 10}});
             repeat(child, 3, {10, 20});
         });
     }},
    {"Fork",
     [](ScenarioRun& run) {
         run.init("1,1,5:1,o:10,n");
         const bool streams = run.connect(1) && run.read(1, 10, 1, {{1, 10}});
         run.inChild([](ScenarioRun& child) {
             child.apply({1, 10});
             child.disable();
         });
         streams&& run.read(1, 10, 1, {{10}});
     }},
    // The module is the library once more, loaded by this program.
    {"Unload",
     [](ScenarioRun& run) {
         void* library = nullptr;
         run.inLibrary([&] { library = ::dlopen(LODESTONE_MODULE, RTLD_NOW); });
         ASSERT_NE(library, nullptr) << ::dlerror();
         HostApi api;
         api.init = reinterpret_cast<decltype(api.init)>(::dlsym(library, "CLodestone_Lodestone_Init"));
         api.apply = reinterpret_cast<decltype(api.apply)>(::dlsym(library, "CLodestone_Lodestone_Apply"));
         api.lastError =
             reinterpret_cast<decltype(api.lastError)>(::dlsym(library, "CLodestone_GetLastErrorString"));
         run.use(api);
         run.init("3,1,5:1,o:10,n:20,s");
         const bool streams = run.connect(1) && run.read(1, 10, 1, {{1, 10}});
         repeat(run, 3, {10, 20});
         run.use(HostApi());
         run.inLibrary([&] { ::dlclose(library); });
         EXPECT_EQ(::dlopen(LODESTONE_MODULE, RTLD_NOW | RTLD_NOLOAD), nullptr)
             << "the library is still there";
         streams&& run.readToEnd(1);
         run.inChild([](ScenarioRun&) {}); // nothing of the library is left that a fork would call
     }},
};

} // namespace

const std::vector<Scenario>& scenarios()
{
    return ALL;
}
