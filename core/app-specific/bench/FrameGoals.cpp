// How the cost of a frame behaves: with the backlog, the number of channels and parts, a stalled reader,
// nothing to do; and how the sender compares with a bare loop of sends. Every figure is a ratio of two things
// measured by turns.

#include "AllocationHook.h"
#include "BenchTap.h"
#include "LoopbackPair.h"
#include "Samples.h"
#include "Summary.h"

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

typedef std::vector<std::pair<int, std::size_t>> Groups;

double timed(const std::function<void()>& operation)
{
    const double start = nowNs();
    operation();
    return nowNs() - start;
}

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
        Samples empty;
        Samples deep;
        Samples full;
        for (int round = 0; round < 4; ++round) {
            stallReader(tap, filler);
            for (int k = 40; k < LENGTH; ++k) {
                const double ns = timed([&] { tap.frame(); });
                if (round > 0 && k < 240) { // the first round brings the memory
                    empty.add(ns);
                } else if (round > 0 && k >= LENGTH - 200) {
                    deep.add(ns);
                }
            }
            for (int k = 0; k < 200; ++k) {
                const double ns = timed([&] { tap.frame(); });
                if (round > 0) {
                    full.add(ns);
                }
            }
            tap.reader().pause(false);
            tap.reader().awaitQuiet(50);
        }
        const std::string name = std::to_string(channels) + " channels";
        summary.add("backlog", name + ": queueing the 1800th to 2000th cycle / the first 200",
                    deep.median() / empty.median(), 1.2);
        summary.add("backlog", name + ": full queue (skipping) / queueing the first 200",
                    full.median() / empty.median(), 1.0);
    }
}

// Frames in bursts of 20 with a reader that drains, by turns between two taps' worth of channels.
Samples drainingFrames(Load& load, const std::string& basic, const std::string& channels, int bursts)
{
    BenchTap tap(load, basic, channels);
    Samples samples;
    for (int burst = -5; burst < bursts; ++burst) {
        for (int k = 0; k < 20; ++k) {
            const double ns = timed([&] { tap.frame(); });
            if (burst >= 0 && k > 0) {
                samples.add(ns);
            }
        }
        tap.reader().awaitQuiet(1);
    }
    return samples;
}

void nothingSelected(Summary& summary)
{
    Load load("", Groups{{10, 64}});
    Load other("", Groups{{11, 64}});
    BenchTap tap(other, "4,10,200", other.channels('n', 10)); // channel 11 alone
    Samples clocks;
    Samples frames;
    std::uint64_t heapCalls = 0;
    for (int k = 0; k < 200; ++k) {
        const int REPEAT = 1000;
        clocks.add(timed([&] {
                       for (int i = 0; i < REPEAT; ++i) {
                           volatile auto a = std::chrono::system_clock::now().time_since_epoch().count();
                           volatile auto b = std::chrono::system_clock::now().time_since_epoch().count();
                           static_cast<void>(a);
                           static_cast<void>(b);
                       }
                   }) /
                   REPEAT);
        const AllocationScope heap;
        const double ns = timed([&] {
                              for (int i = 0; i < REPEAT; ++i) {
                                  applyFrame(load.buffers());
                              }
                          }) /
                          REPEAT;
        heapCalls += heap.count();
        frames.add(ns);
    }
    summary.add("nothing", "frame of 10 buffers, none selected: ns beyond two clock reads",
                frames.median() - clocks.median(), 150);
    summary.add("nothing", "the same: heap calls", static_cast<double>(heapCalls), 0);
}

// The calls that a cycle of that load makes, from memory, without a library in between.
class BareSender
{
public:
    void cycle(const std::vector<AlgoMeasBuffer>& buffers)
    {
        char record[256] = {};
        send(record, 12);
        for (const AlgoMeasBuffer& buffer : buffers) {
            send(record, 20);
            send(buffer.buffer, buffer.sizeTotal);
        }
        send(record, 20);
        send(record, 208);
        send(record, 20);
        send(record, 256);
    }
    DrainingReader& reader() { return m_road.reader(); }

private:
    void send(const void* data, std::size_t size)
    {
        const char* next = static_cast<const char*>(data);
        while (size > 0) {
            const ssize_t taken = ::send(m_road.sock(), next, size, MSG_NOSIGNAL);
            if (taken <= 0) {
                return;
            }
            next += taken;
            size -= static_cast<std::size_t>(taken);
        }
    }

    LoopbackPair m_road;
};

// The CPU time that the calling thread has used, in ns.
double ownCpuNs()
{
    timespec time = {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// The least that any tap must do which copies on the host's thread and sends on another one: the same sends,
// of bytes that another core has just written, and one lock for each cycle.
class CopyingSender
{
public:
    explicit CopyingSender(const std::vector<Load>& slots) : m_slots(slots), m_thread([this] { run(); }) {}
    ~CopyingSender()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_filled.notify_one();
        m_thread.join();
    }

    CopyingSender(const CopyingSender&) = delete;
    CopyingSender& operator=(const CopyingSender&) = delete;

    void frame(const std::vector<AlgoMeasBuffer>& buffers)
    {
        const Load& slot = m_slots[m_put % m_slots.size()];
        for (std::size_t k = 0; k < buffers.size(); ++k) {
            std::memcpy(const_cast<void*>(slot.buffers()[k].buffer), buffers[k].buffer, buffers[k].sizeTotal);
        }
        bool wasEmpty = false;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            wasEmpty = m_put == m_taken;
            ++m_put;
        }
        if (wasEmpty) {
            m_filled.notify_one();
        }
    }
    DrainingReader& reader() { return m_sender.reader(); }
    double cpuNs() const { return m_cpuNs; }

private:
    void run()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (true) {
            m_filled.wait(lock, [this] { return m_stop || m_put != m_taken; });
            if (m_stop) {
                return;
            }
            const Load& slot = m_slots[m_taken % m_slots.size()];
            lock.unlock();
            m_sender.cycle(slot.buffers());
            m_cpuNs = ownCpuNs();
            lock.lock();
            ++m_taken;
        }
    }

    const std::vector<Load>& m_slots;
    BareSender m_sender;
    std::mutex m_mutex;
    std::condition_variable m_filled;
    std::size_t m_put = 0;   // m_mutex when it changes
    std::size_t m_taken = 0; // m_mutex
    bool m_stop = false;     // m_mutex
    std::atomic<double> m_cpuNs{0};
    std::thread m_thread;
};

// The CPU time that the library's sender thread has used, in ns.
double senderCpuNs()
{
    static pid_t tid = 0;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%d/comm", tid);
    if (tid == 0 || ::access(path, F_OK) != 0) {
        DIR* const tasks = ::opendir("/proc/self/task");
        while (const dirent* const entry = ::readdir(tasks)) {
            std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
            std::string name;
            if (std::getline(comm, name) && name == "lodestone-send") {
                tid = std::atoi(entry->d_name);
            }
        }
        ::closedir(tasks);
    }
    const auto clock =
        static_cast<clockid_t>((~static_cast<unsigned>(tid) << 3) | 6U); // a thread's CPU clock
    timespec time = {};
    ::clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

struct SenderCosts
{
    Samples elapsed; // from the first call to the last byte at the reader
    Samples work;    // CPU time of the thread that sends
};

// One burst: `frames` delivers it, `cpu` tells the sending thread's CPU time.
void measureSender(SenderCosts& costs, DrainingReader& reader, std::uint64_t bytes,
                   const std::function<void()>& frames, const std::function<double()>& cpu, bool counting)
{
    const std::uint64_t total = reader.bytes() + bytes;
    const double cpuBefore = cpu();
    const double elapsed = timed([&] {
        frames();
        reader.awaitBytes(total);
    });
    usleep(200); // the sending thread finishes its last cycle
    const double work = cpu() - cpuBefore;
    if (counting) {
        costs.elapsed.add(elapsed);
        costs.work.add(work);
    }
}

// Bursts of 19 cycles, one fewer than the queue length, so that nothing is skipped and nobody waits; by turns
// with the same sends in a bare loop, and with a bare loop behind a copy by another thread.
void sender(Summary& summary)
{
    const std::size_t CYCLES = 19;
    Load small("100 x 64 B", Groups{{100, 64}});
    Load middle("20 x 4 KiB", Groups{{20, 4096}});
    Load large("4 x 256 KiB", Groups{{4, 262144}});
    for (Load* const load : {&small, &middle, &large}) {
        const std::uint64_t bytes = CYCLES * load->cycleBytes();
        const std::vector<Load> copies(CYCLES, *load);
        for (const int length : {20, -20}) {
            BenchTap tap(*load, "4,10," + std::to_string(length), load->channels('n'));
            BareSender bare;
            CopyingSender copying(copies);
            SenderCosts bareCosts;
            SenderCosts copyingCosts;
            SenderCosts tapCosts;
            for (int round = -10; round < 150; ++round) {
                measureSender(
                    bareCosts, bare.reader(), bytes,
                    [&] {
                        for (const Load& copy : copies) {
                            bare.cycle(copy.buffers());
                        }
                    },
                    ownCpuNs, round >= 0);
                measureSender(
                    copyingCosts, copying.reader(), bytes,
                    [&] {
                        for (std::size_t k = 0; k < CYCLES; ++k) {
                            copying.frame(load->buffers());
                        }
                    },
                    [&] { return copying.cpuNs(); }, round >= 0);
                measureSender(
                    tapCosts, tap.reader(), bytes,
                    [&] {
                        for (std::size_t k = 0; k < CYCLES; ++k) {
                            tap.frame();
                        }
                    },
                    senderCpuNs, round >= 0);
            }
            const std::string name = load->name() + ", length " + std::to_string(length);
            summary.add("sender", name + ": cycles per CPU second / bare loop",
                        bareCosts.work.median() / tapCosts.work.median(), 0.95, true);
            summary.add("sender", name + ": the same / loop behind another thread's copy",
                        copyingCosts.work.median() / tapCosts.work.median(), 0.95, true);
            summary.add("sender", name + ": throughput / loop behind another thread's copy",
                        copyingCosts.elapsed.median() / tapCosts.elapsed.median(), 0.95, true);
        }
    }
}

void stalledReader(Summary& summary)
{
    Load load("", Groups{{50, 64}, {10, 4096}, {1, 1 << 20}});
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
    summary.add("stalled", "median frame, reader stalled for 2 s / draining",
                stalled.median() / draining.median(), 1.0);
    summary.add("stalled", "longest frame while stalled, ms", stalled.worst() / 1e6, 5);
}

void splitChannels(Summary& summary)
{
    Load whole("", Groups{{10, 4096}});
    Load both("", Groups{{10, 4096}, {1, 1 << 20}});
    Samples ratios;
    for (int round = 0; round < 5; ++round) {
        const double plain = drainingFrames(whole, "1000,1,200", whole.channels('n'), 45).median();
        Samples riding;
        {
            BenchTap tap(both, "1000,1,200", both.channels('n', 0, 10) + both.channels('s', 10));
            for (int k = 0; k < 900; ++k) { // the parts stay queued all the time
                const double ns = timed([&] { tap.frame(); });
                if (k % 20 != 0 && k > 20) {
                    riding.add(ns);
                }
                if (k % 20 == 19) {
                    tap.reader().awaitQuiet(1);
                }
            }
        }
        ratios.add(riding.median() / plain);
    }
    summary.add("split", "10 whole channels beside 1000 queued parts / without them", ratios.median(), 1.5);
}

void manyParts(Summary& summary)
{
    // Ten channels a frame, other ones in each frame, with a stalled reader: nothing is skipped, nobody is
    // woken.
    const int FRAMES = 100;
    Load all("", Groups{{FRAMES * 10, 64}});
    Load filler("", Groups{{FRAMES * 10, 64}, {1, 1 << 20}});
    Samples costs[2];
    for (int round = 0; round < 8; ++round) {
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
                if (round > 0) {
                    costs[which].add(ns);
                }
            }
        }
    }
    summary.add("split", "queueing 10 buffers in 100 parts each / in 10 parts each",
                costs[1].median() / costs[0].median(), 2);

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

void constantStore(Summary& summary)
{
    Load frame("", Groups{{1, 64}});
    // 100 constant buffers of 256 KiB on channels of their own, which the stalled queue has no room for.
    Load constants("", Groups{{101, 262144}});
    constants.buffers().erase(constants.buffers().begin());
    Samples without;
    Samples with;
    {
        BenchTap tap(frame, "4,10,1", frame.channels('n'));
        tap.reader().pause(true);
        for (int k = 0; k < 3000; ++k) {
            const double ns = timed([&] { tap.frame(); });
            if (k > 1000) {
                without.add(ns);
            }
        }
    }
    {
        BenchTap tap(frame, "4,10,1", frame.channels('n') + constants.channels('n'), &constants);
        tap.reader().pause(true);
        usleep(30000);
        for (int k = 0; k < 3000; ++k) {
            const double ns = timed([&] { tap.frame(); });
            if (k > 1000) {
                with.add(ns);
            }
        }
    }
    summary.add("constant", "26 MB of constant buffers, all skipped: ns per buffer and frame",
                (with.median() - without.median()) / 100, 40);
}

} // namespace

int main(int argc, char** argv)
{
    Summary summary;
    const std::string only = argc > 2 ? argv[2] : "";
    const std::vector<std::pair<std::string, void (*)(Summary&)>> parts = {
        {"backlog", backlog},       {"nothing", nothingSelected}, {"sender", sender},
        {"stalled", stalledReader}, {"split", splitChannels},     {"parts", manyParts},
        {"memory", memory},         {"constant", constantStore}};
    for (const auto& part : parts) {
        if (only.empty() || only == part.first) {
            std::fprintf(stderr, "measuring: %s\n", part.first.c_str());
            part.second(summary);
        }
    }
    summary.print(argc > 1 && argv[1][0] != '-' ? argv[1] : nullptr);
    return 0;
}
