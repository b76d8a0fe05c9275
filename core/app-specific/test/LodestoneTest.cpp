#include "Lodestone.h"

#include "support/AllocationHook.h"
#include "support/HostFixture.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <pthread.h>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

using namespace Lodestone;

namespace
{

class LodestoneTest : public HostFixture
{
protected:
    /// What the store holds for the once channels, from the ONCE cycle of a new client.
    std::map<int, std::string> storedBuffers()
    {
        m_client.reset(); // a client that takes over from another one gets no once data
        m_client = std::make_unique<StreamClient>(m_port);
        const WireCycle cycle = deliverAndRead(*m_client, {});
        EXPECT_TRUE(cycle.complete && cycle.isOnce());
        std::map<int, std::string> result;
        for (const WireEntry& entry : cycle.entries) {
            EXPECT_EQ(entry.payload.size(), static_cast<std::size_t>(entry.totalSize));
            result[entry.channelID] = entry.payload;
        }
        return result;
    }

    std::unique_ptr<StreamClient> m_client;
};

TEST_F(LodestoneTest, MisuseIsRefusedInWordsThatALaterSuccessKeeps)
{
    const struct
    {
        int (*call)();
        const char* text;
    } cases[] = {
        {[] { return Lodestone_QueryVersion(nullptr); }, "Version struct was a NULL pointer."},
        {[] { return Lodestone_Apply(nullptr, 1, 0); }, "Measurement buffer array was a NULL pointer."},
        {[] { return CLodestone_Lodestone_QueryVersion(nullptr); }, "Version struct was a NULL pointer."},
        {[] { return CLodestone_Lodestone_Init(1, nullptr); }, "Command string was a NULL pointer."},
        {[] { return CLodestone_Lodestone_Apply(nullptr, 0xFFFFFFFF, 1); },
         "Measurement buffer array was a NULL pointer."},
    };
    const std::string& text = GetLastErrorString();
    for (const auto& c : cases) {
        EXPECT_EQ(1, c.call());
        EXPECT_EQ(c.text, text) << "the reference stays valid";

        deliver({{1, "frame"}});
        EXPECT_EQ(0, Lodestone_Apply(nullptr, 0, 1));
        EXPECT_EQ(c.text, text);
    }
}

TEST_F(LodestoneTest, ErrorTextIsCopiedWholeOrNotAtAll)
{
    EXPECT_EQ(1, Lodestone_Init(1, ""));
    const std::string text = "Command string with no content";
    const auto length = static_cast<alif_uint32_t>(text.size());
    for (const alif_uint32_t size : {1U, length, length + 1, length + 2}) {
        const bool fits = size > length;
        std::string buffer(length + 2, '?');
        EXPECT_EQ(fits ? 0 : 1,
                  CLodestone_GetLastErrorString(reinterpret_cast<alif_int8_t*>(&buffer[0]), size));
        const std::string expected = (fits ? text : "") + '\0';
        EXPECT_EQ(expected + std::string(buffer.size() - expected.size(), '?'), buffer) << size;
    }
    alif_int8_t byte = '?';
    EXPECT_EQ(1, CLodestone_GetLastErrorString(&byte, 0));
    EXPECT_EQ('?', byte);
    EXPECT_EQ(1, CLodestone_GetLastErrorString(nullptr, 100));
    EXPECT_EQ(text, GetLastErrorString());
}

TEST_F(LodestoneTest, StoreOutlivesQueuesAndHoldsTheNewestBufferOfEachChannel)
{
    typedef std::map<int, std::string> Stored;
    std::string host = "early";
    deliver({{103, host}, {101, "A"}, {102, "a"}, {102, "b"}, {199, "unwanted"}}, true);
    host.assign("later"); // the host's bytes were copied
    const std::size_t blocks = AllocationScope::liveBlocks();
    deliver({{199, "still unwanted"}}, true);
    EXPECT_EQ(blocks, AllocationScope::liveBlocks()) << "what was replaced is freed";
    start("1,3,20:101,o:102,o:103,o");
    EXPECT_EQ(Stored({{101, "A"}, {102, "b"}, {103, "early"}}), storedBuffers());

    std::vector<AlgoMeasBuffer> array = arrayOf({{103, "eight"}, {102, ""}});
    array[0].buffer = nullptr; // counts as empty
    EXPECT_EQ(0, Lodestone_Apply(array.data(), 2, -1));
    deliver({{101, "a frame is not stored"}});
    start("1,3,20:101,o:102,o:103,o");
    EXPECT_EQ(Stored({{101, "A"}, {102, ""}, {103, ""}}), storedBuffers());
}

TEST_F(LodestoneTest, ReasonWithoutMemoryForItsWordsIsToldInShortOnes)
{
    const std::string item(500, 'x'); // a longer text than any before
    const std::string refused = config("1,1,20:" + item);
    std::set<std::string> reasons;
    bool failed = true;
    for (std::size_t n = 1; failed; ++n) {
        ASSERT_LT(n, 200U);
        {
            const AllocationScope scope(n);
            EXPECT_EQ(1, Lodestone_Init(1, refused));
            failed = scope.failed();
        }
        reasons.insert(GetLastErrorString());
    }
    EXPECT_EQ(
        std::set<std::string>({"Invalid channel config item: " + item, "Out of memory", "std::bad_alloc"}),
        reasons);
}

TEST_F(LodestoneTest, FailureOfTheServerEndsTheConnectionAndNothingElse)
{
    start("1,1,-1:10,n");
    StreamClient client(m_port);
    EXPECT_TRUE(deliverAndRead(client, {{10, "x"}}).complete);
    AllocationScope::setFilter([] {
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof name);
        return std::strcmp(name, "lodestone-srv") == 0;
    });
    const StreamClient young(m_port);
    EXPECT_TRUE(client.waitForEnd());
    AllocationScope::setFilter(nullptr);
    deliver({{10, "x"}});
    deliver({{10, "x"}}); // without a wait for room
}

TEST_F(LodestoneTest, ThreadsHaveNamesAndLeaveTheSignalsToTheHost)
{
    sigset_t before;
    sigset_t signals;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    start("1,1,5:10,n");
    pthread_sigmask(SIG_SETMASK, nullptr, &signals);
    for (int signal = 1; signal < SIGRTMAX; ++signal) {
        EXPECT_EQ(sigismember(&signals, signal), sigismember(&before, signal)) << signal;
    }
    EXPECT_TRUE(waitFor([] {
        std::set<std::string> names;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::string name;
            std::getline(std::ifstream(task.path() / "comm"), name);
            names.insert(name);
        }
        return names.count("lodestone-send") == 1 && names.count("lodestone-srv") == 1;
    }));

    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::kill(::getpid(), SIGUSR1); // the end of the process, if another thread takes it
    int taken = 0;
    EXPECT_EQ(sigwait(&signals, &taken), 0);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace
