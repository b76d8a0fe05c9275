#include "WatchProgram.h"

#include "JsonPicture.h"
#include "ReaderError.h"
#include "TextPicture.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace LodestoneTap
{

namespace
{

// With --once: how long a stream must have been seen, and how often that is looked at.
constexpr double WHOLE_AFTER_S = 1.0;
constexpr std::chrono::milliseconds WHOLE_STEP(50);

StreamLimits limitsOf(const TapOptions& options)
{
    StreamLimits limits;
    limits.memoryBytes = options.memoryBytes;
    return limits;
}

} // namespace

WatchProgram::WatchProgram(const TapOptions& options, TapConnection& connection, std::ostream& out,
                           std::ostream& errors, int terminal)
    : m_options(options), m_connection(connection), m_out(out), m_errors(errors),
      m_screen(out, options.once ? -1 : terminal), // a single picture is shown in full, window or not

      m_model(Clock::now(), limitsOf(options))
{}

WatchProgram::ExitCode WatchProgram::run(int stopDescriptor)
{
    const TimePoint start = Clock::now();
    const TimePoint end = endTime(start);
    const std::chrono::milliseconds step = m_options.once ? WHOLE_STEP : m_options.interval;
    TimePoint next = start + step;
    std::optional<ExitCode> code;
    try {
        while (!code) {
            const TimePoint now = Clock::now();
            if (now >= end) {
                code = timeIsUp(now);
            } else if (now >= next) {
                code = stepDone(now);
                next = next + step > now ? next + step : now + step; // what fell out isn't made up for
            } else {
                code = takeBytes(std::min(next, end) - now, stopDescriptor);
            }
        }
    } catch (const ReaderError& error) {
        code = fail(error.what());
    }
    return *code;
}

std::optional<WatchProgram::ExitCode> WatchProgram::stepDone(TimePoint now)
{
    if (!m_options.once) {
        show(now);
    } else if (isWhole(now)) {
        return timeIsUp(now);
    }
    // When nobody can see the pictures any more, a full disk for example, there is no point in going on.
    return m_out ? std::nullopt : std::optional<ExitCode>(EXIT_STREAM);
}

std::optional<WatchProgram::ExitCode> WatchProgram::takeBytes(Clock::duration wait, int stopDescriptor)
{
    std::array<std::uint8_t, 65536> bytes;
    std::size_t received = 0;
    const auto timeout = std::chrono::ceil<std::chrono::milliseconds>(wait);
    switch (m_connection.read(bytes.data(), bytes.size(), received, timeout, stopDescriptor)) {
    case TapConnection::Outcome::DATA:
        m_model.feed(bytes.data(), received, Clock::now());
        return std::nullopt;
    case TapConnection::Outcome::STOPPED:
        return EXIT_FINE;
    case TapConnection::Outcome::ENDED:
        return fail(endText());
    default:
        return std::nullopt;
    }
}

WatchProgram::TimePoint WatchProgram::endTime(TimePoint start) const
{
    if (m_options.once) {
        return start + m_options.timeout;
    }
    return m_options.duration ? start + *m_options.duration : TimePoint::max();
}

WatchProgram::ExitCode WatchProgram::timeIsUp(TimePoint now)
{
    show(now);
    // A stream that hasn't lasted a second yet is whole enough if it has told of the host.
    if (m_options.once && !m_model.picture(now).host) {
        m_errors << "lodestone-tap: no NORMAL cycle from " << m_options.endpoint() << " in time\n";
        return EXIT_STREAM;
    }
    return EXIT_FINE;
}

bool WatchProgram::isWhole(TimePoint now) const
{
    const StreamPicture picture = m_model.picture(now);
    return picture.host && picture.streaming_s >= WHOLE_AFTER_S;
}

// The library closes a connection between two cycles when it has a newer client or its queue goes; whatever
// cuts a cycle in two was sudden. More isn't said on the wire.
std::string WatchProgram::endText() const
{
    const StreamPicture picture = m_model.picture(Clock::now());
    const std::string place = "stream ended after " + std::to_string(picture.bytes) + " bytes, ";
    if (m_model.insideCycle()) {
        return place + "in the middle of a cycle: the host process or its connection died";
    }
    return place +
           (picture.normalCycles + picture.onceCycles == 0
                ? "before the first cycle"
                : "behind cycle " + std::to_string(picture.newestCycle)) +
           ": a newer client took over, or the host stopped streaming";
}

void WatchProgram::show(TimePoint now, const std::string& error)
{
    const StreamPicture picture = m_model.picture(now);
    if (m_options.json) {
        m_out << jsonPicture(picture, m_options.endpoint(), error) << std::endl;
    } else {
        m_screen.show(textPicture(picture, m_options.endpoint()));
    }
}

WatchProgram::ExitCode WatchProgram::fail(const std::string& reason)
{
    show(Clock::now(), reason);
    m_errors << "lodestone-tap: " << reason << std::endl;
    return EXIT_STREAM;
}

} // namespace LodestoneTap
