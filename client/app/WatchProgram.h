#ifndef LODESTONE_CLIENT_WATCHPROGRAM_H
#define LODESTONE_CLIENT_WATCHPROGRAM_H

#include "Screen.h"
#include "StreamModel.h"
#include "TapConnection.h"
#include "TapOptions.h"

#include <chrono>
#include <optional>
#include <ostream>
#include <string>

namespace LodestoneTap
{

/// `lodestone-tap watch`: reads one connection and shows pictures of it until it is told to stop or the
/// stream is over. One thread does everything.
class WatchProgram
{
public:
    /// Exit codes of the program.
    enum ExitCode
    {
        EXIT_FINE = 0,
        EXIT_STREAM = 1, ///< No connection, the stream ended or broke, or no whole picture in time.
        EXIT_USAGE = 2
    };

    /// Borrows all but the options. `terminal` as for Screen; pictures go to `out`, the reason of an end that
    /// wasn't asked for goes to `errors` as one line.
    WatchProgram(const TapOptions& options, TapConnection& connection, std::ostream& out,
                 std::ostream& errors, int terminal);

    /// Runs until the end. `stopDescriptor` becoming readable ends the program with EXIT_FINE; -1 for none.
    /// Throws nothing but std::bad_alloc.
    ExitCode run(int stopDescriptor);

private:
    typedef std::chrono::steady_clock Clock;
    typedef StreamModel::TimePoint TimePoint;

    TimePoint endTime(TimePoint start) const;

    // What happens in the loop; the exit code if that ends it.
    std::optional<ExitCode> stepDone(TimePoint now);
    std::optional<ExitCode> takeBytes(Clock::duration wait, int stopDescriptor);

    ExitCode timeIsUp(TimePoint now);
    bool isWhole(TimePoint now) const;
    std::string endText() const;
    void show(TimePoint now, const std::string& error = "");
    ExitCode fail(const std::string& reason);

    const TapOptions m_options;
    TapConnection& m_connection;
    std::ostream& m_out;
    std::ostream& m_errors;
    Screen m_screen;
    StreamModel m_model;
};

} // namespace LodestoneTap

#endif
