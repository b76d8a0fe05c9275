#include "Schedule.h"
#include "AllocationHook.h"
#include "HostFrame.h"
#include "Lodestone.h"
#include "Scenario.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <map>
#include <ostream>
#include <set>
#include <unistd.h>

// Children end in the middle of things, and quickly.
extern "C" const char* __asan_default_options()
{
    return "detect_leaks=0";
}

extern "C" const char* __tsan_default_options()
{
    return "atexit_sleep_ms=0";
}

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
    void hostEnters() override { Schedule::hostEnters(); }
    void hostLeaves() override { Schedule::hostLeaves(); }
    void expectStall() override { Schedule::expectStall(); }
};

// ---------------------------------------------------------------------------------------------------------------------
// A crowd: a host that delivers without end, beside the thread of clients that come and go

const int ONCE = 1;
const int WHOLE = 10;
const int SPLIT = 20;

std::string payloadOf(int channel, std::uint32_t frame)
{
    std::string bytes(static_cast<std::size_t>(40 + channel), static_cast<char>('a' + frame % 23));
    std::memcpy(&bytes[0], &frame, sizeof frame);
    return bytes;
}

enum Beginning
{
    NEW,   ///< A transfer of its own, from the once data on.
    AMID,  ///< It takes over from one that had normal data.
    EITHER ///< It takes over from one of which that isn't known.
};

/// One connection, read and checked.
class Visitor
{
public:
    Visitor(int port, Beginning beginning, bool noGaps, std::vector<std::string>& violations)
        : m_stream(port), m_beginning(beginning), m_noGaps(noGaps), m_violations(violations)
    {}

    /// False if the connection has ended.
    bool read()
    {
        const WireCycle cycle = m_stream.readCycle();
        if (!cycle.complete) {
            expect(cycle.bytes.empty(), "a cycle breaks off");
            return false;
        }
        expect(m_first || cycle.counter == m_counter + 1, "a gap in the cycles");
        expect(cycle.isOnce() ? m_first && m_beginning != AMID : !m_first || m_beginning != NEW,
               "a wrong beginning");
        for (const WireEntry& entry : cycle.entries) {
            if (entry.channelID < 10000) {
                check(entry);
            }
        }
        m_first = false;
        m_amid = m_amid || !cycle.isOnce();
        m_counter = cycle.counter;
        return true;
    }

    bool amid() const { return m_amid; }

    StreamClient m_stream;

private:
    void expect(bool holds, const char* text)
    {
        if (!holds) {
            m_violations.emplace_back(text);
        }
    }

    void check(const WireEntry& entry)
    {
        std::string& bytes = m_parts[entry.channelID];
        if (entry.partNumber <= 0) {
            bytes.clear();
        } else if (bytes.empty()) {
            expect(m_beginning != NEW, "a transfer that begins amid a buffer");
            return;
        }
        bytes += entry.payload;
        if (entry.partNumber >= 0 && entry.partNumber + 1 < entry.numberOfParts) {
            return;
        }
        std::uint32_t frame = 0;
        std::memcpy(&frame, bytes.data(), std::min(bytes.size(), sizeof frame));
        expect(bytes == payloadOf(entry.channelID, frame), "wrong bytes");
        std::uint32_t& newest = m_newest[entry.channelID];
        const bool next = !m_noGaps || entry.channelID != WHOLE || newest == 0 || frame == newest + 1;
        expect(frame > newest && next, "a frame lost, late or twice");
        newest = frame;
    }

    const Beginning m_beginning;
    const bool m_noGaps;
    std::vector<std::string>& m_violations;
    bool m_first = true;
    bool m_amid = false; // has got normal data
    std::uint32_t m_counter = 0;
    std::map<int, std::string> m_parts;
    std::map<int, std::uint32_t> m_newest;
};

class Crowd
{
public:
    Crowd(int port, int queueLength, bool initAgain)
        : m_port(port), m_queueLength(queueLength), m_initsAgain(initAgain && Schedule::dice(4) == 0)
    {}

    std::vector<std::string> run()
    {
        const std::string config =
            "0," + std::to_string(m_port) + ",3,1," + std::to_string(m_queueLength) + ":1,o:10,n:20,s";
        init(1, config);
        pthread_t clients;
        Schedule::startClient(&Crowd::visitAll, this, clients);
        const std::uint32_t initAgainAt = m_initsAgain ? 1 + Schedule::dice(30) : 0;
        for (std::uint32_t frame = 1; !m_done || Schedule::stalling(); ++frame) {
            deliver(frame);
            if (frame == initAgainAt) {
                init(1, config);
            }
            if (Schedule::dice(4) != 0) {
                usleep(100);
            }
        }
        pthread_join(clients, nullptr);
        init(0, "");
        return m_violations;
    }

private:
    void init(int enabled, const std::string& config)
    {
        Schedule::hostEnters();
        EXPECT_EQ(Lodestone::Lodestone_Init(enabled, config), 0) << Lodestone::GetLastErrorString();
        Schedule::hostLeaves();
    }

    void deliver(std::uint32_t number)
    {
        Frame frame;
        for (const int channel : {ONCE, WHOLE, SPLIT}) {
            frame.emplace_back(channel, payloadOf(channel, number));
        }
        std::vector<AlgoMeasBuffer> array = arrayOf(frame);
        Schedule::hostEnters();
        EXPECT_EQ(Lodestone::Lodestone_Apply(array.data(), 3, 0), 0);
        Schedule::hostLeaves();
        Schedule::frameDone();
    }

    static void* visitAll(void* argument)
    {
        auto* const crowd = static_cast<Crowd*>(argument);
        std::unique_ptr<Visitor> visitor;
        for (unsigned left = 2 + Schedule::dice(3); left != 0; --left) {
            crowd->visit(visitor);
        }
        visitor.reset();
        crowd->m_done = true;
        return nullptr;
    }

    /// One more connection, beside the one before or after it.
    void visit(std::unique_ptr<Visitor>& visitor)
    {
        std::unique_ptr<Visitor> old = std::move(visitor);
        const unsigned leave = Schedule::dice(3);
        if (old && leave != 0) {
            leave == 1 ? old->m_stream.close() : old->m_stream.vanish();
        }
        const bool takesOver = old && leave == 0;
        const Beginning beginning = !takesOver ? NEW : old->amid() && !m_initsAgain ? AMID : EITHER;
        visitor =
            std::make_unique<Visitor>(m_port, beginning, m_queueLength < 0 && !m_initsAgain, m_violations);
        while (takesOver && old->read()) {
        }
        for (unsigned left = Schedule::dice(8); left != 0; --left) {
            if (!visitor->read()) {
                if (!m_initsAgain) {
                    m_violations.emplace_back("the connection ends");
                }
                return;
            }
        }
    }

    const int m_port;
    const int m_queueLength;
    const bool m_initsAgain;
    std::atomic<bool> m_done{false};
    std::vector<std::string> m_violations;
};

// ---------------------------------------------------------------------------------------------------------------------

int openDescriptors()
{
    int number = 0;
    for (int descriptor = 0; descriptor < 128; ++descriptor) {
        number += ::fcntl(descriptor, F_GETFD) != -1 ? 1 : 0;
    }
    return number;
}

std::vector<std::string> violationsIn(const std::string& name, int port)
{
    if (name.rfind("Crowd", 0) == 0) {
        return Crowd(port, name == "CrowdThatWaits" ? -2 : 3, true).run();
    }
    Shuffled shuffled;
    ScenarioRun run(port, shuffled);
    for (const Scenario& scenario : scenarios()) {
        if (name == scenario.name) {
            scenario.run(run);
        }
    }
    run.end();
    std::vector<std::string> violations = run.violations();
    if (name == "StalledClient") { // the old one is cut off or taken over from, as the order decides
        violations.erase(std::remove(violations.begin(), violations.end(),
                                     "the transfer of client 2 doesn't begin with its ONCE cycle"),
                         violations.end());
    }
    return violations;
}

std::vector<std::string> scheduledScenarios()
{
    std::vector<std::string> names = {"Crowd", "CrowdThatWaits"};
    for (const Scenario& scenario : scenarios()) {
        if (std::strcmp(scenario.name, "Unload") != 0) { // of another library than the one with the points
            names.emplace_back(scenario.name);
        }
    }
    return names;
}

} // namespace

/// Runs scenarios, each from its seed, with all that must hold whatever the order.
class Schedules : public ::testing::TestWithParam<std::string>
{
protected:
    Schedule::Outcome run(const std::string& name, const Schedule::Plan& plan)
    {
        std::snprintf(m_label, sizeof m_label, "LODESTONE_TEST_SEED=%u, stalled %s %d", plan.seed,
                      nameOf(plan.stalled), plan.stalledAt);
        const std::size_t blocks = AllocationScope::liveBlocks();
        const int descriptors = openDescriptors();
        Schedule::begin(plan, name.c_str());
        expectNone(violationsIn(name, m_port));
        const Schedule::Outcome outcome = Schedule::end();
        // The first run leaves what the library keeps for its next queue.
        EXPECT_TRUE(!m_warm || AllocationScope::liveBlocks() == blocks) << "leak, " << m_label;
        EXPECT_EQ(openDescriptors(), descriptors) << m_label;
        m_warm = true;
        return outcome;
    }

private:
    void expectNone(const std::vector<std::string>& violations)
    {
        for (const std::string& violation : violations) {
            ADD_FAILURE() << violation << ", " << m_label;
        }
    }

    const int m_port = freePort();
    bool m_warm = false;
    char m_label[100] = "";
};

INSTANTIATE_TEST_SUITE_P(Of, Schedules, ::testing::ValuesIn(scheduledScenarios()),
                         [](const auto& scenario) { return scenario.param; });

TEST_P(Schedules, EndWellInEveryOrder)
{
    const unsigned seed = testSeed();
    std::fflush(stdout);                      // not once more by each child
    std::map<unsigned, std::uint64_t> orders; // by seed
    std::set<std::uint64_t> different;
    for (unsigned k = 0; k < RUNS && !HasFailure(); ++k) {
        orders[seed + k] = run(GetParam(), {seed + k}).hash;
        different.insert(orders[seed + k]);
    }
    unsigned replayed = 0;
    for (unsigned k = 0; k < REPLAYS && !HasFailure(); ++k) {
        replayed += run(GetParam(), {seed + k}).hash == orders[seed + k] ? 1 : 0;
    }
    std::printf("%zu different orders in %u runs; %u of %u replayed exactly\n", different.size(), RUNS,
                replayed, REPLAYS);
    // A child has an order of its own, and how long it lives is nothing that a seed decides.
    EXPECT_TRUE(different.size() >= ENOUGH || GetParam() == "ProcessExit");
    EXPECT_TRUE(replayed >= REPLAYS / 4 || GetParam() == "ProcessExit" || GetParam() == "Fork");
}

TEST(SchedulesInAll, AreThousands)
{
    EXPECT_GE((scheduledScenarios().size() - 1) * ENOUGH, 5000U / SLOWER);
}

/// One thread stands still at each of its steps in turn, while the others go on.
class Stalls : public Schedules
{
protected:
    struct Place
    {
        int runs = 0;
        std::map<std::string, int> hostWaits; // in which step
    };

    /// The host of a crowd must go on whoever stands still, but for these waits.
    bool mayWait(Schedule::Who who, const Schedule::Outcome& outcome) const
    {
        const std::string wait = outcome.hostWaits;
        const std::string place = std::string(nameOf(who)) + " " + outcome.where;
        // Under the lock that the host needs: of the queue, for the step into sleep; of the gate, when it
        // stops a sender.
        static const std::set<std::string> underLock = {
            "sender wait", "sender broadcast", "sender point:sender_signs_off",
            "server look", "server broadcast", "server point:stall_found"};
        return wait == "look" || wait == "join" || // it stops a sender or the server
               (wait == "lock" && underLock.count(place) != 0) ||
               (wait == "usleep" && GetParam() == "CrowdThatWaits");
    }

    void stallAtEachStep(Schedule::Who who, unsigned seed)
    {
        for (int number = 1; !HasFailure(); ++number) {
            const Schedule::Outcome outcome = run(GetParam(), {seed, who, number});
            if (!outcome.reached) {
                return;
            }
            Place& place = m_places[std::string(nameOf(who)) + " " + outcome.where];
            ++place.runs;
            if (who != Schedule::HOST && outcome.frames < Schedule::ENOUGH_FRAMES) {
                ++place.hostWaits[outcome.hostWaits];
                EXPECT_TRUE(mayWait(who, outcome))
                    << nameOf(who) << " at " << outcome.where << ", host waits in " << outcome.hostWaits
                    << ", LODESTONE_TEST_SEED=" << seed;
            }
        }
    }

    void show() const
    {
        for (const auto& place : m_places) {
            std::printf("%-26s %5d runs", place.first.c_str(), place.second.runs);
            for (const auto& wait : place.second.hostWaits) {
                std::printf(", host waits in %s %d", wait.first.c_str(), wait.second);
            }
            std::printf("\n");
        }
    }

    std::map<std::string, Place> m_places;
};

INSTANTIATE_TEST_SUITE_P(Of, Stalls, ::testing::Values("Crowd", "CrowdThatWaits"),
                         [](const auto& scenario) { return scenario.param; });

/// The points of the library in this program, as far as a crowd can come to them.
std::set<std::string> knownPoints()
{
    std::ifstream program("/proc/self/exe", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(program)), {});
    std::set<std::string> points;
    const std::string prefix = "point:";
    for (std::size_t at = bytes.find(prefix); at != std::string::npos; at = bytes.find(prefix, at + 1)) {
        points.insert(bytes.substr(at, bytes.find('\0', at) - at));
    }
    for (const char* const other : {"point:", "point:server_gives_up", "point:stall_found"}) {
        points.erase(other);
    }
    return points;
}

TEST_P(Stalls, LetTheOthersGoOn)
{
    const unsigned seed = testSeed();
    std::set<std::string> missing = knownPoints();
    EXPECT_GT(missing.size(), 0U);
    for (unsigned k = 0; (k < STALL_SEEDS || (SLOWER == 1 && !missing.empty())) && k < 50 && !HasFailure();
         ++k) {
        for (const Schedule::Who who : {Schedule::HOST, Schedule::SENDER, Schedule::SERVER}) {
            stallAtEachStep(who, seed + k);
        }
        for (const auto& place : m_places) {
            missing.erase(place.first.substr(place.first.find(' ') + 1));
        }
    }
    show();
    EXPECT_TRUE(SLOWER != 1 || missing.empty()) << *missing.begin() << " was never reached";
}
