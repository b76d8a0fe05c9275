#include "AllocationHook.h"
#include "FaultCalls.h"
#include "Lodestone.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ostream>
#include <set>
#include <sstream>
#include <tuple>
#include <unistd.h>

// Children end beside threads that still own something. What the host's process leaves is counted here.
extern "C" const char* __asan_default_options()
{
    return "detect_leaks=0";
}

extern "C" const char* __tsan_default_options()
{
    return "atexit_sleep_ms=0:report_thread_leaks=0";
}

// For the messages of GoogleTest.
std::ostream& operator<<(std::ostream& stream, const Scenario& scenario)
{
    return stream << scenario.name;
}

namespace
{

const unsigned PATIENCE_S = 100;
const int MOST_CALLS = 3000; // in one run of a scenario
const FaultKind NO_FAULT = {NO_FAULT_CALLS, "none", 0, FaultKind::HARMLESS};
char g_label[200] = ""; // of the run under way

/// Whatever a process has at one moment, and should have again later.
struct Holdings
{
    std::size_t blocks = AllocationScope::liveBlocks();
    std::size_t bytes = AllocationScope::liveBytes();
    int descriptors = openDescriptors();
    int threads = FaultCalls::threadsUnjoined();

    static int openDescriptors()
    {
        int number = 0;
        for (int descriptor = 0; descriptor < 128; ++descriptor) {
            number += ::fcntl(descriptor, F_GETFD) != -1 ? 1 : 0;
        }
        return number;
    }
    bool operator==(const Holdings& other) const
    {
        return std::tie(blocks, bytes, descriptors, threads) ==
               std::tie(other.blocks, other.bytes, other.descriptors, other.threads);
    }
    std::string shown() const
    {
        return std::to_string(blocks) + " blocks, " + std::to_string(bytes) + " bytes, " +
               std::to_string(descriptors) + " descriptors, " + std::to_string(threads) + " threads";
    }
};

/// A crash or a hang tells which run it was.
void tellLabel(int signal)
{
    static_cast<void>(!::write(STDERR_FILENO, g_label, std::strlen(g_label)));
    std::signal(signal, SIG_DFL);
    ::raise(signal == SIGALRM ? SIGABRT : signal);
}

void watchSignals()
{
    for (const int signal : {SIGALRM, SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        struct sigaction present;
        ::sigaction(signal, nullptr, &present);
        if (present.sa_handler == SIG_DFL) { // or a sanitizer's
            std::signal(signal, tellLabel);
        }
    }
}

std::string named(const Fault& fault)
{
    return std::string(fault.kind->name) + " " + std::to_string(fault.number) +
           (fault.everAfter ? " ever" : " once");
}

/// One fault after the other in one scenario, each followed by a client that must find nothing wrong.
class FaultSweep : public testing::TestWithParam<Scenario>
{
protected:
    void SetUp() override
    {
        watchSignals();
        const std::string longest(200, 'x'); // the error text keeps the memory that it once had
        Lodestone::Lodestone_Init(1, longest + ",1,1,1,1");
        for (int k = 0; k < 3; ++k) { // what the process takes for good is taken now
            run({&NO_FAULT, 0, false});
        }
        ASSERT_FALSE(HasFailure()) << "nothing has failed yet";
    }
    void TearDown() override { ::alarm(0); }

    /// "<scenario> <kind> <number> <once or ever>", as a failure shows it.
    void replay(const std::string& given)
    {
        std::istringstream words(given);
        std::string name;
        std::string kindName;
        std::string mode;
        int number = 0;
        words >> name >> kindName >> number >> mode;
        if (name != GetParam().name) {
            GTEST_SKIP() << "another scenario";
        }
        const auto& kinds = faultKinds();
        const auto kind = std::find_if(kinds.begin(), kinds.end(), [&](const FaultKind& candidate) {
            return kindName == candidate.name;
        });
        ASSERT_NE(kind, kinds.end()) << "no such call";
        std::printf("%s: %d calls failed\n", given.c_str(), run({&*kind, number, mode == "ever"}));
    }

    /// Calls that failed.
    int run(const Fault& fault)
    {
        std::snprintf(g_label, sizeof g_label, "\nLODESTONE_FAULT=\"%s %s\"\n", GetParam().name,
                      named(fault).c_str());
        ::alarm(PATIENCE_S);
        int hits = 0;
        bool hostIsHere = true;
        {
            FaultCalls calls(fault);
            ScenarioRun scenario(m_port, calls);
            GetParam().run(scenario);
            hostIsHere = scenario.hostIsHere();
            scenario.end();
            expectNone(scenario);
            hits = FaultCalls::hits();
        }
        if (hostIsHere) {
            streamToACleanClient();
        }
        return hits;
    }

    void expectSameHoldings(const Holdings& before)
    {
        const Holdings now;
        EXPECT_TRUE(now == before) << g_label << now.shown() << " instead of " << before.shown();
    }

    /// n = 1, 2, ... until the scenario runs to its end without the fault. Returns the calls that failed.
    int sweep(const FaultKind& kind, bool everAfter)
    {
        int faults = 0;
        for (int number = 1; number < MOST_CALLS && !HasFailure();) {
            const Holdings before;
            const int hits = run({&kind, number, everAfter});
            expectSameHoldings(before);
            if (hits == 0) {
                return faults;
            }
            ++faults;
            number += number == 1 ? 1 + static_cast<int>(m_seed % FAULT_STRIDE) : FAULT_STRIDE;
        }
        EXPECT_TRUE(HasFailure()) << g_label << "is always reached";
        return faults;
    }

    const int m_port = freePort();
    const unsigned m_seed = FAULT_STRIDE == 1 ? 0 : testSeed();

private:
    void expectNone(const ScenarioRun& scenario)
    {
        for (const std::string& text : scenario.violations()) {
            ADD_FAILURE() << g_label << text;
        }
    }

    void streamToACleanClient()
    {
        FaultCalls calls({&NO_FAULT, 0, false});
        ScenarioRun clean(m_port, calls);
        clean.init("2,2,5:3,o:4,o:10,n:20,s");
        clean.apply({3, 4}, true);
        clean.connect(1) && clean.readCycles(1, 2, {{10, 20}}) && clean.readChannel(1, 20, {{10, 20}});
        clean.end();
        expectNone(clean);
    }
};

/// Those that not every scenario makes.
std::set<std::string> reachedBy(FaultCall call)
{
    switch (call) {
    case MMAP:
        return {"Whole", "Split"};
    case ATFORK:
        return {"Unload"};
    case REST:
        return {"HostThatWaits"};
    case POLL:
        return {"Takeover"};
    case IOCTL:
    case GETSOCKOPT:
    case LOOK:
        return {"StalledClient", "FullQueue"};
    default:
        return {};
    }
}

bool mustBeReached(const Scenario& scenario, FaultCall call)
{
    const std::set<std::string> special = reachedBy(call);
    return special.empty() || special.count(scenario.name) != 0;
}

TEST_P(FaultSweep, EachFailedCallIsToldAndLeavesNothing)
{
    if (const char* const given = std::getenv("LODESTONE_FAULT")) {
        replay(given);
        return;
    }
    int total = 0;
    for (const FaultKind& kind : faultKinds()) {
        const int faults = sweep(kind, false) + (kind.error == FaultKind::STANDS ? 0 : sweep(kind, true));
        std::printf("%6d %s\n", faults, kind.name);
        std::fflush(stdout); // or children print it once more
        total += faults;
        ASSERT_FALSE(HasFailure());
        EXPECT_TRUE(faults > 0 || !mustBeReached(GetParam(), kind.call)) << kind.name << " never failed";
    }
    std::printf("%6d faults\n", total);
}

INSTANTIATE_TEST_SUITE_P(, FaultSweep, testing::ValuesIn(scenarios()),
                         [](const auto& test) { return std::string(test.param.name); });

} // namespace
