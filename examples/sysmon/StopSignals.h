#ifndef LODESTONE_EXAMPLES_STOPSIGNALS_H
#define LODESTONE_EXAMPLES_STOPSIGNALS_H

#include <chrono>
#include <csignal>

namespace Sysmon
{

/// Ctrl-C and SIGTERM as something to wait for instead of an interruption: the waiting between two frames is
/// the waiting for them, and none comes at a bad moment or gets lost. Build it before the library starts its
/// threads: they inherit the blocked signals, and so leave them to this object.
class StopSignals
{
public:
    typedef std::chrono::steady_clock Clock;

    /// Blocks the two signals in this thread for good.
    StopSignals();

    /// Waits until `deadline`, or looks only if that is past. True as soon as one of the signals came, and
    /// from then on at once.
    bool waitUntil(Clock::time_point deadline);

private:
    sigset_t m_signals;
    bool m_stopped = false;
};

} // namespace Sysmon

#endif
