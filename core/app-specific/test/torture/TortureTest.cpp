#include "AllocationHook.h"
#include "Lodestone.h"
#include "ProcessFigures.h"
#include "Scenario.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <set>
#include <unistd.h>
#include <utility>

// Children end in the middle of things, and quickly, beside threads that still own something. What the host's
// process leaves is counted here.
extern "C" const char* __asan_default_options()
{
    return "detect_leaks=0";
}

extern "C" const char* __tsan_default_options()
{
    return "atexit_sleep_ms=0:report_thread_leaks=0";
}

namespace
{

// Slow builds do a part: each FAULT_STRIDE-th call fails, and there are SLOWER times fewer orders.
const int MOST_CALLS = 3000; // in one run of a scenario
const int FIRST_RUNS = 3;
const unsigned PATIENCE_S = 100;
const unsigned RUNS = 1000 / SLOWER;
const unsigned ENOUGH = RUNS * 2 / 3; // different orders among them
const unsigned REPLAYED_EACH = RUNS > 100 ? 25 : 5;
const unsigned STALL_SEEDS = 1 + 3 / SLOWER;
const std::size_t POINTS = 21; // that the library names, but for its own end and that of a stalled client

char g_label[200] = "";

/// A crash or a hang tells which run it was.
void tellLabel(int signal)
{
    static_cast<void>(!::write(STDERR_FILENO, g_label, std::strlen(g_label)));
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void labelRun(const std::string& label)
{
    std::snprintf(g_label, sizeof g_label, "\n%s\n", label.c_str());
    for (const int signal : {SIGALRM, SIGABRT, SIGSEGV, SIGBUS, SIGFPE}) {
        const auto present = std::signal(signal, tellLabel);
        if (present != SIG_DFL) { // a sanitizer's, or this one
            std::signal(signal, present);
        }
    }
    ::alarm(PATIENCE_S);
}

void streamToACleanClient(ScenarioRun& run)
{
    run.init("2,2,5:3,o:4,o:10,n:20,s");
    run.apply({3, 4}, true);
    run.connect(1) && run.read(1, 10, 2, {{10, 20}}) && run.read(1, 20, 1, {{10, 20}});
}

/// Runs one scenario again and again, in the order of a plan, with a fault or without, and checks what must
/// hold of each run: what the scenario itself expects, an end of all threads, and nothing that is left in
/// heap or descriptors.
class Torture : public testing::TestWithParam<Scenario>
{
public:
    static std::string nameOf(const testing::TestParamInfo<Scenario>& test) { return test.param.name; }

protected:
    /// A fault is followed by a client that must find nothing wrong. The first runs may take what the process
    /// keeps for good.
    Schedule::Outcome run(const Schedule::Plan& plan, const Fault& fault = Fault())
    {
        labelRun("LODESTONE_TEST_SEED=" + std::to_string(plan.seed) + " LODESTONE_FAULT=\"" + fault.name() +
                 "\", stalled " + std::string(plan.stalled) + " " + std::to_string(plan.stalledAt));
        const std::size_t blocks = AllocationScope::liveBlocks();
        const std::size_t bytes = AllocationScope::liveBytes();
        const std::size_t descriptors = ProcessFigures::now().descriptors;
        FaultCalls::arm(fault);
        Schedule::begin(plan);
        live(GetParam().run);
        if (fault.number != 0) {
            live(streamToACleanClient);
        }
        const Schedule::Outcome outcome = Schedule::end();
        if (++m_runs > FIRST_RUNS) {
            EXPECT_EQ(AllocationScope::liveBlocks(), blocks);
            EXPECT_NEAR(static_cast<double>(AllocationScope::liveBytes()), static_cast<double>(bytes),
                        static_cast<double>(blocks * AllocationScope::ROUNDING));
            EXPECT_EQ(ProcessFigures::now().descriptors, descriptors);
        }
        EXPECT_FALSE(HasFailure()) << g_label;
        return outcome;
    }

    /// Calls that failed in the last run.
    int hits() const { return m_hits; }
    bool isCalled(const std::string& name) const { return name == GetParam().name; }

private:
    void live(void (*life)(ScenarioRun&))
    {
        ScenarioRun host(m_port);
        life(host);
        m_hits = life == GetParam().run ? FaultCalls::hits() : m_hits;
        if (FaultCalls::heals()) {
            FaultCalls::arm(Fault());
            host.streamAgain();
        }
        host.end();
        FaultCalls::arm(Fault());
    }

    const int m_port = freePort();
    int m_runs = 0;
    int m_hits = 0;
};

// ---------------------------------------------------------------------------------------------------------------------
// Faults

/// One fault after the other in one scenario; only one with LODESTONE_FAULT, as a failure shows it.
class FaultSweep : public Torture
{
protected:
    /// n = 1, 2, ... until the scenario runs to its end without the fault. Returns the runs with it.
    int sweep(const FaultKind& kind, bool everAfter)
    {
        int faults = 0;
        int step = FAULT_STRIDE == 1 ? 1 : 1 + static_cast<int>(m_seed % FAULT_STRIDE); // behind the first
        for (int number = 1; number < MOST_CALLS; number += std::exchange(step, FAULT_STRIDE)) {
            const Fault fault = {&kind, number, everAfter};
            if (m_only != nullptr && fault.name() != m_only) {
                continue;
            }
            run({1}, fault);
            if (HasFailure() || hits() == 0) {
                return faults;
            }
            ++faults;
        }
        EXPECT_NE(m_only, nullptr) << kind.name() << " is always reached";
        return faults;
    }

    bool mustMake(const FaultKind& kind) const
    {
        const auto& names = kind.scenarios;
        return m_only == nullptr &&
               (names.empty() || std::count(names.begin(), names.end(), GetParam().name) != 0);
    }

private:
    const char* const m_only = std::getenv("LODESTONE_FAULT");
    const unsigned m_seed = FAULT_STRIDE == 1 ? 0 : testSeed();
};

TEST_P(FaultSweep, EachFailedCallIsToldAndLeavesNothing)
{
    const std::string longest(200, 'x'); // the error text keeps the memory that it once had
    Lodestone::Lodestone_Init(1, longest + ",1,1,1,1");
    for (int k = 0; k < FIRST_RUNS; ++k) {
        run({1}, {&faultKinds()[0], MOST_CALLS});
    }
    ASSERT_FALSE(HasFailure()) << "nothing has failed yet";
    int total = 0;
    for (const FaultKind& kind : faultKinds()) {
        const int faults = sweep(kind, false) + (kind.error == FaultKind::STANDS ? 0 : sweep(kind, true));
        std::printf("%6d %s\n", faults, kind.name().c_str());
        std::fflush(stdout); // or children print it once more
        total += faults;
        ASSERT_FALSE(HasFailure());
        EXPECT_TRUE(faults > 0 || !mustMake(kind)) << kind.name() << " never failed";
    }
    std::printf("%6d faults\n", total);
}

INSTANTIATE_TEST_SUITE_P(, FaultSweep, testing::ValuesIn(scenarios()), FaultSweep::nameOf);

// ---------------------------------------------------------------------------------------------------------------------
// Orders of the threads

/// A host that delivers without end, beside the thread of clients that come and go.
class Crowd
{
public:
    Crowd(ScenarioRun& host, int queueLength)
        : m_host(host), m_guests(host.port()), m_queueLength(queueLength)
    {}

    void run()
    {
        const std::string config = "3,1," + std::to_string(m_queueLength) + ":1,o:10,n:20,s";
        m_host.init(config);
        m_guests.expect(m_initsAgain ? "3,1,3:1,o" : config); // then the waiting host loses frames as well
        pthread_t clients;
        pthread_create(&clients, nullptr, &Crowd::visitAll, this);
        const unsigned initAgainAt = m_initsAgain ? Schedule::dice(30) : NEVER;
        bool stalling = false;
        for (unsigned frame = 0; stalling || !m_done; ++frame) {
            m_host.apply({1, 10, 20});
            stalling = Schedule::frameDone();
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
        auto beginning = ScenarioRun::ONCE;
        if (leave == 0) {
            const bool amid = m_guests.hasNormalData(client - 1) && !m_initsAgain;
            beginning = amid ? ScenarioRun::AMID : ScenarioRun::ANYWHERE;
        }
        m_guests.connect(client, beginning);
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
    ScenarioRun m_guests; ///< The clients, on their thread.
    const int m_queueLength;
    std::atomic<bool> m_done{false};
};

const Scenario CROWDS[] = {{"Crowd", [](ScenarioRun& host) { Crowd(host, 3).run(); }},
                           {"CrowdThatWaits", [](ScenarioRun& host) { Crowd(host, -2).run(); }}};

class Schedules : public Torture
{
};

INSTANTIATE_TEST_SUITE_P(OfCrowds, Schedules, testing::ValuesIn(CROWDS), Schedules::nameOf);
INSTANTIATE_TEST_SUITE_P(Of, Schedules, testing::ValuesIn(scenarios()), Schedules::nameOf);

TEST_P(Schedules, EndWellInEveryOrder)
{
    const unsigned seed = testSeed();
    std::fflush(stdout); // not once more by each child
    std::set<std::uint64_t> different;
    unsigned again = 0;
    unsigned same = 0;
    for (unsigned k = 0; k < RUNS && !HasFailure(); ++k) {
        const std::uint64_t order = run({seed + k}).hash;
        different.insert(order);
        if (k % REPLAYED_EACH == 0) {
            ++again;
            same += run({seed + k}).hash == order ? 1 : 0;
        }
    }
    std::printf("%zu different orders in %u runs; %u of %u replayed exactly\n", different.size(), RUNS, same,
                again);
    // A child has an order of its own, and how long it lives is nothing that a seed decides.
    EXPECT_TRUE(different.size() >= ENOUGH || isCalled("ProcessExit"));
    EXPECT_TRUE(same >= again / 4 || isCalled("ProcessExit") || isCalled("Fork"));
}

/// One thread stands still at each of its steps in turn, while the others go on.
class Stalls : public Torture
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
            const std::string place = std::string(who) + " " + outcome.where;
            if (place.find("point:") != std::string::npos) {
                m_points.insert(outcome.where);
            }
            EXPECT_TRUE(who == Schedule::HOST || outcome.frames >= Schedule::ENOUGH_FRAMES ||
                        mayWait(place, outcome.hostWaits))
                << place << ", host waits in " << outcome.hostWaits;
        }
    }

    std::set<std::string> m_points; ///< Where a thread stood.
};

INSTANTIATE_TEST_SUITE_P(Of, Stalls, testing::ValuesIn(CROWDS), Stalls::nameOf);

TEST_P(Stalls, LetTheOthersGoOn)
{
    const unsigned seed = testSeed();
    const auto goesOn = [&](unsigned k) {
        return k < STALL_SEEDS || (SLOWER == 1 && k < 50 && m_points.size() < POINTS);
    };
    for (unsigned k = 0; goesOn(k) && !HasFailure(); ++k) {
        for (const std::string_view who : {Schedule::HOST, Schedule::SENDER, Schedule::SERVER}) {
            stallAtEachStep(who, seed + k);
        }
    }
    EXPECT_TRUE(SLOWER != 1 || m_points.size() >= POINTS) << m_points.size() << " points were reached";
}

} // namespace
