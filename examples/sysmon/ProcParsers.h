#ifndef LODESTONE_EXAMPLES_PROCPARSERS_H
#define LODESTONE_EXAMPLES_PROCPARSERS_H

#include "SystemRecords.h"

#include <string>

namespace Sysmon
{

/// Each takes the whole text of a file of /proc and sets the fields that the text tells about. After an empty
/// text the numbers of entries are 0 and all else is as it was. Odd lines are passed over; nothing throws but
/// std::bad_alloc.

/// /proc/stat: the counters of `record`, the times of all cores and of each.
void parseStat(const std::string& text, CpuRecord& record);

/// /proc/stat: `bootTime_s`.
void parseBootTime(const std::string& text, MachineRecord& record);

/// /proc/loadavg.
void parseLoadAverage(const std::string& text, CpuRecord& record);

/// /proc/meminfo.
void parseMemInfo(const std::string& text, MemoryRecord& record);

/// /proc/net/dev.
void parseNetDev(const std::string& text, NetworkRecord& record);

/// /proc/interrupts. Lines beyond the record's room are left out.
void parseInterrupts(const std::string& text, InterruptRecord& record);

/// /proc/cpuinfo: `cpuModel`, whatever the architecture calls it.
void parseCpuInfo(const std::string& text, MachineRecord& record);

} // namespace Sysmon

#endif
