#include "HostFixture.h"
#include "LodestoneDiag.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace
{

/// One package of a cycle's record. Its layout is held by the library's own assertions.
Lodestone::PerPackageDiag package(const WireCycle& cycle, std::size_t slot)
{
    Lodestone::LodestoneDiag record = {};
    const WireEntry* const entry = cycle.find(10998);
    if (entry != nullptr && entry->payload.size() == sizeof record) {
        std::memcpy(&record, entry->payload.data(), sizeof record);
    }
    return record.diags[slot];
}

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
    // The first call was for the package twice, and the mark's once.
    const std::uint32_t constantCalls[] = {3, 4, 6, 7};
    const std::uint32_t frameCalls[] = {0, 1, 1, 2};
    for (std::size_t k = 0; k < 4; ++k) {
        const Lodestone::PerPackageDiag constant = package(cycles[k], 0);
        const Lodestone::PerPackageDiag frames = package(cycles[k], 1);
        EXPECT_EQ(constant.firstChannelID, 1);
        EXPECT_EQ(constant.profiling.numCalls, calls + constantCalls[k]) << k;
        EXPECT_EQ(frames.firstChannelID, 10);
        EXPECT_EQ(frames.profiling.numCalls, calls + frameCalls[k]) << k;
        EXPECT_EQ(frames.queue_ptr, constant.queue_ptr);
        // A wider machine shows the lower half of an address, which may be 0.
        EXPECT_TRUE(frames.queue_ptr != 0 || sizeof(void*) > sizeof frames.queue_ptr);
        EXPECT_TRUE(k % 2 == 0 || frames.profiling.runtimeMsecs == constant.profiling.runtimeMsecs) << k;
    }
    const ALProfilingItem before = package(cycles[2], 0).profiling;
    const ALProfilingItem after = package(cycles[3], 0).profiling;
    EXPECT_EQ(after.cumRuntimeMsecs, before.cumRuntimeMsecs + static_cast<double>(after.runtimeMsecs));
    EXPECT_EQ(after.maxRuntimeMsecs, std::max(before.maxRuntimeMsecs, after.runtimeMsecs));
    EXPECT_EQ(after.avgRuntimeMsecs, static_cast<float>(after.cumRuntimeMsecs / after.numCalls));
    EXPECT_LE(package(cycles[3], 1).profiling.cumRuntimeMsecs -
                  package(cycles[0], 1).profiling.cumRuntimeMsecs,
              passed.count())
        << "milliseconds";
    const Frame much = {{11, std::string(1 << 24, 'm')}}; // its copy is nearly all that the call does
    const auto begin = std::chrono::system_clock::now();
    deliver(much);
    const std::chrono::duration<double, std::milli> took = std::chrono::system_clock::now() - begin;
    EXPECT_GE(package(cycleOf(client, frame), 2).profiling.maxRuntimeMsecs * 10, took.count());
    deliver(frame);
    const WireCycle first = client.readCycle();
    const WireCycle second = client.readCycle();
    EXPECT_EQ(first.channels(), std::vector<std::int32_t>{1}) << "constant buffers come first";
    EXPECT_EQ(second.channels(), std::vector<std::int32_t>{10});
    EXPECT_EQ(package(first, 0).profiling.numCalls, package(second, 0).profiling.numCalls) << "of one call";
}
