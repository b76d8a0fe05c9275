// The memory helpers against the C library's, at the size of the diagnostics record and of a page.

#include "ALUtil.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

namespace
{

constexpr std::size_t MAX_SIZE = 4096;
alignas(64) uint8_t g_source[MAX_SIZE];
alignas(64) uint8_t g_target[MAX_SIZE];

// Runs `operation(size)` with a size that the compiler can't see, so that it calls instead of inlining.
template<typename Operation>
void measure(benchmark::State& state, Operation operation)
{
    int32_t size = static_cast<int32_t>(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(size);
        operation(size);
        benchmark::ClobberMemory();
    }
}

void memcpyOfUtil(benchmark::State& state)
{
    measure(state, [](int32_t size) { benchmark::DoNotOptimize(al_memcpy(g_target, g_source, size)); });
}

void memcpyOfLibc(benchmark::State& state)
{
    measure(state, [](int32_t size) { std::memcpy(g_target, g_source, static_cast<std::size_t>(size)); });
}

void memZeroOfUtil(benchmark::State& state)
{
    measure(state, [](int32_t size) { al_mem_zero(g_target, size); });
}

void memsetOfLibc(benchmark::State& state)
{
    measure(state, [](int32_t size) { std::memset(g_target, 0, static_cast<std::size_t>(size)); });
}

double worst(const std::vector<double>& times)
{
    return *std::max_element(times.begin(), times.end());
}

void sizes(benchmark::internal::Benchmark* bench)
{
    bench->Arg(208)->Arg(4096)->MinTime(0.05)->Repetitions(11)->ReportAggregatesOnly()->ComputeStatistics(
        "worst", worst);
}

BENCHMARK(memcpyOfUtil)->Apply(sizes);
BENCHMARK(memcpyOfLibc)->Apply(sizes);
BENCHMARK(memZeroOfUtil)->Apply(sizes);
BENCHMARK(memsetOfLibc)->Apply(sizes);

} // namespace

int main(int argc, char** argv)
{
    benchmark::AddCustomContext("compiler", __VERSION__);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
