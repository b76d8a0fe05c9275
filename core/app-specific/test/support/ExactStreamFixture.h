#ifndef LODESTONE_TEST_EXACTSTREAMFIXTURE_H
#define LODESTONE_TEST_EXACTSTREAMFIXTURE_H

#include "CheckingReader.h"
#include "RandomHost.h"
#include "StreamFixture.h"
#include "StreamOracle.h"

#include <cstdio>
#include <deque>
#include <random>
#include <string>
#include <utility>

// By how much sanitizers and emulation make a test slower, and its counts smaller.
#ifndef LODESTONE_TEST_SHARE
#define LODESTONE_TEST_SHARE 1
#endif

/// Transfers of which the fate of every buffer is known on the host's side, and checked on the reader's.
class ExactStreamFixture : public StreamFixture
{
protected:
    typedef CheckingReader::Pace Pace;

    /// A total for the builds that run at full speed; a share of it, said so, for the others.
    static int shareOf(int total)
    {
        if (LODESTONE_TEST_SHARE > 1) {
            std::printf("This build (sanitizer or emulation) runs 1/%d of %d.\n", LODESTONE_TEST_SHARE,
                        total);
        }
        return total / LODESTONE_TEST_SHARE;
    }

    int dice(int sides) { return static_cast<int>(m_random() % static_cast<unsigned>(sides)); }

    void open(const StreamPlan& plan, unsigned seed, std::uint32_t largest)
    {
        m_plan = plan;
        m_host = std::make_unique<RandomHost>(plan, seed, largest);
        openQueue(plan.text());
    }

    /// Hands the queue the host's last delivery.
    Lodestone::PerPackageDiag* callQueue(bool constant = false)
    {
        std::vector<AlgoMeasBuffer>& array = m_host->array();
        return m_queue->addBuffers(array.data(), static_cast<std::uint32_t>(array.size()), constant);
    }

    void beginTransfer(Pace pace)
    {
        m_cycles.clear();
        m_takenOverAt = 0;
        m_oracle = std::make_unique<StreamOracle>(m_plan, m_host->number() + 1, true);
        m_reader = std::make_unique<CheckingReader>(
            connectClient(pace == Pace::FAST ? 0 : 4096), pace, m_host->number(),
            [this](const WireCycle& cycle, bool isNew) { m_cycles.emplace_back(cycle, isNew); });
        m_plan.hasOnce() ? m_host->onceChannels() : m_host->allChannels();
        ASSERT_TRUE(waitFor([&] {
            if (m_probe->state() == 2 && m_probe->senderRunning() && !m_probe->restartMarked()) {
                return true;
            }
            callQueue();
            return false;
        }));
    }

    /// Delivers what the host made last, in a transfer of normal data.
    void deliverExactly(OfferedDelivery delivery, bool constant = false)
    {
        delivery.constant = constant;
        delivery.hostTold = true;
        delivery.slack = m_reader != nullptr ? 1 : 0;
        delivery.frontBefore = m_probe->frontCycle();
        const std::uint32_t skippedBefore = m_probe->numSkipped();
        const bool emptyBefore = m_probe->storeEmpty();
        const Lodestone::PerPackageDiag* const diag = callQueue(constant);
        ASSERT_EQ(diag == nullptr, delivery.buffers.empty());
        if (m_reader != nullptr) {
            m_reader->beat();
        }
        if (diag == nullptr) {
            return;
        }
        m_waits += diag->waitedForQueue;
        EXPECT_TRUE(diag->waitedForQueue == 0 || !emptyBefore);
        delivery.frontAfter = m_probe->frontCycle();
        delivery.numSkipped = m_probe->numSkipped();
        for (OfferedBuffer& buffer : delivery.buffers) {
            buffer.fate =
                m_probe->queuedLast(buffer.channelID) ? OfferedBuffer::QUEUED : OfferedBuffer::SKIPPED;
        }
        EXPECT_EQ(diag->skipped != 0, delivery.numSkipped != skippedBefore);
        m_oracle->offer(delivery);
    }

    /// Another client takes over and the reader goes on with it; not before a cycle has come that was made
    /// after the last takeover, and with it the account of what was lost there.
    void takeOver()
    {
        if (m_reader->settledIn() && m_reader->nextCycle() > m_takenOverAt) {
            m_reader->goOnWith(connectClient());
            m_takenOverAt = m_probe->nextCycle();
        }
    }

    /// Waits for the end of the stream and checks all of it.
    void endTransfer()
    {
        EXPECT_TRUE(waitFor([&] { return m_probe->storeEmpty(); }));
        m_reader->hurry();
        deliverExactly(m_host->allChannels()); // its record tells of all before
        EXPECT_TRUE(waitFor([&] {
            return m_probe->storeEmpty() && m_reader->nextCycle() == m_probe->nextCycle();
        })) << "cycles up to "
            << m_probe->nextCycle() << " were made, up to " << m_reader->nextCycle() << " came";
        EXPECT_FALSE(m_reader->broken());
        m_reader.reset();
        for (const auto& cycle : m_cycles) {
            m_oracle->check(cycle.first, cycle.second);
        }
        finishOracle();
        m_counts += m_oracle->counts();
    }

    void finishOracle()
    {
        m_oracle->finish();
        EXPECT_EQ(m_oracle->numSkipped(), m_probe->numSkipped());
        EXPECT_EQ(m_oracle->faults(), std::vector<std::string>()) << m_plan.text();
    }

    std::mt19937 m_random;
    StreamPlan m_plan;
    std::unique_ptr<RandomHost> m_host;
    std::unique_ptr<StreamOracle> m_oracle;
    std::deque<std::pair<WireCycle, bool>> m_cycles; // as they came
    std::unique_ptr<CheckingReader> m_reader;        // after what it fills
    std::uint64_t m_takenOverAt = 0;                 // cycles made by then
    int m_waits = 0;                                 // deliveries that waited for room
    StreamOracle::Counts m_counts;                   // of all transfers
};

#endif
