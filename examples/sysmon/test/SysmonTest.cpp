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

using namespace Sysmon;

namespace
{

template<std::size_t SIZE>
std::string text(const std::uint8_t (&field)[SIZE])
{
    EXPECT_EQ(0, field[SIZE - 1]) << "no zero at the end";
    return reinterpret_cast<const char*>(field);
}

template<typename Record>
Record recordOf(const AlgoMeasBuffer& buffer)
{
    Record record;
    EXPECT_EQ(sizeof record, buffer.sizeTotal);
    std::memcpy(&record, buffer.buffer, sizeof record);
    return record;
}

const char STAT[] = "cpu  30 1 20 900 5 2 3 4 0 0\n"
                    "cpu0 10 1 10 500 5 2 3\n" // an old kernel has fewer columns
                    "cpu1 20 0 10 400 0 0 0 4 0 0\n"
                    "intr 280900 0 0 15\n"
                    "ctxt 5000000000\n"
                    "btime 1795382405\n"
                    "processes 11006\n"
                    "procs_running 2\n"
                    "procs_blocked 1\n"
                    "softirq 199693 0 34553\n";

TEST(ProcParsers, StatGivesCountersAndTimesOfEachCore)
{
    CpuRecord record = {};
    parseStat(STAT, record);
    EXPECT_EQ(280900U, record.interrupts);
    EXPECT_EQ(5000000000U, record.contextSwitches);
    EXPECT_EQ(11006U, record.forks);
    EXPECT_EQ(2U, record.runningTasks);
    EXPECT_EQ(1U, record.blockedTasks);
    EXPECT_EQ(2U, record.coreCount);
    EXPECT_EQ(900U, record.total.idle);
    EXPECT_EQ(4U, record.total.steal);
    EXPECT_EQ(3U, record.cores[0].softIrq);
    EXPECT_EQ(0U, record.cores[0].steal);
    EXPECT_EQ(20U, record.cores[1].user);
}

TEST(ProcParsers, WhatHasNoRoomIsCountedOrLeftOut)
{
    std::string stat = "cpu 1\n";
    std::string netDev;
    std::string interrupts = " CPU0 CPU1\n";
    for (int i = 0; i < 300; ++i) {
        stat += "cpu" + std::to_string(i) + " " + std::to_string(i) + "\n";
        netDev += "eth" + std::to_string(i) + ": " + std::to_string(i) + "\n";
        interrupts += std::to_string(i) + ": 1 2 source\n";
    }
    CpuRecord cpu = {};
    parseStat(stat, cpu);
    EXPECT_EQ(16U, cpu.coreCount);
    EXPECT_EQ(284U, cpu.unlistedCores);
    EXPECT_EQ(15U, cpu.cores[15].user);
    NetworkRecord network = {};
    parseNetDev(netDev, network);
    EXPECT_EQ(16U, network.interfaceCount);
    EXPECT_EQ(284U, network.unlistedInterfaces);
    EXPECT_EQ("eth15", text(network.interfaces[15].name));
    const auto table = std::make_unique<InterruptRecord>();
    parseInterrupts(interrupts, *table);
    EXPECT_EQ(256U, table->lineCount);
    EXPECT_EQ("255", text(table->lines[255].label));
}

TEST(ProcParsers, MemInfoTakesWholeNamesOnly)
{
    MemoryRecord record = {};
    parseMemInfo(
        "MemTotal:       24684084 kB\nMemFree:            12 kB\nCached:  526280 kB\nSwapCached:  7 kB\n"
        "HugePages_Total:       0\nno colon here\nShmem:              8872 kB",
        record);
    EXPECT_EQ(24684084U, record.total_KiB);
    EXPECT_EQ(12U, record.free_KiB);
    EXPECT_EQ(526280U, record.cached_KiB);
    EXPECT_EQ(8872U, record.shared_KiB);
    EXPECT_EQ(0U, record.available_KiB);
}

TEST(ProcParsers, NetDevTakesNumbersGluedToTheName)
{
    NetworkRecord record = {};
    parseNetDev(
        "Inter-|   Receive                            |  Transmit\n"
        " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo\n"
        "    lo:    3267      29    1    2    0     0          0         9     4000      30    3    4    0  "
        "0 0 0\n"
        "a-very-long-name:1 2 3 4 0 0 0 0 5000000000 6 7 8 0 0 0 0\n",
        record);
    ASSERT_EQ(2U, record.interfaceCount);
    const NetworkInterface& lo = record.interfaces[0];
    EXPECT_EQ("lo", text(lo.name));
    EXPECT_EQ(3267U, lo.receivedBytes);
    EXPECT_EQ(2U, lo.receiveDropped);
    EXPECT_EQ(4000U, lo.sentBytes);
    EXPECT_EQ(30U, lo.sentPackets);
    EXPECT_EQ(4U, lo.sendDropped);
    EXPECT_EQ("a-very-long-nam", text(record.interfaces[1].name));
    EXPECT_EQ(5000000000U, record.interfaces[1].sentBytes);
}

TEST(ProcParsers, InterruptsTakeCountsUpToTheLastCoreAndTheRestAsSource)
{
    const auto record = std::make_unique<InterruptRecord>();
    parseInterrupts("           CPU0       CPU1       \n"
                    " 24:          1          7  IO-APIC   5-edge      ACPI:Ged\n"
                    " 16:          3          4   27 Level     arch_timer\n"
                    "NMI:          0          2   Non-maskable interrupts\n"
                    "ERR:          5\n",
                    *record);
    ASSERT_EQ(4U, record->lineCount);
    EXPECT_EQ(2U, record->coreCount);
    EXPECT_EQ("24", text(record->lines[0].label));
    EXPECT_EQ(7U, record->lines[0].counts[1]);
    EXPECT_EQ("IO-APIC 5-edge ACPI:Ged", text(record->lines[0].source));
    EXPECT_EQ("27 Level arch_timer", text(record->lines[1].source));
    EXPECT_EQ(0U, record->lines[1].counts[2]);
    EXPECT_EQ("Non-maskable interrupts", text(record->lines[2].source));
    EXPECT_EQ(5U, record->lines[3].counts[0]);
    EXPECT_EQ("", text(record->lines[3].source));
}

TEST(ProcParsers, CpuModelHasItsNameFromTheArchitecture)
{
    const struct
    {
        const char* cpuInfo;
        const char* model;
    } cases[] = {
        {"processor\t: 0\nmodel\t\t: 167\nmodel name\t: Some CPU @ 2GHz\nmodel name\t: Second\n",
         "Some CPU @ 2GHz"},
        {"Processor\t: ARMv7 Processor rev 5 (v7l)\nprocessor\t: 0\n", "ARMv7 Processor rev 5 (v7l)"},
        {"processor\t: 0\n", ""},
        {"", ""},
    };
    for (const auto& c : cases) {
        MachineRecord record = {};
        parseCpuInfo(c.cpuInfo, record);
        EXPECT_EQ(c.model, text(record.cpuModel));
    }
}

TEST(ProcParsers, EmptyAndTornTextsGiveZeroes)
{
    for (const char* const torn : {"", "\n\n", ":", "cpu", "cpu ", "x:", " CPU0\n:", "MemTotal:", "0.5 x"}) {
        CpuRecord cpu = {};
        parseStat(torn, cpu);
        EXPECT_EQ(0U, cpu.total.user + cpu.coreCount) << torn;
        parseLoadAverage(torn, cpu);
        EXPECT_EQ(0.0F, cpu.loadAverage[1]) << torn;
        MemoryRecord memory = {};
        parseMemInfo(torn, memory);
        EXPECT_EQ(0U, memory.total_KiB) << torn;
        NetworkRecord network = {};
        parseNetDev(torn, network);
        EXPECT_EQ(0U, network.interfaces[0].receivedBytes) << torn;
        const auto interrupts = std::make_unique<InterruptRecord>();
        parseInterrupts(torn, *interrupts);
        EXPECT_EQ(0U, interrupts->lines[0].counts[0]) << torn;
    }
}

/// A /proc of our own, gone with the test.
class SystemMonitorTest : public testing::Test
{
protected:
    SystemMonitorTest() { EXPECT_NE(nullptr, mkdtemp(m_folder)); }
    ~SystemMonitorTest() override
    {
        std::remove((folder() + "/stat").c_str());
        rmdir(m_folder);
    }
    std::string folder() const { return m_folder; }
    void writeStat(const std::string& content) const { std::ofstream(folder() + "/stat") << content; }

private:
    char m_folder[24] = "/tmp/sysmon.XXXXXX";
};

TEST_F(SystemMonitorTest, MissingFilesGiveZeroedRecordsAndAllBuffers)
{
    const auto monitor = std::make_unique<SystemMonitor>(20, folder());
    monitor->nextFrame();
    monitor->nextFrame();
    ASSERT_EQ(8U, monitor->frameBuffers().size());
    CpuRecord expected = {};
    expected.frame = 1;
    EXPECT_EQ(0, std::memcmp(monitor->frameBuffers()[0].buffer, &expected, sizeof expected));
    ASSERT_EQ(2U, monitor->constantBuffers().size());
    EXPECT_EQ(20.0F, recordOf<MachineRecord>(monitor->constantBuffers()[0]).frameRate_Hz);
}

TEST_F(SystemMonitorTest, BusyIsTheShareOfTheTicksSinceTheFrameBefore)
{
    const auto monitor = std::make_unique<SystemMonitor>(20, folder());
    writeStat("cpu 100 0 0 900\ncpu0 100 0 0 900\n");
    monitor->nextFrame();
    EXPECT_EQ(0.0F, recordOf<CpuRecord>(monitor->frameBuffers()[0]).busy) << "there was no frame before";
    writeStat("cpu 102 0 1 904 1\ncpu0 108 0 0 892\n"); // core 0: idle ticks step back
    monitor->nextFrame();
    const auto record = recordOf<CpuRecord>(monitor->frameBuffers()[0]);
    EXPECT_FLOAT_EQ(3.0F / 8.0F, record.busy);
    EXPECT_EQ(0.0F, record.coreBusy[0]);
}

TEST_F(SystemMonitorTest, EveryRecordIsFollowedByItsDescription)
{
    const auto monitor = std::make_unique<SystemMonitor>(20, folder());
    std::vector<AlgoMeasBuffer> buffers = monitor->frameBuffers();
    buffers.insert(buffers.end(), monitor->constantBuffers().begin(), monitor->constantBuffers().end());
    const unsigned char preamble[] = {0xDA, 0xDE, 3, 0, 1, 0, 0, 0};
    for (std::size_t i = 0; i < buffers.size(); i += 2) {
        EXPECT_EQ(buffers[i].channelID + 1, buffers[i + 1].channelID);
        EXPECT_EQ(0, std::memcmp(buffers[i + 1].buffer, preamble, sizeof preamble));
    }
}

TEST_F(SystemMonitorTest, ConfigurationNamesEveryChannelOnceAndAnIntermittentPeriodOfASecond)
{
    const std::string items = ":100,n:101,i:110,n:111,i:120,i:121,i:130,s:131,i:140,o:141,o";
    EXPECT_EQ("0,1234,4,20,8" + items, SystemMonitor(20, folder()).configString(1234));
    EXPECT_EQ("0,1234,4,1,8" + items, SystemMonitor(0.2, folder()).configString(1234));
}

TEST(Options, GoodOnesAreTakenAndTheLastOneWins)
{
    const Options options =
        Options::parse({"--rate", "0.5", "--port", "0", "--seconds", "3", "--rate", "100"});
    EXPECT_EQ(100, options.rate_Hz);
    EXPECT_EQ(0, options.port);
    EXPECT_EQ(3, options.seconds);
    EXPECT_TRUE(Options::parse({"--port", "5001", "--help", "--nonsense"}).wantsHelp);
}

TEST(Options, BadOnesAreRefusedWithTheirReason)
{
    const struct
    {
        std::vector<std::string> arguments;
        const char* message;
    } cases[] = {
        {{"--rate"}, "--rate needs a value"},
        {{"--rate", "fast"}, "--rate: 'fast' is no number from 0.1 to 1000"},
        {{"--rate", ""}, "--rate: '' is no number from 0.1 to 1000"},
        {{"--rate", "0"}, "--rate: '0' is no number from 0.1 to 1000"},
        {{"--rate", "1.2.3"}, "--rate: '1.2.3' is no number from 0.1 to 1000"},
        {{"--rate", "nan"}, "--rate: 'nan' is no number from 0.1 to 1000"},
        {{"--port", "999"}, "--port: '999' is no number from 1000 to 65535"},
        {{"--port", "65536"}, "--port: '65536' is no number from 0 to 65535"},
        {{"--port", "-1"}, "--port: '-1' is no number from 0 to 65535"},
        {{"--port", "5000.5"}, "--port: '5000.5' is no whole number"},
        {{"--seconds", "0"}, "--seconds: '0' is no number from 0.001 to 1e+06"},
        {{"5000"}, "unknown argument '5000'; --help tells more"},
    };
    for (const auto& c : cases) {
        try {
            Options::parse(c.arguments);
            ADD_FAILURE() << "accepted, instead of: " << c.message;
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(c.message, e.what());
        }
    }
}

} // namespace
