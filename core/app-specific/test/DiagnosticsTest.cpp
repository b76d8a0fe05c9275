#include "HostFixture.h"

#include <algorithm>
#include <chrono>
#include <cstring>

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
        read(16, runtime);
        read(20, maxRuntime);
        read(24, cumRuntime);
        read(32, numCalls);
        read(36, avgRuntime);
    }

    std::uint32_t queuePtr, firstChannelID, numCalls;
    float runtime, maxRuntime, avgRuntime;
    double cumRuntime;
};

} // namespace

/// What the public functions add to the record that every NORMAL cycle ends with.
class DiagnosticsTest : public HostFixture
{
protected:
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
    start("1,1,1000000:1,n:10,n:11,n"); // long enough for a host that runs ahead until the client is there
    deliver({{1, "constant"}}, true);   // nobody sees this, but it counts; with every frame it comes again
    StreamClient client(m_port);
    std::uint32_t calls = 0;
    EXPECT_TRUE(waitFor([&] {
        deliver(frame);
        ++calls;
        return client.somethingWaits();
    }));
    cycleOf(client, {{11, "mark"}}, 11);                 // behind all of them
    const auto start = std::chrono::system_clock::now(); // the library's clock
    const WireCycle cycles[] = {
        cycleOf(client, frame),
        cycleOf(client, {{1, "the constant package's channel"}, {10, "x"}}),
        cycleOf(client, frame),
        cycleOf(client, frame),
    };
    const std::chrono::duration<double, std::milli> passed = std::chrono::system_clock::now() - start;
    const std::uint32_t constantCalls[] = {
        3, 4, 6, 7}; // the first call was for the package twice, and the mark's once
    const std::uint32_t frameCalls[] = {0, 1, 1, 2};
    for (std::size_t k = 0; k < 4; ++k) {
        const Package constant(cycles[k], 0);
        const Package frames(cycles[k], 1);
        EXPECT_EQ(constant.firstChannelID, 1U);
        EXPECT_EQ(constant.numCalls, calls + constantCalls[k]) << k;
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
    deliver(frame);
    const WireCycle first = client.readCycle();
    const WireCycle second = client.readCycle();
    EXPECT_EQ(first.channels(), std::vector<std::int32_t>{1}) << "constant buffers come first";
    EXPECT_EQ(second.channels(), std::vector<std::int32_t>{10});
    EXPECT_EQ(Package(first, 0).numCalls, Package(second, 0).numCalls) << "of one call";
}
