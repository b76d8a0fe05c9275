#ifndef LODESTONE_TOOLS_SOAKREPORT_H
#define LODESTONE_TOOLS_SOAKREPORT_H

#include "ProcessFigures.h"
#include "StreamOracle.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What a soak run has seen, and whether it was all right.
class SoakReport
{
public:
    /// `atStart`: the process with nothing of the library running.
    explicit SoakReport(const ProcessFigures& atStart) : m_atStart(atStart), m_atRest(atStart) {}

    /// Once a second or so.
    void sampleMemory();
    /// The process at rest again, between two configurations.
    void compareRest();
    /// Something that must not happen; the first ones are told at once.
    void fault(const std::string& text);

    std::string progress(double seconds) const;
    /// A Markdown table.
    std::string table(double seconds, unsigned seed) const;
    bool allIsWell() const;

    StreamOracle::Counts exact;     ///< Transfers under the oracle's eyes.
    std::uint64_t otherBuffers = 0; ///< Delivered beside them, while clients misbehaved.
    std::uint64_t frames = 0;
    std::uint64_t transfers = 0;
    std::uint64_t takeovers = 0;
    std::uint64_t abusers = 0;
    std::uint64_t configurations = 0;

private:
    // Growth of resident memory that a run may show: the allocator's arenas differ by some configurations.
    static constexpr std::size_t MOST_GROWTH = 4U << 20U;

    std::size_t medianOf(double from, double to) const;
    bool restIsEqual() const;
    bool memoryIsFlat() const;

    const ProcessFigures m_atStart;
    ProcessFigures m_atRest; // the largest
    std::vector<std::size_t> m_samples;
    std::uint64_t m_faults = 0;
};

#endif
