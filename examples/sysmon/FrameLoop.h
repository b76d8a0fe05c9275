#ifndef LODESTONE_EXAMPLES_FRAMELOOP_H
#define LODESTONE_EXAMPLES_FRAMELOOP_H

#include "Options.h"
#include "StopSignals.h"
#include "SystemMonitor.h"

#include <cstdint>
#include <vector>

namespace Sysmon
{

/// Runs the algorithm at its frame rate and offers its buffers to the library, which must have been started.
class FrameLoop
{
public:
    /// Borrows both objects.
    FrameLoop(SystemMonitor& monitor, StopSignals& stop, const Options& options);

    /// Returns when the time is over or a signal came. A failure of the library is told in one line when it
    /// begins.
    void run();

    /// One line for people.
    void printSummary() const;

private:
    typedef StopSignals::Clock Clock;

    void apply(std::vector<AlgoMeasBuffer>& buffers, bool constant);

    SystemMonitor& m_monitor;
    StopSignals& m_stop;
    const double m_seconds;
    const Clock::duration m_period;

    Clock::duration m_timeInApply = Clock::duration::zero();
    std::uint64_t m_frames = 0;
    std::uint64_t m_failures = 0;
    bool m_lastFailed = false;
};

} // namespace Sysmon

#endif
