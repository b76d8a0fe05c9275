#include "StreamFixture.h"
#include "sonde_ld_data.h"
#include "torture/StandIn.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace
{

std::atomic<bool> g_sendThrows{false}; // once
std::atomic<bool> g_mayRest{true};
std::atomic<int> g_rests{0}; // of the server
std::atomic<bool> g_mayAccept{true};
std::atomic<bool> g_accepting{false};
std::atomic<int> g_acceptError{0};
std::atomic<int> g_acceptFaults{0};           // so many times
std::atomic<const void*> g_sleepsOn{nullptr}; // the condition on which the sender went to sleep last
std::atomic<const void*> g_jobCondition{nullptr};
std::atomic<bool> g_senderIsQuicker{false};
thread_local bool t_hasSignalled = false;

bool senderSleepsInGate()
{
    return g_sleepsOn != nullptr && g_sleepsOn != g_jobCondition;
}

} // namespace

STAND_IN(ssize_t, send, (int sock, const void* data, std::size_t size, int flags))
{
    if (g_sendThrows.exchange(false)) {
        throw std::bad_alloc();
    }
    return __real_send(sock, data, size, flags);
}

// No host waits for room here.
STAND_IN(int, usleep, (useconds_t time_us))
{
    ++g_rests;
    return waitFor([] { return g_mayRest.load(); }) ? 0 : __real_usleep(time_us);
}

STAND_IN(int, accept4, (int sock, sockaddr* address, socklen_t* length, int flags))
{
    g_accepting = true;
    waitFor([] { return g_mayAccept.load(); });
    g_accepting = false;
    if (g_acceptFaults > 0) {
        --g_acceptFaults;
        errno = g_acceptError;
        return -1;
    }
    return __real_accept4(sock, address, length, flags);
}

STAND_IN(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex))
{
    g_sleepsOn = condition;
    return __real_pthread_cond_wait(condition, mutex);
}

STAND_IN(int, pthread_cond_signal, (pthread_cond_t * condition))
{
    t_hasSignalled = condition == g_jobCondition && g_senderIsQuicker.exchange(false);
    return __real_pthread_cond_signal(condition);
}

// The host doesn't get beyond what it told the sender before the sender has acted on it.
STAND_IN(int, pthread_mutex_unlock, (pthread_mutex_t * mutex))
{
    const int result = __real_pthread_mutex_unlock(mutex);
    if (std::exchange(t_hasSignalled, false)) {
        waitFor(senderSleepsInGate);
    }
    return result;
}

namespace
{

template<std::size_t N>
std::string bytesOf(const char (&literal)[N])
{
    return std::string(literal, N - 1);
}

std::string descriptionBytes()
{
    const void* address = nullptr;
    sonde_size_t size = 0;
    sondeGet_LodestoneDiag(&address, &size);
    return std::string(static_cast<const char*>(address), size);
}

/// The lowest descriptor that is free, kept for a moment.
int takeDescriptor()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

/// From here on the process gets no descriptor above the lowest free one.
class OneDescriptorLeft
{
public:
    OneDescriptorLeft()
    {
        const int lowest = takeDescriptor();
        ::close(lowest);
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        const rlimit limit = {static_cast<rlim_t>(lowest) + 1, m_before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ~OneDescriptorLeft() { ::setrlimit(RLIMIT_NOFILE, &m_before); }
    OneDescriptorLeft(const OneDescriptorLeft&) = delete;
    OneDescriptorLeft& operator=(const OneDescriptorLeft&) = delete;

private:
    rlimit m_before = {};
};

} // namespace

/// What the random streams don't show: the bytes themselves, and what is rare in a stream's life.
class StreamingTest : public StreamFixture
{
protected:
    /// Delivers until the client has something to read, and reads one cycle.
    WireCycle nextCycle(StreamClient& client, const Frame& frame)
    {
        EXPECT_TRUE(waitFor([&] {
            if (!client.somethingWaits()) {
                deliver(frame);
            }
            return client.somethingWaits();
        }));
        return client.readCycle();
    }
};

// --- Byte for byte ---

TEST_F(StreamingTest, NormalCycleByteForByteAndTheNumbersWrap)
{
    openQueue("3,1,20:12,s:10,n");
    m_probe->setCycleCounter(0xFFFFFFFEU);
    auto client = connectClient();
    reachNormalData({{10, "x"}});
    deliver({{10, "AB"}, {12, "0123456789"}});
    const std::string profiling(24, '\0');
    const std::string expected = bytesOf("\0\0\0\0\376\377\377\377\4\0\0\0"
                                         "\12\0\0\0\1\0\0\0\2\0\0\0\0\0\0\0\2\0\0\0AB"
                                         "\14\0\0\0\3\0\0\0\12\0\0\0\0\0\0\0\3\0\0\0"
                                         "012"
                                         "\366\52\0\0\1\0\0\0\320\0\0\0\0\0\0\0\320\0\0\0"
                                         "\2\0\0\0\0\0\0\0"
                                         "\0\0\0\0\12\0\0\0\0\0\0\0\0\0\0\0") +
                                 profiling + std::string(4 * 40, '\0') +
                                 bytesOf("\367\52\0\0\1\0\0\0\0\1\0\0\0\0\0\0\0\1\0\0") + descriptionBytes();
    EXPECT_EQ(client->readCycle().bytes, expected);
    EXPECT_EQ(shown(client->readCycle()), "4294967295/0: 12.1=345");
    EXPECT_EQ(shown(client->readCycle()), "0/0: 12.2=6789");
}

TEST_F(StreamingTest, OnceCycleByteForByte)
{
    openQueue("2,3,20:300,o");
    m_probe->setCycleCounter(7);
    auto client = connectClient();
    deliver({{300, "\xA0\xA1\xA2\xA3\xA4"}});
    EXPECT_EQ(client->readCycle().bytes,
              bytesOf("\0\0\0\0\7\0\0\0\1\0\0\0"
                      "\x2C\1\0\0\1\0\0\0\5\0\0\0\xFD\xFF\xFF\xFF\5\0\0\0\xA0\xA1\xA2\xA3\xA4"));
}

TEST(Slices, PartThatDoesNotExistHasNone)
{
    Lodestone::StoredBuffer buffer;
    buffer.byteSize = 10;
    const std::pair<int, int> cases[] = {{3, 3}, {0, 0}, {-1, -2}};
    for (const auto& [noParts, partNo] : cases) {
        Lodestone::SendJob job(&buffer, noParts, partNo);
        job.partOffset = job.partByteSize = -7;
        Lodestone::QueueProbe::calcOffsetLength(job);
        EXPECT_TRUE(job.partOffset == -7 && job.partByteSize == -7) << noParts << ", " << partNo;
    }
}

TEST_F(StreamingTest, SixPackagesShareFiveSlots)
{
    openQueue("1,1,9:1,n:2,n:3,n:4,n:5,n:6,n");
    auto client = connectClient();
    reachNormalData({{1, "x"}});
    const int expected[][5] = {{1, 0, 0, 0, 0}, {1, 2, 0, 0, 0}, {1, 2, 3, 0, 0}, {1, 2, 3, 4, 0},
                               {1, 2, 3, 4, 5}, {1, 2, 3, 4, 6}, {1, 2, 3, 4, 5}};
    int channelID = 0;
    for (const auto& firstChannels : expected) {
        channelID = channelID == 6 ? 5 : channelID + 1;
        Lodestone::PerPackageDiag* const diag = deliver({{channelID, "x"}, {1, "y"}});
        EXPECT_EQ(diag, &m_probe->package(std::min(channelID, 5) - 1));
        const WireCycle cycle = client->readCycle();
        for (std::size_t slot = 0; slot < 5; ++slot) {
            EXPECT_EQ(cycle.diag(8 + 40 * slot + 4), static_cast<std::uint64_t>(firstChannels[slot]));
        }
    }
    EXPECT_EQ(m_probe->packagesKnown(), 4U);
}

// --- One client after another ---

TEST_F(StreamingTest, OnceDataAreCollectedAfreshForEveryClientThatComes)
{
    openQueue("1,1,9:300,o:301,o"); // and no other channels
    auto client = connectClient();
    deliver({{300, "old"}}); // half of the set, and the client goes
    for (int round = 0; round < 3; ++round) {
        client->close();
        client = connectClient();
        deliver({{301, "also old"}});
        EXPECT_TRUE(m_probe->storeEmpty());
        EXPECT_FALSE(client->somethingWaits());
        reachNormalData({{300, "a"}, {301, "b"}});
        EXPECT_EQ(shown(client->readCycle()), std::to_string(round) + "/0: 300.-1=a 301.-1=b");
        EXPECT_EQ(deliver({{300, "a"}}), nullptr);
    }
}

TEST_F(StreamingTest, InternalFailureIsToldAndTheSameClientGetsAFreshTransfer)
{
    const Frame frame = {{1, "once"}, {10, "xyz"}};
    openQueue("3,1,5:1,o:10,s");
    auto client = connectClient();
    reachNormalData(frame);
    EXPECT_TRUE(client->readCycle().isOnce());
    ::testing::internal::CaptureStdout();
    g_sendThrows = true;
    deliver(frame);
    EXPECT_TRUE(waitFor([&] { return !m_probe->senderRunning(); }));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Lodestone sender thread exception: std::bad_alloc\n");
    // What was queued comes first; the once data don't mix with it.
    EXPECT_EQ(shown(nextCycle(*client, frame)), "2/0: 10.1=y");
    EXPECT_EQ(shown(nextCycle(*client, frame)), "3/0: 10.2=z");
    EXPECT_EQ(shown(nextCycle(*client, frame)), "4/0: 1.-1=once");
}

TEST_F(StreamingTest, CycleInHandWhenAClientTakesOverIsForItIfItIsStillQueued)
{
    const std::pair<const char*, const char*> cases[] = {
        {"1,1,5:10,n:11,n", "next"}, {"1,1,-5:10,n:11,n", "in hand"}, {"1,1,5:10,o:11,o", "in hand"}};
    for (const auto& [config, payload] : cases) {
        SCOPED_TRACE(config);
        openQueue(config);
        const auto old = connectClient();
        deliver({{11, "x"}}); // moves the transfer on, or is half of the once data
        g_mayAccept = false;
        StreamClient young(m_port);
        EXPECT_TRUE(waitFor([] { return g_accepting.load(); }));
        g_sleepsOn = nullptr;
        g_jobCondition = m_probe->jobCondition();
        g_senderIsQuicker = true;
        deliver({{10, "in hand"}});
        EXPECT_TRUE(waitFor(senderSleepsInGate));
        g_mayAccept = true;
        EXPECT_TRUE(waitFor([&] { return m_probe->storeEmpty(); }));
        deliver({{10, "next"}});
        const WireCycle cycle = young.readCycle();
        ASSERT_NE(cycle.find(10), nullptr);
        EXPECT_EQ(cycle.find(10)->payload, payload);
    }
}

TEST_F(StreamingTest, ConnectionsThatBreakBeforeTheyAreAcceptedAreNoReasonToRest)
{
    openQueue("1,1,5:10,n");
    auto client = connectClient();
    for (const int error : {ECONNABORTED, EINTR, EPROTO, ENETUNREACH}) {
        const int rests = g_rests;
        g_acceptError = error;
        g_acceptFaults = 3;
        client = connectClient();
        EXPECT_EQ(g_rests, rests) << error;
    }
}

TEST_F(StreamingTest, NewcomerGetsTheOldClientsDescriptorIfNoOtherIsFree)
{
    const Frame frame = {{1, "once"}, {10, "x"}};
    for (const bool helps : {true, false}) {
        SCOPED_TRACE(helps);
        openQueue("1,1,5:1,o:10,n");
        const int low = takeDescriptor();
        auto old = connectClient();
        reachNormalData(frame);
        EXPECT_TRUE(old->readCycle().isOnce());
        const std::int64_t id = m_probe->connectedID();
        const int rests = g_rests;
        if (!helps) {
            ::close(low); // then the old client's one is above the limit
        }
        g_mayRest = helps;
        auto limit = std::make_unique<OneDescriptorLeft>();
        StreamClient young(m_port);
        EXPECT_TRUE(old->waitForEnd());
        EXPECT_TRUE(waitFor([&] { return helps || g_rests != rests; })) << "a server that burns a core";
        limit.reset();
        g_mayRest = true;
        EXPECT_TRUE(waitFor([&] { return m_probe->connectedID() == id + (helps ? 1 : 2); }));
        EXPECT_EQ(nextCycle(young, frame).isOnce(), !helps);
        EXPECT_EQ(g_rests - rests, helps ? 0 : 1);
        if (helps) {
            ::close(low);
        }
    }
}
