#include "ExactStreamFixture.h"

#include <tuple>

namespace
{

typedef CheckingReader::Pace Pace;

const int CHANNELS = 60;         // whole ones in each delivery
const int BUFFERS = 1000000 / 9; // of each case: in all of them a million, and some for the last frame

std::string nameOf(const ::testing::TestParamInfo<std::tuple<int, Pace>>& info)
{
    const char* const names[] = {"Fast", "Slow", "Stuttering"};
    return std::to_string(-std::get<0>(info.param)) + names[static_cast<int>(std::get<1>(info.param))];
}

} // namespace

/// A host with a negative queue length loses nothing, whoever reads.
class WaitModeTest : public ExactStreamFixture, public ::testing::WithParamInterface<std::tuple<int, Pace>>
{
};

TEST_P(WaitModeTest, EveryWholeBufferComesInOrder)
{
    const unsigned seed = testSeed();
    StreamPlan plan;
    plan.queueLength = std::get<0>(GetParam());
    for (int channelID = 1; channelID <= CHANNELS; ++channelID) {
        plan.channels[channelID] = 'n';
    }
    open(plan, seed, 40);
    beginTransfer(std::get<1>(GetParam()));
    const int deliveries = shareOf(BUFFERS) / CHANNELS + 1;
    for (int k = 0; k < deliveries && !HasFailure(); ++k) {
        deliverExactly(m_host->allChannels());
    }
    endTransfer();
    std::uint64_t longest = 0; // as the sender saw it, the cycle in its hand included
    for (const auto& cycle : m_cycles) {
        longest = std::max(longest, cycle.first.diag(0));
    }
    const auto wanted = static_cast<std::uint64_t>(deliveries + 1) * CHANNELS;
    EXPECT_EQ(m_counts.offered, wanted);
    EXPECT_EQ(m_counts.delivered, wanted);
    EXPECT_EQ(m_counts.skipped + m_counts.dropped + m_counts.notDue, 0U);
    EXPECT_EQ(m_counts.cycles, wanted / CHANNELS);
    EXPECT_LE(longest, static_cast<std::uint64_t>(-plan.queueLength));
    EXPECT_TRUE(m_waits > 0 || plan.queueLength < -1) << "in step with the wire";
    std::printf("%llu whole buffers, none missing; at most %llu cycles queued; %d deliveries waited\n",
                static_cast<unsigned long long>(wanted), static_cast<unsigned long long>(longest), m_waits);
}

INSTANTIATE_TEST_SUITE_P(Lengths, WaitModeTest,
                         ::testing::Combine(::testing::Values(-1, -2, -20),
                                            ::testing::Values(Pace::FAST, Pace::SLOW, Pace::STUTTERING)),
                         nameOf);
