#include "Schedule.h"
#include "Scenario.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <pthread.h>
#include <set>
#include <unistd.h>

namespace
{

/// How many runs each scenario gets. Slow builds (SLOWER) do a part of them.
#ifndef SLOWER
#define SLOWER 1
#endif
const unsigned RUNS = 600 / SLOWER;
const unsigned ENOUGH = RUNS * 2 / 3; // different ones among them
const unsigned REPLAYS = std::max(RUNS / 20, 4U);
const unsigned STALL_SEEDS = 1 + 3 / SLOWER;

class Shuffled : public Disturbance
{
public:
    void hostEnters() override { Schedule::hostIsInLibrary(true); }
    void hostLeaves() override { Schedule::hostIsInLibrary(false); }
    bool expectStall() override { return Schedule::expectStall(), false; }
};

/// A host that delivers without end, beside the thread of clients that come and go.
class Crowd
{
public:
    Crowd(ScenarioRun& host, int queueLength)
        : m_host(host), m_guests(host.port(), m_shuffled), m_queueLength(queueLength)
    {}

    void run()
    {
        const std::string config = "3,1," + std::to_string(m_queueLength) + ":1,o:10,n:20,s";
        m_host.init(config);
        m_guests.expect(m_initsAgain ? "3,1,3:1,o" : config); // then the waiting host loses frames as well
        pthread_t clients;
        pthread_create(&clients, nullptr, &Crowd::visitAll, this);
        const unsigned initAgainAt = m_initsAgain ? Schedule::dice(30) : NEVER;
        for (unsigned frame = 0; !m_done || Schedule::stalling(); ++frame) {
            m_host.apply({1, 10, 20});
            Schedule::frameDone();
            if (frame == initAgainAt) {
                m_host.init(config);
            }
            if (Schedule::dice(4) != 0) {
                usleep(100);
            }
        }
        pthread_join(clients, nullptr);
    }

private:
    static void* visitAll(void* argument)
    {
        auto* const crowd = static_cast<Crowd*>(argument);
        const int last = 2 + static_cast<int>(Schedule::dice(3));
        for (int client = 1; client <= last; ++client) {
            crowd->visit(client);
        }
        crowd->m_done = true;
        return nullptr;
    }

    /// One more connection, beside the one before it.
    void visit(int client)
    {
        const unsigned leave = client == 1 ? 3 : Schedule::dice(3);
        if (leave == 1) {
            m_guests.stream(client - 1).close();
        } else if (leave == 2) {
            m_guests.stream(client - 1).vanish();
        }
        if (leave != 0 && Schedule::dice(2) == 0) {
            usleep(1000); // so the sender is the first to learn that the old one has gone
        }
        const auto takenOver = [&] {
            return m_guests.hasNormalData(client - 1) && !m_initsAgain ? ScenarioRun::AMID
                                                                       : ScenarioRun::ANYWHERE;
        };
        m_guests.connect(client, leave == 0 ? takenOver() : ScenarioRun::ONCE);
        while (leave == 0 && m_guests.readOne(client - 1)) {
        }
        for (unsigned left = Schedule::dice(8); left != 0; --left) {
            if (!m_guests.readOne(client)) {
                EXPECT_TRUE(m_initsAgain) << "the connection ends";
                return;
            }
        }
    }

    static constexpr unsigned NEVER = ~0U;
    const bool m_initsAgain = Schedule::dice(4) == 0;
    ScenarioRun& m_host;
    Shuffled m_shuffled;
    ScenarioRun m_guests; ///< The clients, on their thread.
    const int m_queueLength;
    std::atomic<bool> m_done{false};
};

const Scenario CROWDS[] = {{"Crowd", [](ScenarioRun& host) { Crowd(host, 3).run(); }},
                           {"CrowdThatWaits", [](ScenarioRun& host) { Crowd(host, -2).run(); }}};

std::vector<Scenario> scheduledScenarios()
{
    std::vector<Scenario> all(std::begin(CROWDS), std::end(CROWDS));
    std::copy_if(scenarios().begin(), scenarios().end(), std::back_inserter(all), [](const Scenario& other) {
        return other.name != std::string("Unload"); // of another library than the one with the points
    });
    return all;
}

std::string nameOf(const testing::TestParamInfo<Scenario>& test)
{
    return test.param.name;
}

/// Runs scenarios, each from its seed, with all that must hold whatever the order.
class Schedules : public testing::TestWithParam<Scenario>
{
protected:
    Schedule::Outcome run(const Schedule::Plan& plan)
    {
        labelRun("LODESTONE_TEST_SEED=" + std::to_string(plan.seed) + ", stalled " +
                 std::string(plan.stalled) + " " + std::to_string(plan.stalledAt));
        const Holdings before;
        Schedule::begin(plan);
        {
            Shuffled shuffled;
            ScenarioRun host(m_port, shuffled);
            GetParam().run(host);
            host.end();
        }
        const Schedule::Outcome outcome = Schedule::end();
        // The first run leaves what the library keeps for its next queue.
        EXPECT_TRUE(!m_warm || Holdings() == before) << "leak";
        EXPECT_FALSE(HasFailure()) << runLabel();
        m_warm = true;
        return outcome;
    }

    bool isCalled(const char* name) const { return name == std::string(GetParam().name); }

private:
    const int m_port = freePort();
    bool m_warm = false;
};

INSTANTIATE_TEST_SUITE_P(Of, Schedules, testing::ValuesIn(scheduledScenarios()), nameOf);

TEST_P(Schedules, EndWellInEveryOrder)
{
    const unsigned seed = testSeed();
    std::fflush(stdout);                      // not once more by each child
    std::map<unsigned, std::uint64_t> orders; // by seed
    std::set<std::uint64_t> different;
    for (unsigned k = 0; k < RUNS && !HasFailure(); ++k) {
        orders[k] = run({seed + k}).hash;
        different.insert(orders[k]);
    }
    unsigned replayed = 0;
    for (unsigned k = 0; k < REPLAYS && !HasFailure(); ++k) {
        replayed += run({seed + k}).hash == orders[k] ? 1 : 0;
    }
    std::printf("%zu different orders in %u runs; %u of %u replayed exactly\n", different.size(), RUNS,
                replayed, REPLAYS);
    // A child has an order of its own, and how long it lives is nothing that a seed decides.
    EXPECT_TRUE(different.size() >= ENOUGH || isCalled("ProcessExit"));
    EXPECT_TRUE(replayed >= REPLAYS / 4 || isCalled("ProcessExit") || isCalled("Fork"));
}

/// One thread stands still at each of its steps in turn, while the others go on.
class Stalls : public Schedules
{
protected:
    /// The host of a crowd must go on whoever stands still, but for these waits.
    bool mayWait(const std::string& place, const std::string& wait) const
    {
        // Under the lock that the host needs: of the queue, for the step into sleep; of the gate, when it
        // stops a sender.
        static const std::set<std::string> underLock = {
            "sender pthread_cond_wait",      "sender pthread_cond_broadcast", "sender point:sender_signs_off",
            "server pthread_cond_timedwait", "server pthread_cond_broadcast", "server point:stall_found"};
        return wait == "pthread_cond_timedwait" || wait == "pthread_join" || // it stops a thread
               (wait == "pthread_mutex_lock" && underLock.count(place) != 0) ||
               (wait == "usleep" && isCalled("CrowdThatWaits"));
    }

    void stallAtEachStep(std::string_view who, unsigned seed)
    {
        for (int number = 1; !HasFailure(); ++number) {
            const Schedule::Outcome outcome = run({seed, who, number});
            if (!outcome.reached) {
                return;
            }
            m_missing.erase(outcome.where);
            const std::string place = std::string(who) + " " + outcome.where;
            EXPECT_TRUE(who == Schedule::HOST || outcome.frames >= Schedule::ENOUGH_FRAMES ||
                        mayWait(place, outcome.hostWaits))
                << place << ", host waits in " << outcome.hostWaits << runLabel();
        }
    }

    /// The points of the library in this program, as far as a crowd can come to them.
    static std::set<std::string> knownPoints()
    {
        std::ifstream program("/proc/self/exe", std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(program)), {});
        std::set<std::string> points;
        for (std::size_t at = 0; (at = bytes.find("point:", at)) != std::string::npos; ++at) {
            points.insert(bytes.c_str() + at);
        }
        for (const char* const other : {"point:", "point:server_gives_up", "point:stall_found"}) {
            points.erase(other);
        }
        return points;
    }

    std::set<std::string> m_missing = knownPoints();
};

INSTANTIATE_TEST_SUITE_P(Of, Stalls, testing::ValuesIn(CROWDS), nameOf);

TEST_P(Stalls, LetTheOthersGoOn)
{
    const unsigned seed = testSeed();
    EXPECT_FALSE(m_missing.empty());
    const auto goesOn = [&](unsigned k) {
        return k < STALL_SEEDS || (SLOWER == 1 && k < 50 && !m_missing.empty());
    };
    for (unsigned k = 0; goesOn(k) && !HasFailure(); ++k) {
        for (const std::string_view who : {Schedule::HOST, Schedule::SENDER, Schedule::SERVER}) {
            stallAtEachStep(who, seed + k);
        }
    }
    EXPECT_TRUE(SLOWER != 1 || m_missing.empty()) << *m_missing.begin() << " was never reached";
}

} // namespace
