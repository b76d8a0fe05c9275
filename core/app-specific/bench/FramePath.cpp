// What a frame costs the host, against the floors that nothing can get under: the table of
// docs/performance.md.

#include "AllocationHook.h"
#include "BenchTap.h"
#include "CopyFloor.h"
#include "LoopbackPair.h"
#include "RingTap.h"
#include "Samples.h"
#include "Summary.h"
#if LODESTONE_BENCH_ZMQ
#include "ZmqTap.h"
#endif

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace
{

const int BURST = 20; // frames in a row: the first wakes a sender, the others find one awake

struct Costs
{
    Samples steady;
    Samples waking; // frames that found the sender asleep
    std::uint64_t heapCalls = 0;
    long pageFaults = 0;
};

long pageFaultsHere()
{
    rusage usage = {};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt;
}

// One burst of frames; the median of those that found the sender awake, in ns.
double measureBurst(const std::function<void()>& frame, Costs& costs, bool counting)
{
    Samples awake;
    for (int k = 0; k < BURST; ++k) {
        const AllocationScope heap(AllocationScope::NEVER, AllocationScope::Threads::ALL);
        const long faultsBefore = pageFaultsHere();
        const double start = nowNs();
        frame();
        const double ns = nowNs() - start;
        const std::size_t heapCalls = heap.count();
        if (counting) {
            costs.heapCalls += heapCalls;
            costs.pageFaults += pageFaultsHere() - faultsBefore;
            (k == 0 ? costs.waking : costs.steady).add(ns);
        }
        if (k > 0) {
            awake.add(ns);
        }
    }
    return awake.median();
}

int burstsFor(const Load& load)
{
    const std::size_t budget = std::size_t{3}
                               << 30; // bytes through the loopback, so that every load takes seconds
    const std::size_t perBurst = (load.bytes() + load.buffers().size() * 200 + 1000) * BURST;
    return static_cast<int>(std::min<std::size_t>(std::max<std::size_t>(budget / perBurst, 25), 300));
}

void printRow(const char* what, const Samples& samples, double floorNs, double heapCalls, double faults)
{
    std::printf("| %-22s | %10.2f | %10.2f | %10.2f | %6.2f | %6.2f | %6.2f |\n", what,
                samples.median() / 1000, samples.p99() / 1000, samples.worst() / 1000,
                samples.median() / floorNs, heapCalls, faults);
}

// As many frames in flight as there ever will be: the memory for them comes now.
void bringMemory(BenchTap& tap, const Load& load, std::uint64_t& total)
{
    tap.reader().pause(true);
    usleep(30000); // lets the reader see it
    for (int k = 0; k < 2 * BURST; ++k) {
        tap.frame();
    }
    tap.reader().pause(false);
    tap.reader().awaitBytes(total += 2 * BURST * load.cycleBytes());
}

// Prints the load's table.
void compareLoad(Load& load, double limit, Summary& summary)
{
    CopyFloor floor(load, BURST);
    BenchTap tap(load, "4,10,200", load.channels('n'));

    LoopbackPair ringRoad; // the ring has a connection of its own, through the loopback too
    Costs copyCosts;
    Costs tapCosts;
    Costs ringCosts;
    Costs zmqCosts;
    Samples ratios;
    Samples ringRatios;
    {
        RingTap ring(ringRoad.sock(), (load.bytes() + load.buffers().size() * 20 + 12) * (BURST + 2));
        const int bursts = burstsFor(load);
        std::uint64_t tapTotal = tap.reader().bytes();
        std::uint64_t ringTotal = 0;
        bringMemory(tap, load, tapTotal);
#if LODESTONE_BENCH_ZMQ
        ZmqTap zmq;
        std::uint64_t zmqFrames = 0;
#endif
        for (int burst = -3; burst < bursts; ++burst) { // the first ones warm everything up
            const double copied = measureBurst([&] { floor.apply(load.buffers()); }, copyCosts, burst >= 0);
            const double tapped = measureBurst([&] { tap.frame(); }, tapCosts, burst >= 0);
            tap.reader().awaitBytes(tapTotal += BURST * load.cycleBytes());
            const double ringed = measureBurst(
                [&] {
                    // What doesn't fit is dropped, and not waited for.
                    const bool fits = ring.apply(load.buffers().data(), load.buffers().size());
                    ringTotal += fits ? 12 + load.entryBytes() : 0;
                },
                ringCosts, burst >= 0);
            if (burst >= 0) {
                ratios.add(tapped / copied);
                ringRatios.add(ringed / copied);
            }
#if LODESTONE_BENCH_ZMQ
            measureBurst(
                [&] { zmqFrames += zmq.apply(load.buffers().data(), load.buffers().size()) ? 1 : 0; },
                zmqCosts, burst >= 0);
            zmq.awaitFrames(zmqFrames);
#endif
            ringRoad.reader().awaitBytes(ringTotal);
        }
    }

    const double floorNs = copyCosts.steady.median();
    const auto perFrame = [](std::uint64_t count, const Costs& costs) {
        return static_cast<double>(count) / static_cast<double>(costs.steady.size() + costs.waking.size());
    };
    std::printf("\n%s, %zu bytes a frame\n\n", load.name().c_str(), load.bytes());
    std::printf(
        "| per frame              |  median us |     p99 us |   worst us |  ratio | heap   | faults |\n");
    std::printf("|---|---|---|---|---|---|---|\n");
    printRow("copy alone", copyCosts.steady, floorNs, perFrame(copyCosts.heapCalls, copyCosts),
             perFrame(static_cast<std::uint64_t>(copyCosts.pageFaults), copyCosts));
    printRow("Lodestone", tapCosts.steady, floorNs, perFrame(tapCosts.heapCalls, tapCosts),
             perFrame(static_cast<std::uint64_t>(tapCosts.pageFaults), tapCosts));
    printRow("Lodestone, waking", tapCosts.waking, floorNs, 0, 0);
    printRow("ring and thread", ringCosts.steady, floorNs, perFrame(ringCosts.heapCalls, ringCosts), 0);
    printRow("ring, waking", ringCosts.waking, floorNs, 0, 0);
    if (zmqCosts.steady.size() != 0) {
        printRow("ZeroMQ PUSH", zmqCosts.steady, floorNs, perFrame(zmqCosts.heapCalls, zmqCosts),
                 perFrame(static_cast<std::uint64_t>(zmqCosts.pageFaults), zmqCosts));
    }
    if (limit > 0) {
        summary.add("copy", load.name() + ": frame / copy alone", ratios, limit);
        summary.add("copy", load.name() + ": the ring's frame / copy alone", ringRatios, 0,
                    Summary::Limit::NONE);
    }
    summary.add("copy", load.name() + ": heap calls a frame", perFrame(tapCosts.heapCalls, tapCosts), 0);
    summary.add("copy", load.name() + ": page faults a frame",
                perFrame(static_cast<std::uint64_t>(tapCosts.pageFaults), tapCosts), 0);
}

} // namespace

int main(int argc, char** argv)
{
    Summary summary;
    Load hundred("100 x 64 B", {{100, 64}});
    Load thousand("1000 x 64 B", {{1000, 64}});
    compareLoad(hundred, 6, summary);
    compareLoad(thousand, 5, summary);

    Load middle("20 x 4 KiB", {{20, 4096}});
    compareLoad(middle, 0, summary);
    Load mixed("50 x 64 B, 10 x 4 KiB, 1 x 1 MiB", {{50, 64}, {10, 4096}, {1, 1048576}});
    compareLoad(mixed, 0, summary);
    Load blocks("10 x 64 KiB", {{10, 65536}});
    compareLoad(blocks, 1.1, summary);
    Load large("4 x 256 KiB", {{4, 262144}});
    compareLoad(large, 1.1, summary);
    Load huge("1 x 4 MiB", {{1, 4194304}});
    compareLoad(huge, 1.1, summary);

    std::printf("\n");
    summary.print(argc > 1 ? argv[1] : nullptr);
    return 0;
}
