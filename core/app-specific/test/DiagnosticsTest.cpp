#include "HostFixture.h"
#include "LibraryCalls.h"
#include "sonde_ld_data.h"

#include <algorithm>
#include <chrono>
#include <cstring>

using namespace LibraryCalls;

namespace
{

/// One package of a cycle's record, read at its offsets on the wire.
struct Package
{
    Package(const WireCycle& cycle, std::size_t slot)
    {
        const auto read = [&](std::size_t offset, auto& value) {
            const std::uint64_t bits = cycle.diag(8 + 40 * slot + offset, sizeof value);
            std::memcpy(&value, &bits, sizeof value);
        };
        read(0, queuePtr);
        read(4, firstChannelID);
        read(8, waitedForQueue);
        read(12, skipped);
        read(16, runtime);
        read(20, maxRuntime);
        read(24, cumRuntime);
        read(32, numCalls);
        read(36, avgRuntime);
    }

    std::uint32_t queuePtr, firstChannelID, waitedForQueue, skipped, numCalls;
    float runtime, maxRuntime, avgRuntime;
    double cumRuntime;
};

std::uint64_t queueLengthOf(const WireCycle& cycle)
{
    return cycle.diag(0);
}

std::uint64_t numSkippedOf(const WireCycle& cycle)
{
    return cycle.diag(4);
}

} // namespace

/// The record that every NORMAL cycle ends with, driven by the public functions. Queues are long where a test
/// isn't about their limit, for the host runs ahead until a client is there.
class DiagnosticsTest : public HostFixture
{
protected:
    /// Delivers until the transfer carries normal data and all of it has been read; the number of deliveries.
    /// Channel 11 is for the mark behind them: it must be free, or the mark is skipped.
    static std::uint32_t reachNormalData(StreamClient& client, const Frame& frame)
    {
        std::uint32_t deliveries = 0;
        EXPECT_TRUE(waitFor([&] {
            if (!client.somethingWaits()) {
                deliver(frame);
                ++deliveries;
            }
            return client.somethingWaits();
        }));
        cycleOf(client, {{11, "mark"}}, 11);
        return deliveries;
    }

    /// The first cycle of the newest delivery to a channel, which is free; that of the constant buffers comes
    /// ahead of it.
    static WireCycle cycleOf(StreamClient& client, const Frame& frame, int channelID = 10)
    {
        deliver(frame);
        WireCycle cycle;
        do {
            cycle = client.readCycle();
        } while (cycle.complete && cycle.find(channelID) == nullptr);
        EXPECT_TRUE(cycle.complete);
        return cycle;
    }
};

TEST_F(DiagnosticsTest, RecordShowsThePackagesUpToTheFrameBeforeAndConstantBuffersShareTheRunTime)
{
    const Frame frame = {{10, "x"}};
    start("1,1,1000000:1,n:10,n:11,n");
    // Nobody sees these, but they count. Constant buffers are delivered again with every frame.
    deliver({{1, "constant"}}, true);
    deliver(frame);
    StreamClient client(m_port);
    const std::uint32_t calls = 1 + reachNormalData(client, frame);
    const auto start = std::chrono::system_clock::now(); // the library's clock
    const WireCycle cycles[] = {
        cycleOf(client, frame),
        cycleOf(client, {{1, "the constant package's channel"}, {10, "x"}}),
        cycleOf(client, frame),
        cycleOf(client, frame),
    };
    const std::chrono::duration<double, std::milli> passed = std::chrono::system_clock::now() - start;
    const std::uint32_t constantCalls[] = {0, 1, 3, 4};
    const std::uint32_t frameCalls[] = {0, 1, 1, 2};
    for (std::size_t k = 0; k < 4; ++k) {
        const Package constant(cycles[k], 0);
        const Package frames(cycles[k], 1);
        EXPECT_EQ(constant.firstChannelID, 1U);
        EXPECT_EQ(constant.numCalls, 3 + calls + constantCalls[k]) << k;
        EXPECT_EQ(frames.firstChannelID, 10U);
        EXPECT_EQ(frames.numCalls, calls + frameCalls[k]) << k;
        EXPECT_EQ(frames.queuePtr, constant.queuePtr);
        // A wider machine shows the lower half of an address, which may be 0.
        EXPECT_TRUE(frames.queuePtr != 0 || sizeof(void*) > sizeof frames.queuePtr);
        EXPECT_TRUE(k % 2 == 0 || frames.runtime == constant.runtime) << k;
    }
    const Package before(cycles[2], 0);
    const Package after(cycles[3], 0);
    EXPECT_EQ(after.cumRuntime, before.cumRuntime + static_cast<double>(after.runtime));
    EXPECT_EQ(after.maxRuntime, std::max(before.maxRuntime, after.runtime));
    EXPECT_EQ(after.avgRuntime, static_cast<float>(after.cumRuntime / after.numCalls));
    EXPECT_LE(Package(cycles[3], 1).cumRuntime - Package(cycles[0], 1).cumRuntime, passed.count())
        << "milliseconds";
    ASSERT_NE(cycles[3].find(10998), nullptr);
    EXPECT_EQ(cycles[3].find(10998)->payload.substr(8 + 3 * 40), std::string(80, '\0'))
        << "slots nobody uses";
    deliver(frame);
    const WireCycle first = client.readCycle();
    const WireCycle second = client.readCycle();
    EXPECT_EQ(first.channels(), std::vector<std::int32_t>{1}) << "constant buffers come first";
    EXPECT_EQ(second.channels(), std::vector<std::int32_t>{10});
    EXPECT_EQ(Package(first, 0).numCalls, Package(second, 0).numCalls) << "of one call";
}

TEST_F(DiagnosticsTest, HostThatWaitedSaysSo)
{
    start("1,1,-1:10,n:11,n");
    StreamClient client(m_port);
    reachNormalData(client, {{10, "x"}});
    Hold inHand(SEND, SENDER);
    deliver({{10, "in hand"}});
    EXPECT_TRUE(inHand.awaitHeld());
    deliver({{11, "beside it"}});
    g_atRest = [&inHand] { inHand.release(); };
    deliver({{10, "waits"}});
    g_atRest = nullptr;
    const unsigned waited[] = {0, 0, 1};
    for (std::size_t k = 0; k < 3; ++k) {
        const WireCycle cycle = client.readCycle();
        EXPECT_EQ(Package(cycle, k == 1 ? 1 : 0).waitedForQueue, waited[k]) << k;
        EXPECT_EQ(numSkippedOf(cycle), 0U);
    }
}

TEST_F(DiagnosticsTest, PairStandsLastWithItsDescriptionAndTheLengthOfTheQueue)
{
    const void* description = nullptr;
    sonde_size_t size = 0;
    sondeGet_LodestoneDiag(&description, &size);
    const struct
    {
        const char* config;
        unsigned queueLength[3]; // a negative length counts the cycle that is sent
    } cases[] = {{"3,1,5:20,s:10,n:11,n", {2, 1, 0}}, {"3,1,-5:20,s:10,n:11,n", {3, 2, 1}}};
    for (const auto& c : cases) {
        start(c.config);
        StreamClient client(m_port);
        reachNormalData(client, {{10, "x"}});
        deliver({{20, "abc"}});
        for (const unsigned queueLength : c.queueLength) {
            const WireCycle cycle = client.readCycle();
            ASSERT_EQ(cycle.entries.size(), 3U);
            EXPECT_EQ(cycle.entries[0].channelID, 20);
            EXPECT_EQ(queueLengthOf(cycle), queueLength) << c.config;
            const WireEntry& record = cycle.entries[1];
            const WireEntry& layout = cycle.entries[2];
            EXPECT_TRUE(record.channelID == 10998 && layout.channelID == 10999);
            EXPECT_EQ(record.totalSize, 208);
            EXPECT_EQ(layout.payload, std::string(static_cast<const char*>(description), size));
        }
    }
}
