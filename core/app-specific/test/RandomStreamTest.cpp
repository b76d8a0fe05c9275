#include "ExactStreamFixture.h"

namespace
{

const int CASES = 8;
const int SCHEDULES = 304;   // in all cases together
const int BUFFERS = 1000160; // offered in transfers of normal data, in all of them together

} // namespace

/// Random configurations, frames and clients, one schedule after another. The host's decisions follow from
/// the seed; when the threads run does not.
class RandomStreamTest : public ExactStreamFixture, public ::testing::WithParamInterface<int>
{
protected:
    void schedule(unsigned seed, int buffers)
    {
        m_random.seed(seed);
        const StreamPlan plan = StreamPlan::random(m_random, true);
        const std::uint32_t largest[] = {8, 300, 300, 3000};
        open(plan, seed, largest[dice(4)]);
        transfer(buffers / 2);
        if (dice(2) == 0) {
            loseClient();
        }
        transfer(buffers - buffers / 2); // else the next client comes before anybody has seen the last one go
    }

    void transfer(int buffers)
    {
        const Pace paces[] = {Pace::FAST, Pace::SLOW, Pace::STUTTERING};
        ASSERT_NO_FATAL_FAILURE(beginTransfer(paces[dice(3)]));
        const int haste = dice(3) == 0 ? 1000000 : 1 + dice(20);
        // A frame in so many, or none: only tagged bytes tell the oracle what was lost there.
        const int takeOvers = m_plan.tagged && dice(2) == 0 ? buffers / 20 : 0;
        // The last delivery counts too, and has all channels.
        int left = buffers - static_cast<int>(m_host->allChannels().buffers.size());
        while (left > 0) {
            const OfferedDelivery& made = m_host->someChannels(static_cast<std::size_t>(left));
            left -= static_cast<int>(made.buffers.size());
            ASSERT_NO_FATAL_FAILURE(deliverExactly(made, dice(8) == 0));
            if (takeOvers != 0 && dice(takeOvers) == 0) {
                takeOver();
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
            callQueue();
            return !m_probe->connected() && !m_probe->senderRunning() && m_probe->storeEmpty();
        }));
    }
};

TEST_P(RandomStreamTest, EveryBufferComesOrIsCountedInEveryCycle)
{
    const unsigned seed = testSeed();
    const int schedules = shareOf(SCHEDULES) / CASES;
    for (int k = 0; k < schedules && !HasFailure(); ++k) {
        SCOPED_TRACE("schedule " + std::to_string(k));
        schedule(seed + static_cast<unsigned>(GetParam() * SCHEDULES + k), BUFFERS / SCHEDULES);
    }
    const auto shown = [](std::uint64_t count) { return static_cast<unsigned long long>(count); };
    std::printf("%llu buffers in %d schedules: %llu delivered, %llu skipped, %llu not due, %llu dropped at "
                "takeovers; "
                "%llu cycles\n",
                shown(m_counts.offered), schedules, shown(m_counts.delivered), shown(m_counts.skipped),
                shown(m_counts.notDue), shown(m_counts.dropped), shown(m_counts.cycles));
    EXPECT_EQ(m_counts.offered, static_cast<unsigned>(schedules * (BUFFERS / SCHEDULES)));
    EXPECT_TRUE(m_counts.closed());
}

INSTANTIATE_TEST_SUITE_P(Part, RandomStreamTest, ::testing::Range(0, CASES));
