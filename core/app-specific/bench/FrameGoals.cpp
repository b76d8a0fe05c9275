// How the cost of a frame behaves: with the backlog, the number of channels and parts, a stalled reader,
// nothing to do; and, in SenderGoals.cpp, how the sender compares with a loop of sends. Every ratio is of two
// things measured by turns, once for each round.

#include "AllocationHook.h"
#include "BenchTap.h"
#include "CopyFloor.h"
#include "Goals.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace
{

// A reader that has stopped, with the kernel's buffers full: from here on every frame stays in the queue.
void stallReader(BenchTap& tap, Load& filler)
{
    tap.reader().pause(true);
    usleep(30000); // lets the reader see it
    for (int k = 0; k < 40; ++k) {
        applyFrame(filler.buffers());
        usleep(500);
    }
}

// The queue of 2000 cycles: the first frames in it, the last ones, and those that find it full.
void backlog(Summary& summary)
{
    const int LENGTH = 2000;
    const std::string basic = "4,10," + std::to_string(LENGTH);
    for (const int channels : {1, 10, 100, 1000}) {
        Load load("", Groups{{channels, 64}});
        Load filler("", Groups{{channels, 64}, {1, 1 << 20}});
        BenchTap tap(load, basic, filler.channels('n'));
        Samples queueing;
        Samples skipping;
        for (int round = 0; round < 6; ++round) {
            Samples empty;
            Samples deep;
            Samples full;
            stallReader(tap, filler);
            for (int k = 40; k < LENGTH; ++k) {
                const double ns = timed([&] { tap.frame(); });
                if (k < 240) {
                    empty.add(ns);
                } else if (k >= LENGTH - 200) {
                    deep.add(ns);
                }
            }
            for (int k = 0; k < 200; ++k) {
                full.add(timed([&] { tap.frame(); }));
            }
            tap.reader().pause(false);
            tap.reader().awaitQuiet(50);
            if (round > 0) { // the first round brings the memory
                queueing.add(deep.median() / empty.median());
                skipping.add(full.median() / empty.median());
            }
        }
        const std::string name = std::to_string(channels) + " channels";
        summary.add("backlog", name + ": queueing the 1800th to 2000th cycle / the first 200", queueing, 1.2);
        summary.add("backlog", name + ": full queue (skipping) / queueing the first 200", skipping, 1.0);
    }
}

const int BURST = 20; // frames in a row: the first wakes the sender, the others find it awake

// The median frame of bursts with a reader that drains.
double drainingFrame(Load& load, const std::string& basic, int bursts)
{
    BenchTap tap(load, basic, load.channels('n'));
    Samples samples;
    std::uint64_t total = tap.reader().bytes();
    for (int burst = -5; burst < bursts; ++burst) {
        for (int k = 0; k < BURST; ++k) {
            const double ns = timed([&] { tap.frame(); });
            if (burst >= 0 && k > 0) {
                samples.add(ns);
            }
        }
        tap.reader().awaitBytes(total += BURST * load.cycleBytes());
    }
    return samples.median();
}

double copiedFrame(const Load& load)
{
    CopyFloor floor(load, BURST);
    Samples samples;
    for (int k = -2 * BURST; k < 20 * BURST; ++k) {
        const double ns = timed([&] { floor.apply(load.buffers()); });
        if (k >= 0) {
            samples.add(ns);
        }
    }
    return samples.median();
}

void linear(Summary& summary)
{
    Load hundred("", Groups{{100, 64}});
    Load thousand("", Groups{{1000, 64}});
    Samples frames;
    Samples copies;
    Samples work;
    for (int round = 0; round < 11; ++round) {
        const double few = drainingFrame(hundred, "4,10,200", 40);
        const double many = drainingFrame(thousand, "4,10,200", 40);
        const double fewCopied = copiedFrame(hundred);
        const double manyCopied = copiedFrame(thousand);
        frames.add(many / few);
        copies.add(manyCopied / fewCopied);
        work.add((many - manyCopied) / (few - fewCopied));
    }
    summary.add("linear", "1000 channels of 64 B / 100 channels", frames, 12);
    summary.add("linear", "the copy alone: 1000 buffers / 100 buffers", copies, 0, Summary::Limit::NONE);
    summary.add("linear", "1000 channels / 100 channels without the copy itself", work, 0,
                Summary::Limit::NONE);
}

void nothingSelected(Summary& summary)
{
    Load load("", Groups{{10, 64}});
    Load other("", Groups{{11, 64}});
    BenchTap tap(other, "4,10,200", other.channels('n', 10)); // channel 11 alone
    Samples beyond;
    std::uint64_t heapCalls = 0;
    for (int k = 0; k < 200; ++k) {
        const int REPEAT = 1000;
        const double clocks = timed([&] {
            for (int i = 0; i < REPEAT; ++i) {
                volatile auto a = std::chrono::system_clock::now().time_since_epoch().count();
                volatile auto b = std::chrono::system_clock::now().time_since_epoch().count();
                static_cast<void>(a);
                static_cast<void>(b);
            }
        });
        const AllocationScope heap;
        const double frames = timed([&] {
            for (int i = 0; i < REPEAT; ++i) {
                applyFrame(load.buffers());
            }
        });
        heapCalls += heap.count();
        beyond.add((frames - clocks) / REPEAT);
    }
    summary.add("nothing", "frame of 10 buffers, none selected: ns beyond two clock reads", beyond, 150);
    summary.add("nothing", "the same: heap calls", static_cast<double>(heapCalls), 0);
}

void stalledReader(Summary& summary)
{
    Load load("", Groups{{50, 64}, {10, 4096}, {1, 1 << 20}});
    Samples ratios;
    double worst = 0;
    for (int round = 0; round < 3; ++round) {
        BenchTap tap(load, "4,10,20", load.channels('n'));
        Samples draining;
        Samples stalled;
        for (int k = 0; k < 400; ++k) {
            const double ns = timed([&] { tap.frame(); });
            if (k >= 20) {
                draining.add(ns);
            }
            usleep(1000);
        }
        tap.reader().pause(true);
        const double start = nowNs();
        while (nowNs() - start < 2.2e9) {
            const double ns = timed([&] { tap.frame(); });
            if (nowNs() - start > 0.2e9) {
                stalled.add(ns);
            }
            usleep(1000);
        }
        ratios.add(stalled.median() / draining.median());
        worst = std::max(worst, stalled.worst());
    }
    summary.add("stalled", "median frame, reader stalled for 2 s / draining", ratios, 1.0);
    summary.add("stalled", "longest frame while stalled, ms", worst / 1e6, 5);
}

// Ten whole channels of 4 KiB, queued behind a stalled reader; with `parts` beside a buffer in 1000 parts,
// which has been queued and is offered with every frame.
double frameBesideParts(bool parts)
{
    const int WHOLE = 10;
    Load load("", Groups{{WHOLE, 4096}, {1, 1 << 20}, {1, 1 << 20}});
    std::vector<AlgoMeasBuffer> filler(1, load.buffers().back());
    load.buffers().pop_back();
    const std::string fillerChannel = ":" + std::to_string(WHOLE + 2) + ",n";
    if (!parts) {
        load.buffers().pop_back();
    }
    BenchTap tap(load, "1000,1,200",
                 load.channels('n', 0, WHOLE) + (parts ? load.channels('s', WHOLE) : "") + fillerChannel);
    Samples samples;
    for (int round = 0; round < 3; ++round) {
        tap.reader().pause(true);
        usleep(30000); // lets the reader see it
        for (int k = 0; k < 40; ++k) {
            applyFrame(filler);
            usleep(500);
        }
        tap.frame(); // queues the parts
        for (int k = 0; k < 120; ++k) {
            const double ns = timed([&] { tap.frame(); });
            if (round > 0) { // the first round brings the memory
                samples.add(ns);
            }
        }
        tap.reader().pause(false);
        tap.reader().awaitQuiet(50);
    }
    return samples.median();
}

void splitChannels(Summary& summary)
{
    Samples ratios;
    for (int round = 0; round < 7; ++round) {
        const double alone = frameBesideParts(false);
        ratios.add(frameBesideParts(true) / alone);
    }
    summary.add("split", "10 whole channels beside 1000 queued parts / without them", ratios, 1.5);
}

void manyParts(Summary& summary)
{
    // Ten channels a frame, other ones in each frame, with a stalled reader: nothing is skipped, nobody is
    // woken.
    const int FRAMES = 100;
    Load all("", Groups{{FRAMES * 10, 64}});
    Load filler("", Groups{{FRAMES * 10, 64}, {1, 1 << 20}});
    Samples ratios;
    for (int round = 0; round < 8; ++round) {
        Samples costs[2];
        for (const int which : {0, 1}) {
            const std::string parts = which == 0 ? "10" : "100";
            BenchTap tap(filler, parts + ",1,2000", all.channels('s') + filler.channels('n', FRAMES * 10));
            std::vector<AlgoMeasBuffer> big(1, filler.buffers().back());
            tap.reader().pause(true);
            usleep(30000);
            for (int k = 0; k < 40; ++k) {
                applyFrame(big);
                usleep(500);
            }
            for (int k = 0; k < FRAMES; ++k) {
                const auto first = all.buffers().begin() + k * 10;
                std::vector<AlgoMeasBuffer> frame(first, first + 10);
                const double ns = timed([&] { applyFrame(frame); });
                costs[which].add(ns);
            }
        }
        if (round > 0) { // the first round brings the memory
            ratios.add(costs[1].median() / costs[0].median());
        }
    }
    summary.add("split", "queueing 10 buffers in 100 parts each / in 10 parts each", ratios, 2);

    Load one("", Groups{{1, 1 << 20}});
    BenchTap tap(one, "1000000,1,200", one.channels('s'));
    rusage before = {};
    getrusage(RUSAGE_SELF, &before);
    tap.frame();
    rusage after = {};
    getrusage(RUSAGE_SELF, &after);
    summary.add("split", "memory for 1,000,000 parts of 1 MiB, MiB of peak resident size",
                static_cast<double>(after.ru_maxrss - before.ru_maxrss) / 1024, 4);
}

double residentMiB()
{
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    statm >> pages >> pages;
    return static_cast<double>(pages) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1 << 20);
}

// Resident memory over a burst that a stalled reader causes.
void memory(Summary& summary)
{
    Load load("", Groups{{1, 64}, {1, 1 << 20}});
    BenchTap tap(load, "4,10,100", load.channels('n'));
    std::vector<AlgoMeasBuffer> small(1, load.buffers().front());
    const auto smallFrames = [&](int count) {
        for (int k = 0; k < count; ++k) {
            applyFrame(small);
            if (k % 50 == 49) {
                tap.reader().awaitQuiet(1);
            }
        }
    };
    smallFrames(6000);
    const double steady = residentMiB();
    tap.reader().pause(true);
    usleep(30000);
    for (int k = 0; k < 100; ++k) {
        tap.frame();
    }
    const double burst = residentMiB();
    tap.reader().pause(false);
    tap.reader().awaitQuiet(50);
    const double drained = residentMiB();
    smallFrames(6000);
    const double later = residentMiB();
    std::printf("\nResident memory, MiB: steady %.1f, burst of 100 x 1 MiB %.1f, drained %.1f, 6000 frames "
                "later %.1f\n\n",
                steady, burst, drained, later);
    summary.add("memory", "6000 frames after a burst of 100 MiB: MiB more than before it", later - steady, 4);
}

// Frames of one buffer that a stalled queue has no room for, and behind them `constants`, if any.
double skippedFrame(Load& frame, Load* constants)
{
    const std::string channels = frame.channels('n') + (constants != nullptr ? constants->channels('n') : "");
    BenchTap tap(frame, "4,10,1", channels, constants);
    tap.reader().pause(true);
    usleep(30000); // lets the reader see it
    Samples samples;
    for (int k = 0; k < 3000; ++k) {
        const double ns = timed([&] { tap.frame(); });
        if (k > 1000) {
            samples.add(ns);
        }
    }
    return samples.median();
}

void constantStore(Summary& summary)
{
    Load frame("", Groups{{1, 64}});
    // 100 constant buffers of 256 KiB on channels of their own, which the stalled queue has no room for.
    Load constants("", Groups{{101, 262144}});
    constants.buffers().erase(constants.buffers().begin());
    // The store lasts as long as the process: first all rounds without it.
    Samples without;
    for (int round = 0; round < 5; ++round) {
        without.add(skippedFrame(frame, nullptr));
    }
    Samples costs;
    for (int round = 0; round < 5; ++round) {
        costs.add((skippedFrame(frame, &constants) - without.median()) / 100);
    }
    summary.add("constant", "26 MB of constant buffers, all skipped: ns per buffer and frame", costs, 40);
}

} // namespace

int main(int argc, char** argv)
{
    Summary summary;
    const std::string only = argc > 2 ? argv[2] : "";
    const std::vector<std::pair<std::string, void (*)(Summary&)>> parts = {
        {"linear", linear},   {"backlog", backlog},       {"nothing", nothingSelected},
        {"memory", memory},   {"stalled", stalledReader}, {"split", splitChannels},
        {"parts", manyParts}, {"sender", senderGoals},    {"constant", constantStore}};
    for (const auto& part : parts) {
        if (only.empty() || only == part.first) {
            std::fprintf(stderr, "measuring: %s\n", part.first.c_str());
            part.second(summary);
        }
    }
    summary.print(argc > 1 && argv[1][0] != '-' ? argv[1] : nullptr);
    return 0;
}
