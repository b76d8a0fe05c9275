#include "HostFixture.h"
#include "sonde_ld_data.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace
{

template<typename T>
T valueAt(const std::string& bytes, std::size_t offset)
{
    T value = T();
    if (offset + sizeof value <= bytes.size()) {
        std::memcpy(&value, bytes.data() + offset, sizeof value);
    }
    return value;
}

/// One package of a cycle's record, read at its offsets on the wire.
struct Package
{
    Package() = default;
    Package(const WireCycle& cycle, std::size_t slot)
    {
        const WireEntry* const entry = cycle.find(10998);
        const std::string bytes = entry != nullptr ? entry->payload.substr(8 + 40 * slot, 40) : "";
        queuePtr = valueAt<std::uint32_t>(bytes, 0);
        firstChannelID = valueAt<std::uint32_t>(bytes, 4);
        waitedForQueue = valueAt<std::uint32_t>(bytes, 8);
        skipped = valueAt<std::uint32_t>(bytes, 12);
        runtime = valueAt<float>(bytes, 16);
        maxRuntime = valueAt<float>(bytes, 20);
        cumRuntime = valueAt<double>(bytes, 24);
        numCalls = valueAt<std::uint32_t>(bytes, 32);
        avgRuntime = valueAt<float>(bytes, 36);
    }

    std::uint32_t queuePtr = 0, firstChannelID = 0, waitedForQueue = 0, skipped = 0, numCalls = 0;
    float runtime = 0, maxRuntime = 0, avgRuntime = 0;
    double cumRuntime = 0;
};

std::uint64_t queueLengthOf(const WireCycle& cycle)
{
    return cycle.diag(0);
}

std::uint64_t numSkippedOf(const WireCycle& cycle)
{
    return cycle.diag(4);
}

// What a call of the host adds to a package.
void expectOneCallMore(const Package& before, const Package& after)
{
    EXPECT_EQ(after.numCalls, before.numCalls + 1);
    EXPECT_GE(after.runtime, 0.0F);
    EXPECT_EQ(after.cumRuntime, before.cumRuntime + static_cast<double>(after.runtime));
    EXPECT_EQ(after.maxRuntime, std::max(before.maxRuntime, after.runtime));
    EXPECT_EQ(after.avgRuntime, static_cast<float>(after.cumRuntime / after.numCalls));
}

} // namespace

/// The record that every NORMAL cycle ends with, driven by the public functions. Queues are long where a test
/// isn't about their limit, for the host runs ahead until a client is there.
class DiagnosticsTest : public HostFixture
{
protected:
    /// Frames that carry their own number, from 1, on channel 10.
    Frame nextFrame()
    {
        ++m_frameNo;
        return {{10, std::string(reinterpret_cast<const char*>(&m_frameNo), sizeof m_frameNo)}};
    }

    /// The frame that made this cycle; 0 if it was a constant delivery.
    static std::uint32_t frameOf(const WireCycle& cycle)
    {
        const WireEntry* const entry = cycle.find(10);
        return entry != nullptr ? valueAt<std::uint32_t>(entry->payload, 0) : 0;
    }

    /// Delivers until the transfer carries normal data and all of it has been read.
    void reachNormalData(StreamClient& client, const Frame& frame)
    {
        WireCycle cycle = deliverAndRead(client, frame);
        deliver({{11, "mark"}});
        while (cycle.complete && (cycle.find(11) == nullptr || cycle.find(11)->payload != "mark")) {
            cycle = client.readCycle();
        }
        EXPECT_TRUE(cycle.complete);
    }

    std::uint32_t m_frameNo = 0;
};

TEST_F(DiagnosticsTest, RecordShowsThePackageUpToTheFrameBefore)
{
    start("1,1,1000000:10,n");
    for (int k = 0; k < 3; ++k) {
        deliver(nextFrame()); // nobody sees them, but they count
    }
    StreamClient client(m_port);
    EXPECT_TRUE(waitFor([&] {
        deliver(nextFrame());
        return client.somethingWaits();
    }));
    Package before;
    std::uint32_t frameBefore = 0;
    for (int k = 0; k < 100 && (frameBefore < m_frameNo || k < 20); ++k) {
        if (frameBefore == m_frameNo) {
            deliver(nextFrame());
        }
        const WireCycle cycle = client.readCycle();
        const Package package(cycle, 0);
        EXPECT_EQ(package.firstChannelID, 10U);
        EXPECT_EQ(package.numCalls, frameOf(cycle) - 1);
        EXPECT_EQ(package.waitedForQueue + package.skipped + numSkippedOf(cycle), 0U);
        // A wider machine shows the lower half of an address, which may be 0.
        EXPECT_TRUE(package.queuePtr != 0 || sizeof(void*) > sizeof package.queuePtr);
        if (frameBefore != 0) {
            EXPECT_EQ(frameOf(cycle), frameBefore + 1);
            expectOneCallMore(before, package);
            EXPECT_EQ(package.queuePtr, before.queuePtr);
        }
        ASSERT_NE(cycle.find(10998), nullptr);
        EXPECT_EQ(cycle.find(10998)->payload.substr(48), std::string(160, '\0')) << "slots that nobody uses";
        before = package;
        frameBefore = frameOf(cycle);
    }
}

TEST_F(DiagnosticsTest, ConstantBuffersAreAPackageThatSharesTheRunTime)
{
    start("1,1,1000000:1,n:10,n:11,n");
    deliver({{1, "constant"}},
            true); // once as constant buffers and once as a frame: two calls of one package
    struct Calls
    {
        std::uint32_t constant, frames;
    };
    Calls calls = {2, 0};
    std::map<std::uint32_t, Calls> callsBefore; // each frame
    const auto deliverCounting = [&] {
        Frame frame = nextFrame();
        callsBefore[m_frameNo] = calls;
        const bool shared = m_frameNo % 3 == 0; // begins with the constant package's channel
        if (shared) {
            frame.insert(frame.begin(), {1, "x"});
        }
        deliver(frame);
        calls.constant += shared ? 2 : 1;
        calls.frames += shared ? 0 : 1;
    };
    StreamClient client(m_port);
    EXPECT_TRUE(waitFor([&] {
        deliverCounting();
        return client.somethingWaits();
    }));
    for (int k = 0; k < 12; ++k) {
        deliverCounting();
    }
    for (std::uint32_t frame = 0; frame < m_frameNo;) {
        const WireCycle cycle = client.readCycle();
        ASSERT_TRUE(cycle.complete);
        if (frameOf(cycle) == 0) {
            continue;
        }
        frame = frameOf(cycle);
        const Package constant(cycle, 0);
        const Package frames(cycle, 1);
        EXPECT_EQ(constant.firstChannelID, 1U);
        EXPECT_EQ(constant.numCalls, callsBefore[frame].constant);
        EXPECT_EQ(frames.numCalls, callsBefore[frame].frames);
        if (frames.numCalls != 0) {
            EXPECT_EQ(frames.firstChannelID, 10U);
            EXPECT_EQ(frames.queuePtr, constant.queuePtr);
            EXPECT_TRUE((frame - 1) % 3 == 0 || frames.runtime == constant.runtime);
        }
    }
}

TEST_F(DiagnosticsTest, SkipsShowInTheirDeliveryAndCountForOneTransfer)
{
    start("1,1,1:10,n:11,n");
    auto client = std::make_unique<StreamClient>(m_port);
    reachNormalData(*client, {{10, "x"}});
    SendHooks::holdCycles();
    deliver({{10, "in hand"}});
    EXPECT_TRUE(waitFor([] { return SendHooks::cycleHeld(); }));
    deliver({{10, "queued"}});
    deliver({{10, "skipped"}, {11, "x"}});
    SendHooks::releaseCycles();
    std::vector<WireCycle> cycles;
    for (int k = 0; k < 3; ++k) {
        cycles.push_back(client->readCycle());
    }
    deliver({{10, "x"}, {11, "x"}});
    cycles.push_back(client->readCycle());
    const std::uint64_t base = numSkippedOf(cycles[0]); // while the client was awaited
    const unsigned queueLength[] = {0, 1, 0, 0};
    const unsigned skipped[] = {0, 0, 1, 0};
    const unsigned numSkipped[] = {0, 0, 1, 1};
    for (std::size_t k = 0; k < 4; ++k) {
        EXPECT_EQ(queueLengthOf(cycles[k]), queueLength[k]) << k;
        EXPECT_EQ(Package(cycles[k], 0).skipped, skipped[k]) << k;
        EXPECT_EQ(numSkippedOf(cycles[k]) - base, numSkipped[k]) << k;
    }

    client->close();
    client = std::make_unique<StreamClient>(m_port);
    const WireCycle cycle = deliverAndRead(*client, {{10, "next transfer"}});
    EXPECT_EQ(numSkippedOf(cycle), 0U);
    EXPECT_GT(Package(cycle, 0).numCalls, Package(cycles[3], 0).numCalls) << "slots run on";
}

TEST_F(DiagnosticsTest, HostThatWaitedSaysSo)
{
    start("1,1,-1:10,n:11,n");
    StreamClient client(m_port);
    reachNormalData(client, {{10, "x"}});
    SendHooks::holdCycles();
    SendHooks::onHostWait([] { SendHooks::releaseCycles(); });
    deliver({{10, "in hand"}});
    EXPECT_TRUE(waitFor([] { return SendHooks::cycleHeld(); }));
    deliver({{11, "beside it"}});
    deliver({{10, "waits"}});
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
    } cases[] = {{"3,1,5:20,s:11,n", {2, 1, 0}}, {"3,1,-5:20,s:11,n", {3, 2, 1}}};
    for (const auto& c : cases) {
        start(c.config);
        StreamClient client(m_port);
        reachNormalData(client, {{11, "x"}});
        deliver({{20, "abc"}});
        for (const unsigned queueLength : c.queueLength) {
            const WireCycle cycle = client.readCycle();
            ASSERT_EQ(cycle.entries.size(), 3U);
            EXPECT_EQ(cycle.entries[0].channelID, 20);
            EXPECT_EQ(queueLengthOf(cycle), queueLength) << c.config;
            const WireEntry& record = cycle.entries[1];
            const WireEntry& layout = cycle.entries[2];
            EXPECT_TRUE(record.channelID == 10998 && layout.channelID == 10999);
            EXPECT_TRUE(record.totalSize == 208 && layout.totalSize == 256);
            EXPECT_TRUE(record.numberOfParts == 1 && layout.numberOfParts == 1);
            EXPECT_TRUE(record.partNumber == 0 && layout.partNumber == 0);
            EXPECT_EQ(layout.payload, std::string(static_cast<const char*>(description), size));
        }
    }
}
