#include "SystemMonitor.h"

#include "Lodestone.h"
#include "ProcParsers.h"
#include "sonde_CpuRecord.h"
#include "sonde_InterruptRecord.h"
#include "sonde_MachineRecord.h"
#include "sonde_MemoryRecord.h"
#include "sonde_NetworkRecord.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <sys/utsname.h>
#include <unistd.h>
#include <utility>

namespace Sysmon
{

// A record that doesn't lie in memory as its .layout file says doesn't compile.
static_assert(describes_CpuRecord<CpuRecord>(), "cpu.layout");
static_assert(describes_MemoryRecord<MemoryRecord>(), "memory.layout");
static_assert(describes_NetworkRecord<NetworkRecord>(), "network.layout");
static_assert(describes_InterruptRecord<InterruptRecord>(), "interrupts.layout");
static_assert(describes_MachineRecord<MachineRecord>(), "machine.layout");

namespace
{

const int SPLIT_COUNT = 4;
const int QUEUE_LENGTH = 8;

/// Share of the ticks between two readings that the core wasn't idle.
float busyShare(const CpuTimes& before, const CpuTimes& now)
{
    const auto sum = [](const CpuTimes& t) {
        return t.user + t.nice + t.system + t.idle + t.ioWait + t.irq + t.softIrq + t.steal;
    };
    // Signed: the kernel's count of idle ticks can step back.
    const auto all = static_cast<std::int64_t>(sum(now) - sum(before));
    const auto idle = static_cast<std::int64_t>(now.idle + now.ioWait - before.idle - before.ioWait);
    if (all <= 0) {
        return 0;
    }
    return std::clamp(1.0F - static_cast<float>(idle) / static_cast<float>(all), 0.0F, 1.0F);
}

} // namespace

SystemMonitor::SystemMonitor(double frameRate_Hz, std::string procFolder)
    : m_procFolder(std::move(procFolder)), m_frameRate_Hz(frameRate_Hz)
{
    describeMachine();
    tap(100, 'n', m_cpu, sondeGet_CpuRecord);
    tap(110, 'n', m_memory, sondeGet_MemoryRecord);
    tap(120, 'i', m_network, sondeGet_NetworkRecord);
    tap(130, 's', m_interrupts, sondeGet_InterruptRecord);
    tap(140, 'o', m_machine, sondeGet_MachineRecord);
}

std::string SystemMonitor::configString(int port) const
{
    // What is intermittent goes out once a second.
    const long intermittentCount = std::max(1L, std::lround(m_frameRate_Hz));
    return "0," + std::to_string(port) + "," + std::to_string(SPLIT_COUNT) + "," +
           std::to_string(intermittentCount) + "," + std::to_string(QUEUE_LENGTH) + m_channelItems;
}

/// A record of type "o" and its description go out once. Those of the others are described once a second, so
/// that a client that takes over from a connected one, and so gets nothing of type "o", can read them too.
template<typename Record>
void SystemMonitor::tap(std::int32_t channel, char type, const Record& record, DescriptionGetter getter)
{
    const void* description = nullptr;
    std::uint32_t descriptionSize = 0;
    getter(&description, &descriptionSize);
    const bool once = type == 'o';
    std::vector<AlgoMeasBuffer>& buffers = once ? m_constantBuffers : m_frameBuffers;
    addBuffer(channel, type, &record, sizeof record, buffers);
    addBuffer(channel + 1, once ? 'o' : 'i', description, descriptionSize, buffers);
}

void SystemMonitor::addBuffer(std::int32_t channel, char type, const void* data, std::uint32_t size,
                              std::vector<AlgoMeasBuffer>& buffers)
{
    buffers.push_back({data, size, size, channel});
    m_channelItems += ":" + std::to_string(channel) + "," + type;
}

void SystemMonitor::nextFrame()
{
    const CpuRecord previous = m_cpu;
    m_cpu = {};
    m_memory = {};
    m_network = {};
    m_interrupts = {};
    parseStat(read("stat"), m_cpu);
    parseLoadAverage(read("loadavg"), m_cpu);
    parseMemInfo(read("meminfo"), m_memory);
    parseNetDev(read("net/dev"), m_network);
    parseInterrupts(read("interrupts"), m_interrupts);
    if (m_frames > 0) {
        updateBusy(previous);
    }
    m_cpu.frame = m_memory.frame = m_network.frame = m_interrupts.frame = m_frames;
    ++m_frames;
}

void SystemMonitor::updateBusy(const CpuRecord& previous)
{
    m_cpu.busy = busyShare(previous.total, m_cpu.total);
    for (std::size_t core = 0; core < std::min(m_cpu.coreCount, previous.coreCount); ++core) {
        m_cpu.coreBusy[core] = busyShare(previous.cores[core], m_cpu.cores[core]);
    }
}

void SystemMonitor::describeMachine()
{
    utsname names = {};
    if (uname(&names) == 0) {
        setText(m_machine.hostName, names.nodename);
        setText(m_machine.system, names.sysname);
        setText(m_machine.release, names.release);
        setText(m_machine.architecture, names.machine);
    }
    parseCpuInfo(read("cpuinfo"), m_machine);
    parseBootTime(read("stat"), m_machine);
    MemoryRecord memory = {};
    parseMemInfo(read("meminfo"), memory);
    m_machine.memoryTotal_KiB = memory.total_KiB;
    // sysconf gives -1 for what it doesn't know.
    m_machine.coreCount = static_cast<std::uint32_t>(std::max(0L, sysconf(_SC_NPROCESSORS_ONLN)));
    m_machine.pageSize_bytes = static_cast<std::uint32_t>(std::max(0L, sysconf(_SC_PAGESIZE)));
    m_machine.ticksPerSecond = static_cast<std::uint32_t>(std::max(0L, sysconf(_SC_CLK_TCK)));
    m_machine.frameRate_Hz = static_cast<float>(m_frameRate_Hz);
    AlgoVersion version = {};
    if (Lodestone::Lodestone_QueryVersion(&version) == 0) {
        setText(m_machine.libraryVersion, std::to_string(version.major) + "." +
                                              std::to_string(version.minor) + "." +
                                              std::to_string(version.patch));
    }
}

std::string SystemMonitor::read(const char* file) const
{
    std::ifstream stream(m_procFolder + "/" + file);
    std::ostringstream text;
    if (stream) {
        text << stream.rdbuf();
    }
    return text.str();
}

} // namespace Sysmon
