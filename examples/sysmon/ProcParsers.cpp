#include "ProcParsers.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <sstream>

namespace Sysmon
{

namespace
{

/// The number at the start of `word`, or 0.
std::uint64_t toNumber(const std::string& word)
{
    return std::strtoull(word.c_str(), nullptr, 10);
}

bool isNumber(const std::string& word)
{
    return !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
        return std::isdigit(static_cast<unsigned char>(c)) != 0;
    });
}

/// The next words of `words` as numbers; what is missing is 0.
template<std::size_t COUNT>
std::array<std::uint64_t, COUNT> nextNumbers(std::istream& words)
{
    std::array<std::uint64_t, COUNT> numbers = {};
    std::string word;
    for (std::uint64_t& number : numbers) {
        number = words >> word ? toNumber(word) : 0;
    }
    return numbers;
}

CpuTimes nextTimes(std::istream& words)
{
    const auto ticks = nextNumbers<8>(words);
    return {ticks[0], ticks[1], ticks[2], ticks[3], ticks[4], ticks[5], ticks[6], ticks[7]};
}

std::string trimmed(const std::string& text)
{
    const char* const blanks = " \t";
    const std::size_t begin = std::min(text.find_first_not_of(blanks), text.size());
    return text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

/// Splits "key: value" at its colon; false if there is none.
bool splitAtColon(const std::string& line, std::string& key, std::string& value)
{
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) {
        return false;
    }
    key = trimmed(line.substr(0, colon));
    value = trimmed(line.substr(colon + 1));
    return true;
}

/// The counts of one line of /proc/interrupts, then its source. Some lines have fewer counts than cores.
void parseInterruptLine(const std::string& label, const std::string& rest, std::size_t columns,
                        InterruptLine& line)
{
    setText(line.label, label);
    std::istringstream words(rest);
    std::string word;
    std::string source;
    for (std::size_t column = 0; words >> word; ++column) {
        if (column < columns && isNumber(word)) {
            if (column < MAX_CORES) {
                line.counts[column] = static_cast<std::uint32_t>(toNumber(word));
            }
        } else {
            columns = 0;
            source += (source.empty() ? "" : " ") + word;
        }
    }
    setText(line.source, source);
}

} // namespace

void parseStat(const std::string& text, CpuRecord& record)
{
    std::istringstream lines(text);
    std::uint32_t cores = 0;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string key;
        words >> key;
        if (key == "cpu") {
            record.total = nextTimes(words);
        } else if (key.compare(0, 3, "cpu") == 0) {
            if (cores < MAX_CORES) {
                record.cores[cores] = nextTimes(words);
            }
            ++cores;
        } else if (key == "ctxt") {
            record.contextSwitches = nextNumbers<1>(words)[0];
        } else if (key == "intr") {
            record.interrupts = nextNumbers<1>(words)[0];
        } else if (key == "processes") {
            record.forks = nextNumbers<1>(words)[0];
        } else if (key == "procs_running") {
            record.runningTasks = static_cast<std::uint32_t>(nextNumbers<1>(words)[0]);
        } else if (key == "procs_blocked") {
            record.blockedTasks = static_cast<std::uint32_t>(nextNumbers<1>(words)[0]);
        }
    }
    record.coreCount = std::min(cores, static_cast<std::uint32_t>(MAX_CORES));
    record.unlistedCores = cores - record.coreCount;
}

void parseBootTime(const std::string& text, MachineRecord& record)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 6, "btime ") == 0) {
            record.bootTime_s = toNumber(line.substr(6));
        }
    }
}

void parseLoadAverage(const std::string& text, CpuRecord& record)
{
    std::istringstream words(text);
    for (float& average : record.loadAverage) {
        float value = 0;
        if (!(words >> value)) {
            return;
        }
        average = value;
    }
}

void parseMemInfo(const std::string& text, MemoryRecord& record)
{
    const struct
    {
        const char* key;
        std::uint64_t MemoryRecord::*field;
    } fields[] = {
        {"MemTotal", &MemoryRecord::total_KiB},         {"MemFree", &MemoryRecord::free_KiB},
        {"MemAvailable", &MemoryRecord::available_KiB}, {"Buffers", &MemoryRecord::buffers_KiB},
        {"Cached", &MemoryRecord::cached_KiB},          {"SwapTotal", &MemoryRecord::swapTotal_KiB},
        {"SwapFree", &MemoryRecord::swapFree_KiB},      {"Dirty", &MemoryRecord::dirty_KiB},
        {"Shmem", &MemoryRecord::shared_KiB},           {"Slab", &MemoryRecord::slab_KiB},
    };
    std::istringstream lines(text);
    std::string key;
    std::string value;
    for (std::string line; std::getline(lines, line);) {
        if (!splitAtColon(line, key, value)) {
            continue;
        }
        for (const auto& known : fields) {
            if (key == known.key) {
                record.*known.field = toNumber(value);
            }
        }
    }
}

void parseNetDev(const std::string& text, NetworkRecord& record)
{
    std::istringstream lines(text);
    std::string name;
    std::string rest;
    std::uint32_t interfaces = 0;
    for (std::string line; std::getline(lines, line);) {
        // The two lines of the heading have no colon.
        if (!splitAtColon(line, name, rest)) {
            continue;
        }
        if (interfaces < MAX_INTERFACES) {
            std::istringstream words(rest);
            const auto n = nextNumbers<16>(words);
            NetworkInterface& entry = record.interfaces[interfaces];
            entry = {{}, n[0], n[1], n[2], n[3], n[8], n[9], n[10], n[11]};
            setText(entry.name, name);
        }
        ++interfaces;
    }
    record.interfaceCount = std::min(interfaces, static_cast<std::uint32_t>(MAX_INTERFACES));
    record.unlistedInterfaces = interfaces - record.interfaceCount;
}

void parseInterrupts(const std::string& text, InterruptRecord& record)
{
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    std::istringstream heading(line);
    std::size_t columns = 0;
    for (std::string word; heading >> word;) {
        ++columns;
    }
    record.coreCount = static_cast<std::uint32_t>(std::min(columns, MAX_CORES));

    std::uint32_t count = 0;
    std::string label;
    std::string rest;
    while (count < MAX_INTERRUPT_LINES && std::getline(lines, line)) {
        if (splitAtColon(line, label, rest)) {
            record.lines[count] = {};
            parseInterruptLine(label, rest, columns, record.lines[count]);
            ++count;
        }
    }
    record.lineCount = count;
}

void parseCpuInfo(const std::string& text, MachineRecord& record)
{
    std::istringstream lines(text);
    std::string key;
    std::string value;
    for (std::string line; std::getline(lines, line);) {
        if (splitAtColon(line, key, value) &&
            (key == "model name" || key == "Processor" || key == "cpu model")) {
            setText(record.cpuModel, value);
            return;
        }
    }
}

} // namespace Sysmon
