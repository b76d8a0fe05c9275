#include "Lodestone.h"
#include "support/LibraryCalls.h"
#include "support/StreamFixture.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <thread>

using namespace LibraryCalls;

namespace
{

enum
{
    INITIATE = 0,
    ONCE_DATA = 1,
    NORMAL_DATA = 2
};

const int NARROW = 16384;
const std::string BIG(1000000, 'b');
const int LOOKS_TO_STALL = Lodestone::CycleGate::STALL_LIMIT_MS / Lodestone::CycleGate::LOOK_INTERVAL_MS;

/// A call of the host's on another thread, since the test sees to it that it can't end yet.
class HostCall
{
public:
    template<typename Operation>
    explicit HostCall(Operation operation)
        : m_thread([this, operation] {
              operation();
              m_done = true;
          })
    {}
    ~HostCall() { m_thread.join(); }

    bool done() const { return m_done; }
    bool await() const
    {
        return waitFor([this] { return done(); });
    }

private:
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

/// Whether the kernel has told the library's end of the newest connection that the client is gone.
bool clientSeenGone()
{
    pollfd entry = {g_connection, POLLRDHUP, 0};
    return ::poll(&entry, 1, 0) > 0 && (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

} // namespace

/// Interleavings of the three threads that are rare in life, each one forced: a thread is held at a call
/// while the others go on.
class InterleavingTest : public StreamFixture
{
protected:
    void TearDown() override
    {
        m_queue.reset();
        stopClock(false);
        EXPECT_EQ(g_threads, 0) << "library threads that nobody has joined";
        EXPECT_FALSE(g_signalsOpen);
        EXPECT_EQ(g_earlyWakes, 0) << "a wait that burns a core";
    }

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

    void awaitStoreEmpty()
    {
        EXPECT_TRUE(waitFor([this] { return m_probe->storeEmpty(); }));
    }

    /// Opens the queue and connects a client that has normal data and an idle sender. With `room` for so many
    /// bytes on either end a big cycle gets stuck soon.
    std::unique_ptr<StreamClient> openStream(const std::string& config, const Frame& frame, int room = 0)
    {
        openQueue(config);
        auto client = connectClient(room);
        if (room != 0) {
            ::setsockopt(g_connection, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        }
        reachNormalData(frame);
        awaitStoreEmpty();
        return client;
    }

    /// Whether a new buffer of channel 10 still gets through to the client, whatever comes before it.
    void expectStreamGoesOn(StreamClient& client, const Frame& frame)
    {
        reachNormalData(frame);
        awaitStoreEmpty();
        deliver({{10, "goes on"}});
        WireCycle cycle;
        do {
            cycle = client.readCycle();
            EXPECT_TRUE(!cycle.complete || !cycle.channels().empty());
        } while (cycle.complete && (cycle.find(10) == nullptr || cycle.find(10)->payload != "goes on"));
        EXPECT_TRUE(cycle.complete);
    }

    /// The sender waits for a replacement to pass, with a cycle in its hand.
    std::function<bool(const void*)> isGate() const
    {
        return [job = m_probe->jobCondition()](const void* object) { return object != job; };
    }
};

// --- Start, stop, join ---

TEST_F(InterleavingTest, ThreadsHaveNamesAndTheHostKeepsItsSignals)
{
    sigset_t before;
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    openQueue("1,1,5:10,n");
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal < SIGRTMAX; ++signal) {
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
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
}

// --- Cycles: who owns them, who may change them ---

TEST_F(InterleavingTest, OnceCycleIsWholeAndAloneBesideLeftovers)
{
    const Frame frame = {{1, "once"}, {10, "whole"}, {20, "abcdef"}};
    auto client = openStream("3,1,5:1,o:10,n:20,s", frame);
    EXPECT_TRUE(client->readCycle().isOnce());
    g_sendThrows = true;
    deliver(frame); // its first cycle is lost with the sender, two cycles of parts are left
    ASSERT_TRUE(waitFor([&] { return !m_probe->senderRunning(); }));

    Hold stale(SEND, SENDER);
    // A new transfer; its once data aren't there yet, so the sender goes on with a leftover.
    deliver({{10, "not yet"}});
    ASSERT_TRUE(stale.awaitHeld());
    EXPECT_EQ(m_probe->state(), INITIATE);
    deliver(frame);
    deliver(frame);
    EXPECT_EQ(m_probe->state(), ONCE_DATA);
    EXPECT_EQ(m_probe->queued(), 2U);
    stale.release();

    for (const int part : {1, 2}) {
        const WireCycle leftover = client->readCycle();
        EXPECT_EQ(leftover.channels(), std::vector<std::int32_t>{20});
        EXPECT_EQ(leftover.find(20)->partNumber, part);
    }
    const WireCycle once = client->readCycle();
    EXPECT_TRUE(once.isOnce());
    EXPECT_EQ(once.entries.size(), 1U);
    expectStreamGoesOn(*client, frame);
}

TEST_F(InterleavingTest, CycleInHandWhenTheClientIsReplaced)
{
    const Frame first = {{1, "once"}, {10, "first"}};
    for (const int row : {0, 1, 2, 3}) {
        SCOPED_TRACE(row);
        const bool leftInQueue = row % 2 == 1; // by a negative length
        const bool oldCloses = row >= 2;
        auto old = openStream(leftInQueue ? "1,1,-5:1,o:10,n" : "1,1,5:1,o:10,n", first);
        if (oldCloses) {
            old->close();
            ASSERT_TRUE(waitFor(clientSeenGone));
        }
        Hold accepting(ACCEPT, SERVER);
        StreamClient young(m_port);
        ASSERT_TRUE(accepting.awaitHeld());
        Hold atGate(SLEEP, SENDER, isGate()); // only the sender's sleeps from here on
        deliver({{10, "in hand"}});
        ASSERT_TRUE(atGate.awaitHeld());
        atGate.release();
        accepting.release();
        EXPECT_TRUE(waitFor([&] { return oldCloses ? !m_probe->senderRunning() : m_probe->storeEmpty(); }));
        EXPECT_EQ(m_probe->storeEmpty(), !oldCloses || !leftInQueue);

        deliver({{1, "once"}, {10, "next"}});
        const WireCycle cycle = young.readCycle();
        ASSERT_TRUE(cycle.complete);
        EXPECT_EQ(cycle.entries[0].payload, oldCloses ? "once" : leftInQueue ? "in hand" : "next");
        EXPECT_EQ(cycle.isOnce(), oldCloses);
        expectStreamGoesOn(young, first);
    }
}

TEST_F(InterleavingTest, CycleInHandWithoutSocketOrSender)
{
    for (const bool destroy : {false, true}) {
        auto client = openStream("1,1,5:10,n", {{10, "x"}});
        const void* const jobMutex = m_probe->jobMutex();
        Hold taken(UNLOCK, SENDER, [jobMutex](const void* mutex) { return mutex == jobMutex; });
        deliver({{10, "in hand"}});
        ASSERT_TRUE(taken.awaitHeld());
        const Calls sends(SEND, SENDER);
        const Calls looks(LOOK, HOST);
        if (destroy) {
            HostCall end([&] { m_queue.reset(); });
            EXPECT_TRUE(looks.await(1));
            taken.release();
            EXPECT_TRUE(end.await());
        } else {
            g_acceptThrows = true; // the end of the server, and of the connection
            StreamClient young(m_port);
            EXPECT_TRUE(waitFor([&] { return !m_probe->serverRunning() && !m_probe->connected(); }));
            taken.release();
            awaitStoreEmpty();
            EXPECT_EQ(deliver({{10, "x"}}), nullptr);
        }
        EXPECT_EQ(sends.sinceThen(), 0);
        EXPECT_TRUE(client->waitForEnd());
    }
}

TEST_F(InterleavingTest, InternalFailureGivesTheSameClientAFreshTransfer)
{
    const Frame frame = {{1, "once"}, {10, "x"}};
    auto client = openStream("1,1,5:1,o:10,n", frame);
    EXPECT_TRUE(client->readCycle().isOnce());
    ::testing::internal::CaptureStdout();
    g_sendThrows = true;
    deliver(frame);
    EXPECT_TRUE(waitFor([&] { return !m_probe->senderRunning(); }));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Lodestone sender thread exception: std::bad_alloc\n");
    EXPECT_TRUE(m_probe->connected());
    EXPECT_TRUE(nextCycle(*client, frame).isOnce());
    expectStreamGoesOn(*client, frame);
}

// --- Clients that stall, leave and come back; the network's failures ---

TEST_F(InterleavingTest, SlowClientIsServedToTheEndOfItsCycle)
{
    const std::size_t piece = 50000;
    std::string config = "1,1,2";
    Frame frame;
    for (int channelID = 10; channelID < 20; ++channelID) {
        config += ":" + std::to_string(channelID) + ",n";
        frame.emplace_back(channelID, std::string(piece, 's'));
    }
    const std::size_t cycleSize = 12 + frame.size() * (20 + piece) + 2 * 20 + 208 + 256;
    const int sendsPerCycle = 1 + 2 * static_cast<int>(frame.size()) + 4;

    for (const bool destroy : {false, true}) {
        auto slow = openStream(config, {{10, "x"}}, NARROW);
        const Calls sends(SEND, SENDER);
        const auto allOut = [&] { return sends.sinceThen() == sendsPerCycle; };
        deliver(frame);
        ASSERT_TRUE(sends.await(3)); // both headers; the first payload blocks
        stopClock(true);
        g_looksLeft = 0;
        std::unique_ptr<StreamClient> young;
        HostCall waiter([&] { destroy ? m_queue.reset() : static_cast<void>(young = connectClient()); });

        std::string bytes;
        int looks = 0;
        while (!allOut()) {
            // Less than the stall limit each time, many times the limit in all.
            g_looksLeft = LOOKS_TO_STALL - 10;
            ASSERT_TRUE(waitFor([&] { return g_looksLeft == 0 || allOut(); }));
            looks += LOOKS_TO_STALL - 10;
            const Calls step(SEND, SENDER);
            ASSERT_TRUE(waitFor([&] {
                bytes += slow->readBytes(std::min<std::size_t>(1000, cycleSize - bytes.size()));
                return step.sinceThen() > 0 || allOut();
            }));
        }
        EXPECT_GT(looks, 5 * LOOKS_TO_STALL);
        bytes += slow->readBytes(cycleSize - bytes.size());
        EXPECT_EQ(bytes.size(), cycleSize);
        EXPECT_TRUE(waiter.await());
        EXPECT_TRUE(slow->waitForEnd());
        stopClock(false);
        if (young) {
            expectStreamGoesOn(*young, {{10, "x"}});
        }
    }
}

TEST_F(InterleavingTest, AcceptThatFailsLeavesTheClientOrRests)
{
    const Frame frame = {{1, "once"}, {10, "x"}};
    const struct
    {
        int error;
        int faults;
        int rests;
        bool oldStays;
        bool restart;
    } cases[] = {{ECONNABORTED, 3, 0, true, false},
                 {EPROTO, 1, 0, true, false},
                 {EMFILE, 1, 0, false, false}, // the old client's descriptor was the one that was missing
                 {ENOBUFS, 6, 3, false, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error);
        auto old = openStream("1,1,5:1,o:10,n", frame);
        EXPECT_TRUE(old->readCycle().isOnce());
        const std::int64_t id = m_probe->connectedID();
        const Calls rests(REST, SERVER);
        g_acceptError = c.error;
        g_acceptFaults = c.faults;
        Hold working(ACCEPT, SERVER, [](const void*) { return g_acceptFaults == 0; });
        StreamClient young(m_port);
        ASSERT_TRUE(working.awaitHeld());
        EXPECT_EQ(rests.sinceThen(), c.rests);
        EXPECT_EQ(m_probe->connectedID(), id + c.rests);
        EXPECT_EQ(old->somethingWaits(), !c.oldStays);
        working.release();
        EXPECT_TRUE(waitFor([&] { return m_probe->connectedID() == id + c.rests + 1; }));
        EXPECT_EQ(nextCycle(young, frame).isOnce(), c.restart);
        expectStreamGoesOn(young, frame);
    }
}

TEST_F(InterleavingTest, ConnectionWithoutDescriptorIsALostOne)
{
    openQueue("1,1,5:1,o:10,n");
    g_acceptError = EMFILE;
    g_acceptFaults = 1;
    Hold resting(REST, SERVER);
    StreamClient client(m_port);
    ASSERT_TRUE(resting.awaitHeld());
    EXPECT_TRUE(m_probe->connected());
    EXPECT_TRUE(waitFor([&] {
        deliver({{1, "once"}});
        return !m_probe->connected();
    }));
    resting.release();
    EXPECT_TRUE(nextCycle(client, {{1, "once"}}).isOnce());
}

TEST(CycleGate, SenderAndServerTakeTurnsHoweverQuickTheyAskAgain)
{
    const int rounds = 100;
    Lodestone::CycleGate gate;
    std::string course;
    std::string expected;
    stopClock(true); // looks in quick succession
    auto cycle = std::make_unique<Lodestone::CycleGate::Cycle>(gate);
    const Calls sleeps(SLEEP, HOST);
    std::thread server([&] {
        for (int round = 1; round <= rounds; ++round) {
            const Lodestone::CycleGate::Replacement passage(gate);
            course += 'r';
            EXPECT_TRUE(sleeps.await(round)); // the sender waits
        }
    });
    for (int round = 1; round <= rounds && !testing::Test::HasFailure(); ++round) {
        const Calls looks(LOOK, HOST);
        EXPECT_TRUE(looks.await(1)); // the server waits
        cycle.reset();
        cycle = std::make_unique<Lodestone::CycleGate::Cycle>(gate);
        course += 'c';
        expected += "rc";
    }
    cycle.reset();
    server.join();
    stopClock(false);
    EXPECT_EQ(course, expected);
}
