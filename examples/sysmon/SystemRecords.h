#ifndef LODESTONE_EXAMPLES_SYSTEMRECORDS_H
#define LODESTONE_EXAMPLES_SYSTEMRECORDS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace Sysmon
{

/// The records that are tapped, as they lie in memory. The .layout files describe them to the reader of the
/// stream, field by field; SystemMonitor.cpp proves that both agree. Fields of 8 bytes stand at multiples of
/// 8, so that the layout is the same on 32 and 64 bit. What the kernel doesn't tell is 0.

const std::size_t MAX_CORES = 16;
const std::size_t MAX_INTERFACES = 16;
const std::size_t MAX_INTERRUPT_LINES = 256;

/// Ticks since the machine's start, by what they were spent on.
struct CpuTimes
{
    std::uint64_t user;
    std::uint64_t nice;
    std::uint64_t system;
    std::uint64_t idle;
    std::uint64_t ioWait;
    std::uint64_t irq;
    std::uint64_t softIrq;
    std::uint64_t steal;
};

struct CpuRecord
{
    std::uint64_t frame; ///< Number of the frame, from 0; so in all records.
    std::uint64_t contextSwitches;
    std::uint64_t interrupts;
    std::uint64_t forks;
    std::uint32_t runningTasks;
    std::uint32_t blockedTasks;
    std::uint32_t coreCount;     ///< Valid entries in `cores` and `coreBusy`.
    float busy;                  ///< Share of the ticks since the frame before, 0 to 1.
    float loadAverage[3];        ///< Over 1, 5 and 15 minutes.
    std::uint32_t unlistedCores; ///< Those that had no room.
    CpuTimes total;
    CpuTimes cores[MAX_CORES];
    float coreBusy[MAX_CORES];
};

struct MemoryRecord
{
    std::uint64_t frame;
    std::uint64_t total_KiB;
    std::uint64_t free_KiB;
    std::uint64_t available_KiB;
    std::uint64_t buffers_KiB;
    std::uint64_t cached_KiB;
    std::uint64_t swapTotal_KiB;
    std::uint64_t swapFree_KiB;
    std::uint64_t dirty_KiB;
    std::uint64_t shared_KiB;
    std::uint64_t slab_KiB;
};

struct NetworkInterface
{
    std::uint8_t name[16];
    std::uint64_t receivedBytes;
    std::uint64_t receivedPackets;
    std::uint64_t receiveErrors;
    std::uint64_t receiveDropped;
    std::uint64_t sentBytes;
    std::uint64_t sentPackets;
    std::uint64_t sendErrors;
    std::uint64_t sendDropped;
};

struct NetworkRecord
{
    std::uint64_t frame;
    std::uint32_t interfaceCount;     ///< Valid entries in `interfaces`.
    std::uint32_t unlistedInterfaces; ///< Those that had no room.
    NetworkInterface interfaces[MAX_INTERFACES];
};

struct InterruptLine
{
    std::uint8_t label[8];
    std::uint8_t source[56];
    std::uint32_t counts[MAX_CORES]; ///< Wrap at 2^32.
};

struct InterruptRecord
{
    std::uint64_t frame;
    std::uint32_t coreCount; ///< Valid entries in `counts`.
    std::uint32_t lineCount; ///< Valid entries in `lines`.
    InterruptLine lines[MAX_INTERRUPT_LINES];
};

/// Doesn't change while the program runs.
struct MachineRecord
{
    std::uint8_t hostName[64];
    std::uint8_t system[32];
    std::uint8_t release[64];
    std::uint8_t architecture[32];
    std::uint8_t cpuModel[64];
    std::uint64_t memoryTotal_KiB;
    std::uint64_t bootTime_s; ///< Seconds since 1970.
    std::uint32_t coreCount;
    std::uint32_t pageSize_bytes;
    std::uint32_t ticksPerSecond; ///< Of the times in CpuRecord.
    float frameRate_Hz;
    std::uint8_t libraryVersion[32];
};

/// Text in a field of fixed size: cut to fit, with at least one zero behind it.
template<std::size_t SIZE>
void setText(std::uint8_t (&field)[SIZE], const std::string& text)
{
    for (std::size_t i = 0; i < SIZE; ++i) {
        field[i] = i < text.size() && i + 1 < SIZE ? static_cast<std::uint8_t>(text[i]) : std::uint8_t{0};
    }
}

} // namespace Sysmon

#endif
