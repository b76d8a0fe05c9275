#ifndef LODESTONE_TEST_SCHEDULE_H
#define LODESTONE_TEST_SCHEDULE_H

#include <cstdint>
#include <string_view>

/// Decides which of the host, sender, server and client threads runs, at every call in which they can meet
/// and at every point that the library names (TestPoints.h). They are real threads, but one of them runs at a
/// time: of those that can, the one with the highest priority, and each such step may draw a new one for the
/// thread that takes it. Waits are the layer's own: whoever waits for a mutex, a condition, a thread, a
/// socket or a moment isn't chosen until that is there, and the clock moves when nobody can run. So a run
/// takes milliseconds whatever the library's limits are, and a deadlock or a lost wake-up is found at once:
/// nobody can run.
///
/// How exact a replay is: all decisions follow from the seed and from what the kernel's sockets say at that
/// step. On loopback that is nearly always the same again, but it isn't promised, and a run that waits for a
/// child process has only the seed in common with its replay.
///
/// For programs with a WRAP of all functions in Schedule.cpp and FaultCalls.cpp. Both are compiled without
/// sanitizers: the hand-over between threads is nothing that the thread sanitizer should take for an order of
/// the library's own.
namespace Schedule
{

// Who runs: the thread that begins the run, the library's by their names, and one that the test starts.
inline constexpr std::string_view HOST = "host";
inline constexpr std::string_view SENDER = "sender";
inline constexpr std::string_view SERVER = "server";
inline constexpr std::string_view CLIENT = "client";

struct Plan
{
    unsigned seed = 0;
    std::string_view stalled = "nobody"; ///< Stands still at one of its steps while the others go on ...
    int stalledAt = 0;                   ///< ... at this one, counted from 1.
};

struct Outcome
{
    std::uint64_t hash = 0; ///< Of the sequence of (thread, step), the library's steps only.
    int steps = 0;
    // If a thread stood still:
    bool reached = false;
    const char* where = "";     ///< The stalled thread's step.
    int frames = 0;             ///< That the host finished meanwhile; the stall ends at ENOUGH_FRAMES ...
    const char* hostWaits = ""; ///< ... or when time alone could go on. The step in which the host then was.
};
const int ENOUGH_FRAMES = 12;

/// Begins a run; the caller is the host.
void begin(const Plan& plan);
/// The other threads must have ended, and be joined. A process that exits ends its run behind all handlers.
Outcome end();

void hostIsInLibrary(bool inside);
/// Which thread the caller is, if that runs code of the library now; else empty.
std::string_view inLibrary();
/// One more frame is delivered. Whether a thread stands still now.
bool frameDone();
/// A number below `sides`, from the run's sequence.
unsigned dice(unsigned sides);

} // namespace Schedule

#endif
