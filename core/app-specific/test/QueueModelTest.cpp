#include "ExactStreamFixture.h"

#include <algorithm>
#include <iterator>

using Lodestone::CycleJob;

/// Plays host and sender from one thread, at random. As nothing moves meanwhile, the oracle knows exactly
/// what must become of each buffer.
class QueueModelTest : public ExactStreamFixture
{
protected:
    void openRandom()
    {
        StreamPlan plan = StreamPlan::random(m_random, true);
        for (auto& channel : plan.channels) {
            channel.second = channel.second == 'o' ? 'n' : channel.second;
        }
        open(plan, static_cast<unsigned>(dice(1 << 30)), 100);
        m_probe->playSender();
        beginOracle();
    }

    void beginOracle()
    {
        m_oracle = std::make_unique<StreamOracle>(m_plan, 0, true);
        m_lostLast = false;
        m_mayLose = false;
    }

    // With a negative length the host would wait here for the sender, who is the same thread.
    bool wouldWait(const OfferedDelivery& delivery)
    {
        const auto& buffers = delivery.buffers;
        return std::any_of(buffers.begin(), buffers.end(), [this](const OfferedBuffer& buffer) {
            return m_plan.queueLength < 0 &&
                   !m_probe->spaceLeft(buffer.channelID, -m_plan.queueLength, false);
        });
    }

    // What the sender would put on the wire.
    WireCycle wireOf(const CycleJob& job)
    {
        WireCycle cycle;
        cycle.counter = static_cast<std::uint32_t>(job.cycleCounter);
        for (auto it = job.newest;; --it) {
            for (const Lodestone::StoredBuffer& buffer : it->buffers) {
                const auto part =
                    buffer.noParts == 1 ? 0 : static_cast<int>(job.cycleCounter - it->firstCycle);
                Lodestone::SendJob slice(&buffer, buffer.noParts, part);
                m_probe->calcOffsetLength(slice);
                const char* const bytes = reinterpret_cast<const char*>(buffer.payload) + slice.partOffset;
                const auto size = static_cast<std::size_t>(slice.partByteSize);
                cycle.entries.push_back({buffer.channelID, buffer.noParts, buffer.byteSize, part,
                                         size == 0 ? "" : std::string(bytes, size)});
            }
            if (it == job.oldest) {
                break;
            }
        }
        EXPECT_EQ(static_cast<std::size_t>(job.noJobs), cycle.entries.size());
        const std::string record(reinterpret_cast<const char*>(&job.diag), sizeof job.diag);
        cycle.entries.push_back({10998, 1, 208, 0, record});
        cycle.entries.push_back({10999, 1, 256, 0, std::string(256, '\0')});
        return cycle;
    }

    void finishCycle(bool mayDrop)
    {
        const bool dropped = mayDrop && dice(4) == 0; // the connection was replaced
        if (dropped && m_inHand.leftInQueue) {
            m_probe->drop(m_inHand);
            m_inHand = m_probe->take(); // again
            return;
        }
        const bool lost = dropped && m_mayLose;
        if (!lost) {
            m_oracle->check(wireOf(m_inHand), m_lostLast);
        }
        lost ? m_probe->drop(m_inHand) : m_probe->done(m_inHand);
        m_lostLast = lost;
        m_mayLose = !lost && m_plan.tagged && m_oracle->lossIsSettled();
    }

    void step()
    {
        const int choice = dice(100);
        if (choice < 45) {
            const OfferedDelivery& made = m_host->someChannels(100, true);
            deliverExactly(made, dice(5) == 0 || wouldWait(made));
        } else if (choice == 99) {
            if (m_inHand.taken) {
                finishCycle(false);
            }
            EXPECT_EQ(m_oracle->faults(), std::vector<std::string>()) << m_plan.text();
            m_probe->resetPlayed();
            EXPECT_TRUE(m_probe->storeEmpty());
            beginOracle();
        } else if (m_inHand.taken) {
            finishCycle(true);
        } else {
            m_inHand = m_probe->take();
        }
    }

    CycleJob m_inHand;
    bool m_lostLast = false;
    bool m_mayLose = false; // the oracle can tell what a cycle held that is lost now
};

TEST_F(QueueModelTest, AnyCourseIsAsTheOracleSays)
{
    const unsigned seed = testSeed();
    for (unsigned course = 0; course < 60 && !HasFailure(); ++course) {
        m_random.seed(seed + course);
        openRandom();
        for (int k = 0; k < 1000 && !HasFailure(); ++k) {
            step();
        }
        deliverExactly(m_host->allChannels(), true); // its record tells of all before
        while (m_inHand.taken || m_probe->queued() != 0) {
            m_inHand.taken ? finishCycle(false) : static_cast<void>(m_inHand = m_probe->take());
        }
        finishOracle();
        EXPECT_TRUE(m_probe->storeEmpty());
        m_probe->stopPlaying();
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
