#ifndef LODESTONE_EXAMPLES_SYSTEMMONITOR_H
#define LODESTONE_EXAMPLES_SYSTEMMONITOR_H

#include "ALStructs_extif.h"
#include "SystemRecords.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Sysmon
{

/// The algorithm whose data are tapped: in every frame it looks at the counters of the kernel that it runs
/// on.
///
/// Each record goes out on an even channel and its description on the channel behind it, so that a reader
/// needs to know nothing beforehand. One thread.
class SystemMonitor
{
public:
    /// `procFolder` is /proc but for tests. A file that isn't there leaves its fields at 0.
    explicit SystemMonitor(double frameRate_Hz, std::string procFolder = "/proc");

    // The buffers point into the object.
    SystemMonitor(const SystemMonitor&) = delete;
    SystemMonitor& operator=(const SystemMonitor&) = delete;

    /// What Lodestone_Init takes.
    std::string configString(int port) const;

    /// To be delivered once, as constant buffers. The bytes live as long as this object.
    std::vector<AlgoMeasBuffer>& constantBuffers() { return m_constantBuffers; }

    /// Reads the counters anew.
    void nextFrame();

    /// To be delivered in every frame. The bytes live as long as this object and change in nextFrame().
    std::vector<AlgoMeasBuffer>& frameBuffers() { return m_frameBuffers; }

private:
    typedef void (*DescriptionGetter)(const void** dataDescriptionBuffer, std::uint32_t* bufferSize);

    template<typename Record>
    void tap(std::int32_t channel, char type, const Record& record, DescriptionGetter getter);
    void addBuffer(std::int32_t channel, char type, const void* data, std::uint32_t size,
                   std::vector<AlgoMeasBuffer>& buffers);

    void describeMachine();
    void updateBusy(const CpuRecord& previous);
    std::string read(const char* file) const;

    const std::string m_procFolder;
    const double m_frameRate_Hz;

    MachineRecord m_machine = {};
    CpuRecord m_cpu = {};
    MemoryRecord m_memory = {};
    NetworkRecord m_network = {};
    InterruptRecord m_interrupts = {};
    std::uint64_t m_frames = 0;

    std::string m_channelItems; // of the configuration string
    std::vector<AlgoMeasBuffer> m_constantBuffers;
    std::vector<AlgoMeasBuffer> m_frameBuffers;
};

} // namespace Sysmon

#endif
