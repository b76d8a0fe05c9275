#include "SoakReport.h"

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <sstream>

namespace
{

const std::uint64_t TOLD_FAULTS = 20;
const std::size_t FEWEST_SAMPLES = 10; // to say something about memory

std::string inMegabytes(std::size_t bytes)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
    return text;
}

const char* verdict(bool good)
{
    return good ? "ok" : "FAILED";
}

} // namespace

void SoakReport::sampleMemory()
{
    m_samples.push_back(ProcessFigures::now().residentBytes);
}

void SoakReport::compareRest()
{
    const ProcessFigures now = ProcessFigures::now();
    m_atRest.descriptors = std::max(m_atRest.descriptors, now.descriptors);
    m_atRest.threads = std::max(m_atRest.threads, now.threads);
}

void SoakReport::fault(const std::string& text)
{
    if (++m_faults <= TOLD_FAULTS) {
        std::fprintf(stderr, "FAULT: %s\n", text.c_str());
    }
}

// In the part of the run from `from` to `to`, both from 0 to 1.
std::size_t SoakReport::medianOf(double from, double to) const
{
    const auto size = static_cast<double>(m_samples.size());
    std::vector<std::size_t> part(m_samples.begin() + static_cast<std::ptrdiff_t>(from * size),
                                  m_samples.begin() + static_cast<std::ptrdiff_t>(to * size));
    std::sort(part.begin(), part.end());
    return part.empty() ? 0 : part[part.size() / 2];
}

bool SoakReport::restIsEqual() const
{
    return m_atRest.descriptors == m_atStart.descriptors && m_atRest.threads == m_atStart.threads;
}

bool SoakReport::memoryIsFlat() const
{
    return medianOf(2.0 / 3, 1) <= medianOf(1.0 / 6, 1.0 / 2) + MOST_GROWTH ||
           m_samples.size() < FEWEST_SAMPLES;
}

bool SoakReport::allIsWell() const
{
    return m_faults == 0 && exact.cycles != 0 && exact.closed() && exact.arrived == exact.delivered &&
           restIsEqual() && memoryIsFlat();
}

std::string SoakReport::progress(double seconds) const
{
    std::ostringstream line;
    line << static_cast<int>(seconds) << " s: " << exact.offered + otherBuffers << " buffers, "
         << exact.cycles << " cycles checked, " << transfers << " transfers, " << abusers << " abusers, "
         << configurations << " configurations, " << inMegabytes(m_samples.empty() ? 0 : m_samples.back())
         << ", " << m_faults << " faults";
    return line.str();
}

std::string SoakReport::table(double seconds, unsigned seed) const
{
    std::ostringstream out;
    const auto row = [&out](const char* figure, const auto& measured, const auto& bound,
                            const char* verdict) {
        out << "| " << figure << " | " << measured << " | " << bound << " | " << verdict << " |\n";
    };
    const auto list = [](std::initializer_list<std::uint64_t> numbers) {
        std::string text;
        for (const std::uint64_t number : numbers) {
            text += (text.empty() ? "" : ", ") + std::to_string(number);
        }
        return text;
    };
    const std::string memory =
        inMegabytes(medianOf(1.0 / 6, 1.0 / 2)) + ", " + inMegabytes(medianOf(2.0 / 3, 1));
    row("Figure", "Measured", "Bound", "Verdict");
    row("---", "---", "---", "---");
    row("Seconds, seed", list({static_cast<std::uint64_t>(seconds), seed}), "", "");
    row("Buffers offered, frames", list({exact.offered + otherBuffers, frames}), "", "");
    row("Of the buffers, in checked transfers", exact.offered, "the sum of the next row",
        verdict(exact.closed()));
    row("Delivered, skipped, not due, dropped at takeovers",
        list({exact.delivered, exact.skipped, exact.notDue, exact.dropped}), "all delivered have arrived",
        verdict(exact.arrived == exact.delivered));
    row("Cycles checked", exact.cycles, "some", verdict(exact.cycles != 0));
    row("Faults in them, and of the host's calls", m_faults, 0, verdict(m_faults == 0));
    row("Transfers, takeovers, abusive connections", list({transfers, takeovers, abusers}), "", "");
    row("Configurations", configurations, "", "");
    row("Descriptors and threads at rest", list({m_atRest.descriptors, m_atRest.threads}),
        list({m_atStart.descriptors, m_atStart.threads}), verdict(restIsEqual()));
    row("Resident memory, early and late median", memory, "+" + inMegabytes(MOST_GROWTH),
        m_samples.size() < FEWEST_SAMPLES ? "too short a run" : verdict(memoryIsFlat()));
    return out.str();
}
