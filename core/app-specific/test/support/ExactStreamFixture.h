#ifndef LODESTONE_TEST_EXACTSTREAMFIXTURE_H
#define LODESTONE_TEST_EXACTSTREAMFIXTURE_H

#include "RandomHost.h"
#include "StreamFixture.h"
#include "StreamOracle.h"
#include "StreamReader.h"

#include <cstdio>

// By how much sanitizers and emulation make a test slower, and its counts smaller. It prints them.
#ifndef LODESTONE_TEST_SHARE
#define LODESTONE_TEST_SHARE 1
#endif

/// Transfers of which the fate of every buffer is known on the host's side, and checked on the reader's.
class ExactStreamFixture : public StreamFixture
{
protected:
    void open(const StreamPlan& plan, unsigned seed, std::uint32_t largest)
    {
        m_plan = plan;
        m_host = std::make_unique<RandomHost>(plan, seed, largest);
        openQueue(plan.text());
    }

    void beginTransfer(StreamReader::Pace pace)
    {
        m_takenOverAt = 0;
        m_oracle = std::make_unique<StreamOracle>(m_plan, m_host->number() + 1, true, m_counts);
        read(connectClient(pace == StreamReader::FAST ? 0 : 4096), pace);
        m_plan.channelsOf(true).empty() ? m_host->allChannels() : m_host->onceChannels();
        reachNormalData(m_host->frame());
    }

    /// Delivers what the host made last, in a transfer of normal data.
    void deliverExactly(OfferedDelivery delivery, bool constant = false)
    {
        const std::uint64_t front = m_probe->frontCycle();
        const std::uint32_t skippedBefore = m_probe->numSkipped();
        const bool emptyBefore = m_probe->storeEmpty();
        const Lodestone::PerPackageDiag* const diag = deliver(m_host->frame(), constant);
        ASSERT_EQ(diag == nullptr, delivery.buffers.empty());
        if (diag == nullptr) {
            return;
        }
        m_waits += diag->waitedForQueue;
        EXPECT_TRUE(diag->waitedForQueue == 0 || (m_plan.queueLength < 0 && !emptyBefore && !constant));
        delivery.constant = constant;
        delivery.hostTold = true;
        delivery.oldestFront = front;
        delivery.newestFront = m_probe->frontCycle();
        delivery.numSkipped = m_probe->numSkipped();
        for (OfferedBuffer& buffer : delivery.buffers) {
            const bool queued = m_probe->queuedLast(buffer.channelID);
            buffer.fate = queued ? OfferedBuffer::QUEUED : OfferedBuffer::SKIPPED;
        }
        EXPECT_EQ(diag->skipped != 0, delivery.numSkipped != skippedBefore);
        m_oracle->offer(delivery);
    }

    /// Another client takes over; not before a cycle has come that was made after the last takeover, and with
    /// it the account of what was lost there.
    void takeOver(StreamReader::Pace pace)
    {
        if (m_reader->nextCycle() > m_takenOverAt) {
            auto client = connectClient();
            EXPECT_TRUE(waitFor([&] { return m_reader->ended(); }));
            checkAll();
            m_takenOverAt = m_probe->nextCycle();
            read(std::move(client), pace);
        }
    }

    /// Waits for the end of the stream and checks all of it.
    void endTransfer()
    {
        EXPECT_TRUE(waitFor([&] { return m_probe->storeEmpty(); }));
        deliverExactly(m_host->allChannels()); // its record tells of all before
        EXPECT_TRUE(waitFor([&] {
            return m_probe->storeEmpty() && m_reader->nextCycle() == m_probe->nextCycle();
        })) << "cycles up to "
            << m_probe->nextCycle() << " were made, up to " << m_reader->nextCycle() << " came";
        checkAll();
        m_reader.reset();
        m_oracle->finish();
        EXPECT_EQ(m_oracle->numSkipped(), m_probe->numSkipped());
        EXPECT_EQ(m_oracle->faults(), std::vector<std::string>()) << m_plan.text();
    }

    StreamPlan m_plan;
    std::unique_ptr<RandomHost> m_host;
    StreamOracle::Counts m_counts; // of all transfers
    std::unique_ptr<StreamOracle> m_oracle;
    std::unique_ptr<StreamReader> m_reader;
    int m_waits = 0; // deliveries that waited for room

private:
    void read(std::unique_ptr<StreamClient> client, StreamReader::Pace pace)
    {
        m_reader = std::make_unique<StreamReader>(std::move(client), pace, m_host->number());
    }

    // What the present connection has brought.
    void checkAll()
    {
        WireCycle cycle;
        for (bool first = m_takenOverAt != 0; m_reader->take(cycle); first = false) {
            m_oracle->check(cycle, first);
        }
    }

    std::uint64_t m_takenOverAt = 0; // cycles made by then
};

#endif
