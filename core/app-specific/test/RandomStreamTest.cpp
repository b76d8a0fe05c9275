#include "ExactStreamFixture.h"

namespace
{

// Offered in transfers of normal data, at least; of each test, all its cases together.
const int BUFFERS = 1000160;

const int CASES = 8;
const int SCHEDULES = 304; // in all cases together

const int WAIT_CHANNELS = 60; // whole ones in each delivery
const int WAIT_LENGTHS = 3;

} // namespace

/// Random configurations, frames and clients, one schedule after another. The host's decisions follow from
/// the seed; when the threads run does not.
class RandomStreamTest : public ExactStreamFixture, public ::testing::WithParamInterface<int>
{
protected:
    int dice(int sides) { return static_cast<int>(m_random() % static_cast<unsigned>(sides)); }
    StreamReader::Pace pace() { return static_cast<StreamReader::Pace>(dice(StreamReader::NO_PACES)); }

    void schedule(unsigned seed)
    {
        m_random.seed(seed);
        const StreamPlan plan = StreamPlan::random(m_random, true);
        const std::uint32_t largest[] = {8, 300, 300, 3000};
        open(plan, seed, largest[dice(4)]);
        transfer(BUFFERS / SCHEDULES / 2);
        if (dice(2) == 0) {
            loseClient();
        }
        // Else the next client comes before anybody has seen the last one go.
        transfer(BUFFERS / SCHEDULES / 2);
    }

    void transfer(int buffers)
    {
        beginTransfer(pace());
        const int haste = dice(3) == 0 ? 1000000 : 1 + dice(20);
        // A frame in so many, or none: only tagged bytes tell the oracle what was lost there.
        const int takeOvers = m_plan.tagged && dice(2) == 0 ? buffers / 20 : 0;
        for (int left = buffers; left > 0;) {
            // All that stands in the frame is queued if nothing else is.
            const OfferedDelivery& made = m_host->someChannels(m_probe->storeEmpty());
            left -= static_cast<int>(made.buffers.size());
            ASSERT_NO_FATAL_FAILURE(deliverExactly(made, dice(8) == 0));
            if (takeOvers != 0 && dice(takeOvers) == 0) {
                takeOver(pace());
            }
            if (dice(haste) == 0) {
                EXPECT_TRUE(waitFor([this, most = static_cast<std::uint64_t>(dice(3))] {
                    return m_probe->queued() <= most;
                }));
            }
        }
        endTransfer();
    }

    void loseClient()
    {
        m_host->allChannels(); // once: how often it is delivered is no matter of the seed
        EXPECT_TRUE(waitFor([&] {
            deliver(m_host->frame());
            return !m_probe->connected() && !m_probe->senderRunning() && m_probe->storeEmpty();
        }));
    }

    std::mt19937 m_random;
};

TEST_P(RandomStreamTest, EveryBufferComesOrIsCountedInEveryCycle)
{
    const unsigned seed = testSeed();
    const int schedules = SCHEDULES / LODESTONE_TEST_SHARE / CASES;
    for (int k = 0; k < schedules && !HasFailure(); ++k) {
        SCOPED_TRACE("schedule " + std::to_string(k));
        schedule(seed + static_cast<unsigned>(GetParam() * SCHEDULES + k));
    }
    EXPECT_GE(m_counts.offered, static_cast<unsigned>(schedules * (BUFFERS / SCHEDULES)));
    EXPECT_TRUE(m_counts.closed());
    std::printf("%d schedules: %s\n", schedules, m_counts.text().c_str());
}

INSTANTIATE_TEST_SUITE_P(Part, RandomStreamTest, ::testing::Range(0, CASES));

/// A host with a negative queue length loses nothing, whoever reads.
class WaitModeTest : public ExactStreamFixture, public ::testing::WithParamInterface<int>
{
};

TEST_P(WaitModeTest, EveryWholeBufferComesInOrder)
{
    StreamPlan plan;
    plan.queueLength = -GetParam();
    for (int channelID = 1; channelID <= WAIT_CHANNELS; ++channelID) {
        plan.channels[channelID] = 'n';
    }
    const int deliveries =
        BUFFERS / LODESTONE_TEST_SHARE / (WAIT_LENGTHS * StreamReader::NO_PACES * WAIT_CHANNELS) + 1;
    open(plan, testSeed(), 40);
    for (int pace = 0; pace < StreamReader::NO_PACES; ++pace) {
        beginTransfer(static_cast<StreamReader::Pace>(pace));
        for (int k = 0; k < deliveries && !HasFailure(); ++k) {
            deliverExactly(m_host->allChannels());
        }
        endTransfer();
        // As the sender saw it, the cycle in its hand included.
        EXPECT_LE(m_oracle->longestQueue(), static_cast<unsigned>(GetParam()));
        EXPECT_TRUE(m_oracle->longestQueue() > 1 || GetParam() == 1) << "the host waited for an empty queue";
    }
    const auto wanted = static_cast<unsigned>(StreamReader::NO_PACES * (deliveries + 1) * WAIT_CHANNELS);
    EXPECT_EQ(m_counts.offered, wanted);
    EXPECT_EQ(m_counts.arrived, wanted);
    EXPECT_EQ(m_counts.cycles, wanted / WAIT_CHANNELS);
    EXPECT_TRUE(m_waits > 0 || GetParam() > 1) << "in step with the wire";
    std::printf("%s; %d deliveries waited\n", m_counts.text().c_str(), m_waits);
}

INSTANTIATE_TEST_SUITE_P(Lengths, WaitModeTest, ::testing::Values(1, 2, 20));
