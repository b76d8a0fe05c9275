// The sender against two loops of the same sends: all three by turns, and a ratio of medians for each of some
// instances, since where the memory happens to lie shifts all rounds of one.

#include "BareSender.h"
#include "BenchTap.h"
#include "CopyingSender.h"
#include "CpuClock.h"
#include "Goals.h"

#include <functional>
#include <unistd.h>

namespace
{

const std::size_t CYCLES = 19; // one fewer than the queue length: nothing is skipped, nobody waits
const int INSTANCES = 11;
const int ROUNDS = 25;

struct Costs
{
    Samples elapsed; // from the first call to the last byte at the reader
    Samples work;    // CPU time of the thread that sends
};

// One burst: `frames` delivers it, `cpu` tells the sending thread's CPU time.
void measure(Costs& costs, DrainingReader& reader, std::uint64_t bytes, const std::function<void()>& frames,
             const std::function<double()>& cpu)
{
    const std::uint64_t total = reader.bytes() + bytes;
    const double cpuBefore = cpu();
    const double elapsed = timed([&] {
        frames();
        reader.awaitBytes(total);
    });
    usleep(200); // the sending thread finishes its last cycle
    costs.elapsed.add(elapsed);
    costs.work.add(cpu() - cpuBefore);
}

struct Ratios
{
    Samples work;
    Samples workBehindCopy;
    Samples throughputBehindCopy;
};

void compare(Load& load, int length, Ratios& ratios)
{
    const std::uint64_t bytes = CYCLES * load.cycleBytes();
    const std::vector<Load> copies(CYCLES, load);
    BenchTap tap(load, "4,10," + std::to_string(length), load.channels('n'));
    BareSender bare;
    CopyingSender copying(copies);
    const auto times = [](const std::function<void(std::size_t)>& step) {
        return [step] {
            for (std::size_t k = 0; k < CYCLES; ++k) {
                step(k);
            }
        };
    };
    Costs bareCosts;
    Costs copyingCosts;
    Costs tapCosts;
    for (int round = 0; round < ROUNDS; ++round) {
        measure(bareCosts, bare.reader(), bytes,
                times([&](std::size_t k) { bare.cycle(copies[k].buffers()); }), ownCpuNs);
        measure(copyingCosts, copying.reader(), bytes,
                times([&](std::size_t) { copying.frame(load.buffers()); }), [&] { return copying.cpuNs(); });
        measure(tapCosts, tap.reader(), bytes, times([&](std::size_t) { tap.frame(); }), senderCpuNs);
    }
    ratios.work.add(bareCosts.work.median() / tapCosts.work.median());
    ratios.workBehindCopy.add(copyingCosts.work.median() / tapCosts.work.median());
    ratios.throughputBehindCopy.add(copyingCosts.elapsed.median() / tapCosts.elapsed.median());
}

} // namespace

void senderGoals(Summary& summary)
{
    Load small("100 x 64 B", Groups{{100, 64}});
    Load middle("20 x 4 KiB", Groups{{20, 4096}});
    Load large("4 x 256 KiB", Groups{{4, 262144}});
    for (Load* const load : {&small, &middle, &large}) {
        for (const int length : {20, -20}) {
            Ratios ratios;
            for (int instance = 0; instance < INSTANCES; ++instance) {
                compare(*load, length, ratios);
            }
            const std::string name = load->name() + ", length " + std::to_string(length);
            summary.add("sender", name + ": cycles per CPU second / bare loop", ratios.work, 0.95,
                        Summary::Limit::AT_LEAST);
            summary.add("sender", name + ": the same / loop behind another thread's copy",
                        ratios.workBehindCopy, 0, Summary::Limit::NONE);
            summary.add("sender", name + ": throughput / loop behind another thread's copy",
                        ratios.throughputBehindCopy, 0, Summary::Limit::NONE);
        }
    }
}
