#include "Scenario.h"

#include "life/Child.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

const int NARROW = 16384;
const int STALLED = 4000; // more bytes than small cycles can have left unread

void repeat(ScenarioRun& run, int number, const std::vector<int>& channels)
{
    for (int k = 0; k < number; ++k) {
        run.apply(channels);
    }
}

void initAndInitAgain(ScenarioRun& run)
{
    run.init("1,1,5:00000000000000000010,n:10,q", "Channel ID 10 already registered");
    run.apply({10});
    run.init("1,1,5:1,o:10,n");
    const bool streams = run.connect(1) && run.readCycles(1, 3, {{1, 10}});
    run.init("1,1,0:10,n", "Invalid queue length (0).");
    run.apply({10});
    if (streams && run.readCycles(1, 1, {{1, 10}})) {
        run.init("2,1,5:2,o:20,s");
        run.readToEnd(1);
        run.connect(2) && run.readChannel(2, 20, {{2, 20}});
    }
    run.disable();
    run.apply({2, 20});
}

void constantStore(ScenarioRun& run)
{
    run.init("1,1,5:3,o:4,o:10,n:40,n");
    run.apply({3, 4}, true);
    const bool streams = run.connect(1) && run.readCycles(1, 3, {{10}});
    run.apply({3, 4, 40}, true);
    if (streams) {
        run.stream(1).close();
        run.connect(2) && run.readCycles(2, 2, {{10}});
    }
    const bool again = run.init("1,1,5:3,o:4,o:10,n:40,n"); // else it takes over in the old stream
    run.apply({3, 4}, true);
    run.connect(3, again ? ScenarioRun::ONCE : ScenarioRun::ANYWHERE) && run.readCycles(3, 2, {{10}});
}

void onceCollection(ScenarioRun& run)
{
    run.init("1,4,5:1,o:2,o:5,o:10,n");
    run.connect(1) && run.readCycles(1, 3, {{1, 2, 10}, {2, 10, 1}, {5, 10}});
}

void whole(ScenarioRun& run)
{
    run.init("1,1,5:1,o:10,n:11,n:12,n");
    run.connect(1) && run.readCycles(1, 4, {{1, 10, 11}, {12, 10}}) && run.readChannel(1, 12, {{12, 11}});
}

void split(ScenarioRun& run)
{
    run.init("3,1,5:1,o:10,n:20,s:22,s");
    run.connect(1) && run.readChannel(1, 20, {{1, 20}, {10}}) && run.readChannel(1, 22, {{22, 10}, {20}});
}

void intermittent(ScenarioRun& run)
{
    run.init("2,3,5:1,o:10,n:30,i");
    run.connect(1) && run.readChannel(1, 30, {{1, 10, 30}}) && run.readChannel(1, 30, {{30}, {10, 30}});
}

void hostThatWaits(ScenarioRun& run)
{
    run.init("2,1,-1:1,o:10,n:20,s");
    if (run.connect(1) && run.readCycles(1, 2, {{1, 10}})) {
        repeat(run, 6, {10, 20});
        run.readCycles(1, 6, {{10, 20}});
    }
}

void takeover(ScenarioRun& run)
{
    run.init("3,1,5:1,o:10,n:20,s");
    if (run.connect(1) && run.readCycles(1, 2, {{1, 10}})) {
        repeat(run, 3, {10, 20});
        run.connect(2, ScenarioRun::AMID);
        repeat(run, 3, {1, 10, 20});
        run.readToEnd(1) && run.readChannel(2, 20, {{1, 10, 20}});
    }
}

void quickReconnect(ScenarioRun& run)
{
    run.init("2,1,5:1,o:10,n:20,s");
    if (run.connect(1) && run.readCycles(1, 2, {{1, 10}})) {
        run.apply({10, 20});
        run.stream(1).close();
        if (run.connect(2) && run.readCycles(2, 2, {{1, 10, 20}})) {
            run.stream(2).vanish();
            run.apply({10});
            run.connect(3) && run.readCycles(3, 2, {{1, 10, 20}});
        }
    }
}

void stalledClient(ScenarioRun& run)
{
    // Or the next one takes over.
    const auto beginning = run.expectStall() ? ScenarioRun::ONCE : ScenarioRun::ANYWHERE;
    run.init("1,1,2:1,o:10,n:12,n");
    if (run.connect(1, ScenarioRun::ONCE, NARROW) && run.readCycles(1, 2, {{1, 10}})) {
        repeat(run, 3, {10, 12});
        run.await(1, STALLED) && run.connect(2, beginning) && run.readCycles(2, 2, {{1, 10}});
    }
}

void portInUse(ScenarioRun& run)
{
    const int holder = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int enabled = 1;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(run.port()));
    ::setsockopt(holder, SOL_SOCKET, SO_REUSEADDR, &enabled, sizeof enabled);
    ASSERT_EQ(::bind(holder, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(holder, 1), 0);
    run.init("1,1,-1:10,n");
    repeat(run, 3, {10}); // no wait for room, though nothing drains the queue
    run.disable();
    ::close(holder);
    run.init("1,1,5:1,o:10,n");
    run.connect(1) && run.readCycles(1, 2, {{1, 10}});
}

void fullQueue(ScenarioRun& run)
{
    run.expectStall();
    run.init("3,1,5:1,o:10,n:12,n:20,s");
    if (run.connect(1, ScenarioRun::ONCE, NARROW) && run.readCycles(1, 2, {{1, 10}})) {
        repeat(run, 8, {10, 12, 20});
        run.await(1, STALLED); // so the stop surely finds a cycle under way
    }
    run.disable();
}

void processExit(ScenarioRun& run)
{
    run.inChild([](ScenarioRun& child) {
        child.init("3,1,5:1,o:10,n:20,s");
        child.connect(1) && child.readCycles(1, 2, {{1, 10}});
        repeat(child, 3, {10, 20});
    });
}

void fork(ScenarioRun& run)
{
    run.init("1,1,5:1,o:10,n");
    const bool streams = run.connect(1) && run.readCycles(1, 2, {{1, 10}});
    run.inChild([](ScenarioRun& child) {
        child.apply({1, 10});
        child.disable();
    });
    streams&& run.readCycles(1, 2, {{10}});
}

template<typename Function>
void find(void* library, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(::dlsym(library, name));
}

// The module is the library once more, loaded by this program.
void unload(ScenarioRun& run)
{
    void* library = nullptr;
    run.inLibrary([&] { library = ::dlopen(LODESTONE_MODULE, RTLD_NOW); });
    ASSERT_NE(library, nullptr) << ::dlerror();
    HostApi api = {};
    find(library, "CLodestone_Lodestone_Init", api.init);
    find(library, "CLodestone_Lodestone_Apply", api.apply);
    find(library, "CLodestone_GetLastErrorString", api.lastError);
    run.use(api);
    run.init("3,1,5:1,o:10,n:20,s");
    const bool streams = run.connect(1) && run.readCycles(1, 2, {{1, 10}});
    repeat(run, 3, {10, 20});
    run.use(HostApi::ofThisProgram());
    run.inLibrary([&] { ::dlclose(library); });
    EXPECT_EQ(::dlopen(LODESTONE_MODULE, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library is still there";
    streams&& run.readToEnd(1);
    run.inChild([](ScenarioRun&) {}); // nothing of the library is left that a fork would call
}

} // namespace

const std::vector<Scenario>& scenarios()
{
    static const std::vector<Scenario> all = {{"InitAndInitAgain", initAndInitAgain},
                                              {"ConstantStore", constantStore},
                                              {"OnceCollection", onceCollection},
                                              {"Whole", whole},
                                              {"Split", split},
                                              {"Intermittent", intermittent},
                                              {"HostThatWaits", hostThatWaits},
                                              {"Takeover", takeover},
                                              {"QuickReconnect", quickReconnect},
                                              {"StalledClient", stalledClient},
                                              {"PortInUse", portInUse},
                                              {"FullQueue", fullQueue},
                                              {"ProcessExit", processExit},
                                              {"Fork", fork},
                                              {"Unload", unload}};
    return all;
}
