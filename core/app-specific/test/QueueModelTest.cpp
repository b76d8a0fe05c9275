#include "LiteralQueue.h"
#include "StreamFixture.h"

#include <random>

using Lodestone::CycleJob;

namespace
{

// What the sender would put on the wire for a cycle, without the diagnostics pair.
std::vector<LiteralQueue::Job> jobsOf(const CycleJob& cycle)
{
    std::vector<LiteralQueue::Job> jobs;
    for (auto it = cycle.newest;; --it) {
        for (const Lodestone::StoredBuffer& buffer : it->buffers) {
            const auto part = buffer.noParts == 1 ? 0 : static_cast<int>(cycle.cycleCounter - it->firstCycle);
            const auto size = static_cast<std::size_t>(buffer.byteSize);
            const char* const bytes = reinterpret_cast<const char*>(buffer.payload);
            jobs.push_back(
                {buffer.channelID, size == 0 ? "" : std::string(bytes, size), buffer.noParts, part});
        }
        if (it == cycle.oldest) {
            return jobs;
        }
    }
}

} // namespace

/// Plays host and sender from one thread, at random, and holds every answer and every cycle against plain
/// lists.
class QueueModelTest : public StreamFixture, public ::testing::WithParamInterface<const char*>
{
protected:
    void SetUp() override
    {
        openQueue(GetParam());
        m_probe->playSender();
        Lodestone::ConfigStringParser parser;
        parser.parseString(std::string("0,5000,") + GetParam());
        m_config = parser.getConfig();
        m_model = std::make_unique<LiteralQueue>(m_config);
    }
    void TearDown() override { m_probe->stopPlaying(); }

    int dice(int sides) { return std::uniform_int_distribution<int>(0, sides - 1)(m_random); }

    Frame randomFrame()
    {
        Frame frame;
        const int length = 1 + dice(6);
        for (int k = 0; k < length; ++k) {
            const int channelID = dice(12); // some aren't configured, some stand twice in the array
            frame.emplace_back(channelID, std::string(static_cast<std::size_t>(dice(40)), 'a'));
            for (char& byte : frame.back().second) {
                byte = static_cast<char>(dice(256));
            }
        }
        return frame;
    }

    // With a negative length the host would wait here for the sender, who is the same thread.
    bool wouldWait(const Frame& frame) const
    {
        for (const auto& buffer : frame) {
            if (!m_model->spaceLeft(buffer.first, -m_config.queueLength, false)) {
                return m_config.queueLength < 0;
            }
        }
        return false;
    }

    void deliverToBoth()
    {
        const Frame frame = randomFrame();
        const bool constant = dice(5) == 0;
        if (!constant && wouldWait(frame)) {
            return;
        }
        const Lodestone::PerPackageDiag* const diag = deliver(frame, constant);
        const bool skipped = m_model->deliver(frame, constant ? 1 : std::abs(m_config.queueLength));
        if (diag != nullptr) {
            EXPECT_EQ(diag->skipped != 0, skipped);
        }
        EXPECT_EQ(m_probe->numSkipped(), m_model->numSkipped());
    }

    void takeFromBoth()
    {
        if (m_model->cycles().empty()) {
            return;
        }
        const LiteralQueue::Cycle expected = m_model->take();
        m_inHand = m_probe->take();
        ASSERT_TRUE(m_inHand.taken);
        EXPECT_EQ(static_cast<std::uint32_t>(m_inHand.cycleCounter), expected.counter);
        EXPECT_EQ(m_inHand.diag.numSkipped, static_cast<std::int32_t>(expected.numSkipped));
        EXPECT_EQ(m_inHand.diag.queueLength, static_cast<std::int32_t>(m_model->cycles().size()));
        compareJobs(expected);
    }

    void compareJobs(const LiteralQueue::Cycle& expected)
    {
        const auto jobs = jobsOf(m_inHand);
        ASSERT_EQ(jobs.size(), expected.jobs.size());
        EXPECT_EQ(static_cast<std::size_t>(m_inHand.noJobs), jobs.size());
        auto job = jobs.begin();
        for (const LiteralQueue::Job& other : expected.jobs) {
            EXPECT_EQ(job->channelID, other.channelID);
            EXPECT_EQ(job->bytes, other.bytes);
            EXPECT_EQ(job->noParts, other.noParts);
            EXPECT_EQ(job->partNo, other.partNo);
            ++job;
        }
    }

    void finishBoth()
    {
        if (m_inHand.leftInQueue && dice(4) == 0) {
            m_probe->drop(m_inHand); // the connection was replaced: the cycle is fetched again
            m_inHand = m_probe->take();
            return;
        }
        if (!m_inHand.leftInQueue && dice(4) == 0) {
            m_probe->drop(m_inHand); // the same, but the cycle is lost
        } else {
            m_probe->done(m_inHand);
        }
        m_model->done();
    }

    void resetBoth()
    {
        if (m_inHand.taken) {
            finishBoth();
        }
        m_inHand = CycleJob();
        m_probe->resetPlayed();
        m_model->reset();
        EXPECT_TRUE(m_probe->storeEmpty());
    }

    void compareBacklog()
    {
        EXPECT_EQ(m_probe->queued(), m_model->cycles().size());
        for (int channelID = 0; channelID < 12; ++channelID) {
            for (const int maxAppearance : {1, 2, 3}) {
                for (const bool splitted : {false, true}) {
                    EXPECT_EQ(m_probe->spaceLeft(channelID, maxAppearance, splitted),
                              m_model->spaceLeft(channelID, maxAppearance, splitted))
                        << "channel " << channelID << ", limit " << maxAppearance << ", split " << splitted;
                }
            }
        }
    }

    Lodestone::ConfigStringParser::Config m_config;
    std::unique_ptr<LiteralQueue> m_model;
    CycleJob m_inHand;
    std::mt19937 m_random;
};

TEST_P(QueueModelTest, AnyCourseMatchesPlainLists)
{
    m_random.seed(testSeed());
    for (int step = 0; step < 10000 && !HasFailure(); ++step) {
        const int choice = dice(100);
        if (choice < 45) {
            deliverToBoth();
        } else if (choice == 99) {
            resetBoth();
        } else if (m_inHand.taken) {
            finishBoth();
        } else {
            takeFromBoth();
        }
        compareBacklog();
    }
    if (m_inHand.taken) {
        finishBoth();
    }
}

TEST(ChannelTable, FindsEveryConfiguredChannelAndNoOther)
{
    std::mt19937 random(testSeed());
    for (std::size_t size = 1; size <= 1024; size *= 2) { // powers of two fill the table most
        Lodestone::ConfigStringParser::Config config = {};
        while (config.splitChannels.size() < size) {
            config.splitChannels.insert(static_cast<int>(random() % (size < 1024 ? 4096 : 1U << 31)));
        }
        Lodestone::ChannelTable table(config);
        for (int channelID = -2; channelID < 4096; ++channelID) {
            EXPECT_EQ(table.find(channelID) != nullptr, config.splitChannels.count(channelID) != 0);
        }
        for (const int channelID : config.splitChannels) {
            const Lodestone::Channel* const channel = table.find(channelID);
            ASSERT_NE(channel, nullptr) << channelID;
            EXPECT_EQ(channel->channelID, channelID);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Configurations, QueueModelTest,
                         ::testing::Values("3,2,2:1,n:2,n:3,s:4,s:5,i:0,n", "3,2,-2:1,n:2,n:3,s:4,s:5,i:0,n",
                                           "1,1,3:1,n:2,s:3,i:0,s", "5,3,1:1,s:2,s:3,s:0,i:6,i",
                                           "4,2,-1:1,n:3,s:5,i:0,s", "2,4,200:1,n:2,n:3,s:4,i"));
