#include "CycleGate.h"

#include "StreamClient.h"
#include "TCPSocket.h"
#include "torture/StandIn.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <thread>

using Lodestone::CycleGate;

namespace
{

std::atomic<int> g_sleeps{0};     // of the sender
std::atomic<int> g_looks{0};      // at the client, of whoever waits for the sender
std::atomic<int> g_earlyWakes{0}; // waits with a limit that ended as if it had passed
std::atomic<int> g_time_ms{0};

} // namespace

STAND_IN(int, clock_gettime, (clockid_t, timespec* now))
{
    *now = timespecOf(NS_PER_S + g_time_ms * NS_PER_MS);
    return 0;
}

STAND_IN(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex))
{
    ++g_sleeps;
    return __real_pthread_cond_wait(condition, mutex);
}

// Looks come in quick succession, whatever the time between them is meant to be.
STAND_IN(int, pthread_cond_timedwait, (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec*))
{
    ++g_looks;
    timespec time;
    __real_clock_gettime(CLOCK_MONOTONIC, &time);
    const std::int64_t limit = nanoseconds(time) + NS_PER_MS;
    const timespec soon = timespecOf(limit);
    const int result = __real_pthread_cond_timedwait(condition, mutex, &soon);
    __real_clock_gettime(CLOCK_MONOTONIC, &time);
    g_earlyWakes += result == ETIMEDOUT && nanoseconds(time) < limit ? 1 : 0;
    return result;
}

namespace
{

bool awaitLooks(int number)
{
    return waitFor([until = g_looks + number] { return g_looks >= until; });
}

} // namespace

TEST(CycleGate, SenderAndServerTakeTurnsHoweverQuickTheyAskAgain)
{
    const int rounds = 100;
    CycleGate gate;
    {
        Lodestone::TCPSocket socket(0);
        CycleGate::Cycle(gate).watch(&socket); // and never again, for it has gone
    }
    std::string course;
    std::string expected;
    auto cycle = std::make_unique<CycleGate::Cycle>(gate);
    const int sleepsBefore = g_sleeps;
    std::thread server([&] {
        for (int round = 1; round <= rounds; ++round) {
            const CycleGate::Replacement passage(gate);
            course += 'r';
            EXPECT_TRUE(waitFor([&] { return g_sleeps >= sleepsBefore + round; })); // the sender waits
        }
    });
    for (int round = 1; round <= rounds && !testing::Test::HasFailure(); ++round) {
        EXPECT_TRUE(awaitLooks(1)); // the server waits
        cycle.reset();
        cycle = std::make_unique<CycleGate::Cycle>(gate);
        course += 'c';
        expected += "rc";
    }
    cycle.reset();
    server.join();
    EXPECT_EQ(course, expected);
    EXPECT_EQ(g_earlyWakes, 0) << "a wait that burns a core";
}

TEST(CycleGate, SlowClientIsServedAndOneThatStopsIsCutOff)
{
    const int port = freePort();
    Lodestone::TCPServerSocket listener(port);
    StreamClient client(port);
    Lodestone::TCPSocket socket(0);
    ASSERT_TRUE(listener.waitForReadyRead(900));
    ASSERT_EQ(listener.accept(socket), Lodestone::AcceptResult::CONNECTED);

    CycleGate gate;
    std::atomic<bool> underWay{false};
    std::atomic<bool> cutOff{false};
    std::thread sender([&] {
        const std::string bytes(1000000, 'b');
        CycleGate::Cycle cycle(gate);
        underWay = true;
        EXPECT_TRUE(awaitLooks(1)); // the server is at it when the watch begins
        cycle.watch(&socket);
        try {
            for (;;) {
                socket.send(bytes.data(), static_cast<int>(bytes.size()));
            }
        } catch (const std::runtime_error&) {
            cutOff = true;
        }
    });
    EXPECT_TRUE(waitFor([&] { return underWay.load(); }));
    std::thread server([&gate] { const CycleGate::Replacement passage(gate); });
    EXPECT_TRUE(awaitLooks(2));
    // Less than the limit each, many times the limit in all.
    for (int step = 0; step < 10 && !cutOff; ++step) {
        g_time_ms += CycleGate::STALL_LIMIT_MS - 100;
        EXPECT_TRUE(awaitLooks(2));
        const auto before = socket.progress();
        EXPECT_TRUE(waitFor([&] {
            client.readBytes(1000);
            return !(socket.progress() == before);
        }));
        EXPECT_TRUE(awaitLooks(2));
    }
    EXPECT_FALSE(cutOff);
    EXPECT_TRUE(waitFor([&] {
        g_time_ms += CycleGate::LOOK_INTERVAL_MS;
        return cutOff.load();
    }));
    sender.join();
    server.join();
    EXPECT_TRUE(client.waitForEnd());
    EXPECT_EQ(g_earlyWakes, 0) << "a wait that burns a core";
}
