#include "Options.h"
#include "ProcParsers.h"
#include "SystemMonitor.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace Sysmon;

namespace
{

template<std::size_t SIZE>
std::string text(const std::uint8_t (&field)[SIZE])
{
    EXPECT_EQ(0, field[SIZE - 1]) << "no zero at the end";
    return reinterpret_cast<const char*>(field);
}

TEST(ProcParsers, CountersComeFromTheirOwnLinesAndWhatHasNoRoomIsCountedOrLeftOut)
{
    std::string stat =
        "cpu  30 1 20 900 5 2 3 4 0 0\ncpu0 10 1 10 500 5 2 3\n" // an old kernel has fewer columns
        "intr 280900 0 0 15\nctxt 5000000000\nbtime 1\nprocs_running 2\n";
    std::string netDev = " face |bytes    packets errs drop\n"
                         "    lo:    3267  29  1  2  0  0  0  9  4000  30  3  4  0  0 0 0\n"
                         "a-very-long-name:1 2 3 4 0 0 0 0 5000000000 6 7 8 0 0 0 0\n";
    std::string lines = "           CPU0       CPU1       \n"
                        " 16:          3          4   27 Level     arch_timer\n"
                        "ERR:          5\n";
    for (int i = 2; i < 300; ++i) {
        stat += "cpu" + std::to_string(i) + " 1\n";
        netDev += "eth" + std::to_string(i) + ": 1\n";
        lines += std::to_string(i) + ": 1 2 source\n";
    }
    CpuRecord cpu = {};
    parseStat(stat, cpu);
    EXPECT_TRUE(cpu.interrupts == 280900 && cpu.contextSwitches == 5000000000 && cpu.runningTasks == 2);
    EXPECT_TRUE(cpu.total.idle == 900 && cpu.total.steal == 4);
    EXPECT_TRUE(cpu.cores[0].softIrq == 3 && cpu.cores[0].steal == 0);
    EXPECT_TRUE(cpu.coreCount == 16 && cpu.unlistedCores == 283);

    MemoryRecord memory = {};
    parseMemInfo("MemTotal:  24684084 kB\nCached:  526280 kB\nSwapCached:  7 kB\nno colon here\nShmem: 8 kB",
                 memory);
    EXPECT_TRUE(memory.total_KiB == 24684084 && memory.cached_KiB == 526280 && memory.shared_KiB == 8);

    NetworkRecord network = {};
    parseNetDev(netDev, network);
    const NetworkInterface& lo = network.interfaces[0];
    EXPECT_TRUE(lo.receivedBytes == 3267 && lo.receiveDropped == 2 && lo.sentBytes == 4000 &&
                lo.sendDropped == 4);
    EXPECT_EQ("a-very-long-nam", text(network.interfaces[1].name));
    EXPECT_TRUE(network.interfaceCount == 16 && network.unlistedInterfaces == 284);

    const auto interrupts = std::make_unique<InterruptRecord>();
    parseInterrupts(lines, *interrupts);
    EXPECT_EQ("27 Level arch_timer", text(interrupts->lines[0].source));
    EXPECT_TRUE(interrupts->lines[0].counts[1] == 4 && interrupts->lines[0].counts[2] == 0);
    EXPECT_EQ(5U, interrupts->lines[1].counts[0]);
    EXPECT_TRUE(interrupts->lineCount == 256 && text(interrupts->lines[255].label) == "255");
}

TEST(SystemMonitor, RecordsComeInPairsAndBusyIsTheShareOfTheTicksSinceTheFrameBefore)
{
    char folder[] = "/tmp/sysmon.XXXXXX"; // a /proc of our own, without most of its files
    ASSERT_NE(nullptr, mkdtemp(folder));
    const std::string stat = folder + std::string("/stat");
    const auto monitor = std::make_unique<SystemMonitor>(20, folder);
    std::ofstream(stat) << "cpu 100 0 0 900\ncpu0 100 0 0 900\n";
    monitor->nextFrame();
    std::ofstream(stat) << "cpu 102 0 1 904 1\ncpu0 108 0 0 892\n"; // core 0: idle ticks step back
    monitor->nextFrame();
    std::remove(stat.c_str());
    rmdir(folder);

    EXPECT_EQ("0,1234,4,20,8:100,n:101,i:110,n:111,i:120,i:121,i:130,s:131,i:140,o:141,o",
              monitor->configString(1234));
    std::vector<AlgoMeasBuffer> buffers = monitor->frameBuffers();
    CpuRecord record;
    ASSERT_EQ(sizeof record, buffers[0].sizeTotal);
    std::memcpy(&record, buffers[0].buffer, sizeof record);
    EXPECT_FLOAT_EQ(3.0F / 8.0F, record.busy);
    EXPECT_EQ(0.0F, record.coreBusy[0]);
    buffers.insert(buffers.end(), monitor->constantBuffers().begin(), monitor->constantBuffers().end());
    ASSERT_EQ(10U, buffers.size());
    for (std::size_t i = 0; i < buffers.size(); i += 2) {
        EXPECT_EQ(buffers[i].channelID + 1, buffers[i + 1].channelID);
        EXPECT_EQ(0, std::memcmp(buffers[i + 1].buffer, "\xDA\xDE\x03", 4));
    }
}

TEST(Options, BadOnesAreRefused)
{
    const Options options = Options::parse({"--rate", "0.5", "--port", "0", "--rate", "100"});
    EXPECT_TRUE(options.rate_Hz == 100 && options.port == 0);
    const std::vector<std::string> cases[] = {
        {"--rate"},        {"--rate", "1.2.3"},  {"--rate", "1e2"}, {"--rate", "1001"},
        {"--port", "999"}, {"--port", "5000.5"}, {"5000"},
    };
    for (const std::vector<std::string>& arguments : cases) {
        EXPECT_THROW(Options::parse(arguments), std::invalid_argument) << arguments.back();
    }
}

} // namespace
