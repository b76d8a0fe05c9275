#include "FaultCalls.h"
#include "Lodestone.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace
{

const int MOST_CALLS = 3000; // in one run of a scenario

/// One fault after the other in one scenario, each followed by a client that must find nothing wrong.
class FaultSweep : public testing::TestWithParam<Scenario>
{
protected:
    void SetUp() override
    {
        const std::string longest(200, 'x'); // the error text keeps the memory that it once had
        Lodestone::Lodestone_Init(1, longest + ",1,1,1,1");
        for (int k = 0; k < 3; ++k) { // what the process takes for good is taken now
            run(Fault());
        }
        ASSERT_FALSE(HasFailure()) << "nothing has failed yet";
    }

    /// "<scenario> <kind> <number> <once or ever>", as a failure shows it.
    void replay(const std::string& given)
    {
        std::istringstream words(given);
        std::string scenario;
        std::string kind;
        std::string mode;
        Fault fault;
        words >> scenario >> kind >> fault.number >> mode;
        if (scenario != GetParam().name) {
            GTEST_SKIP() << "another scenario";
        }
        for (const FaultKind& candidate : faultKinds()) {
            fault.kind = candidate.name() == kind ? &candidate : fault.kind;
        }
        ASSERT_EQ(fault.kind->name(), kind) << "no such call";
        fault.everAfter = mode == "ever";
        std::printf("%s: %d calls failed\n", given.c_str(), run(fault));
    }

    /// Calls that failed.
    int run(const Fault& fault)
    {
        labelRun("LODESTONE_FAULT=\"" + std::string(GetParam().name) + " " + fault.kind->name() + " " +
                 std::to_string(fault.number) + (fault.everAfter ? " ever\"" : " once\""));
        bool hostIsHere = true;
        {
            FaultCalls calls(fault);
            ScenarioRun scenario(m_port, calls);
            GetParam().run(scenario);
            hostIsHere = scenario.hostIsHere();
            scenario.end();
        }
        const int hits = FaultCalls::hits();
        if (hostIsHere) {
            streamToACleanClient();
        }
        return hits;
    }

    /// n = 1, 2, ... until the scenario runs to its end without the fault. Returns the calls that failed.
    int sweep(const FaultKind& kind, bool everAfter)
    {
        int faults = 0;
        for (int number = 1; number < MOST_CALLS && !HasFailure();) {
            const Holdings before;
            const int threads = FaultCalls::threadsUnjoined();
            const int hits = run({&kind, number, everAfter});
            EXPECT_EQ(Holdings(), before);
            EXPECT_EQ(FaultCalls::threadsUnjoined(), threads);
            EXPECT_FALSE(HasFailure()) << runLabel();
            if (hits == 0) {
                return faults;
            }
            ++faults;
            number += number == 1 ? 1 + static_cast<int>(m_seed % FAULT_STRIDE) : FAULT_STRIDE;
        }
        EXPECT_TRUE(HasFailure()) << kind.name() << " is always reached";
        return faults;
    }

private:
    void streamToACleanClient()
    {
        FaultCalls calls((Fault()));
        ScenarioRun clean(m_port, calls);
        clean.init("2,2,5:3,o:4,o:10,n:20,s");
        clean.apply({3, 4}, true);
        clean.connect(1) && clean.readCycles(1, 2, {{10, 20}}) && clean.readChannel(1, 20, {{10, 20}});
        clean.end();
    }

    const int m_port = freePort();
    const unsigned m_seed = FAULT_STRIDE == 1 ? 0 : testSeed();
};

bool mustMake(const Scenario& scenario, const FaultKind& kind)
{
    const auto& names = kind.scenarios;
    return names.empty() || std::count(names.begin(), names.end(), scenario.name) != 0;
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
        std::printf("%6d %s\n", faults, kind.name().c_str());
        std::fflush(stdout); // or children print it once more
        total += faults;
        ASSERT_FALSE(HasFailure());
        EXPECT_TRUE(faults > 0 || !mustMake(GetParam(), kind)) << kind.name() << " never failed";
    }
    std::printf("%6d faults\n", total);
}

INSTANTIATE_TEST_SUITE_P(, FaultSweep, testing::ValuesIn(scenarios()),
                         [](const auto& test) { return std::string(test.param.name); });

} // namespace
