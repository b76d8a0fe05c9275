// The single steps of the frame path, for somebody who changes one of them.

#include "BufferStore.h"
#include "ChannelTable.h"
#include "CycleList.h"

#include <benchmark/benchmark.h>

using namespace Lodestone;

namespace
{

void findChannel(benchmark::State& state)
{
    ConfigStringParser::Config config{};
    const int channels = static_cast<int>(state.range(0));
    for (int channelID = 0; channelID < channels; ++channelID) {
        config.nonSplitChannels.insert(channelID * 10);
    }
    ChannelTable table(config);
    for (auto _ : state) {
        for (int channelID = 0; channelID < channels; ++channelID) {
            benchmark::DoNotOptimize(table.find(channelID * 10));
        }
    }
    state.SetItemsProcessed(state.iterations() * channels);
}

// One delivery through the queue, with so many cycles waiting in front of it.
void appendTakeFinish(benchmark::State& state)
{
    CycleList list;
    DeliveryList spare;
    const auto append = [&] {
        if (spare.empty()) {
            spare.emplace_back();
        }
        DeliveryList one;
        one.splice(one.begin(), spare, spare.begin());
        one.front().hasWhole = true;
        list.append(one);
    };
    for (std::int64_t k = 0; k < state.range(0); ++k) {
        append();
    }
    for (auto _ : state) {
        append();
        CycleJob job;
        list.take(false, job);
        list.finish(job, spare);
    }
}

void takeAndRecycleBlock(benchmark::State& state)
{
    BufferStore store(10);
    ReturnedBuffers returned;
    for (auto _ : state) {
        returned.blocks.push(store.takeBlock(static_cast<std::uint64_t>(state.range(0))));
        store.recycle(returned);
    }
}

} // namespace

BENCHMARK(findChannel)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(appendTakeFinish)->Arg(0)->Arg(100)->Arg(10000);
BENCHMARK(takeAndRecycleBlock)->Arg(64)->Arg(65536)->Arg(4194304);
BENCHMARK_MAIN();
