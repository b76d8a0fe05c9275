#include "StopSignals.h"

#include <algorithm>
#include <cerrno>

namespace Sysmon
{

StopSignals::StopSignals()
{
    sigemptyset(&m_signals);
    sigaddset(&m_signals, SIGINT);
    sigaddset(&m_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
}

bool StopSignals::waitUntil(Clock::time_point deadline)
{
    using namespace std::chrono;
    while (!m_stopped) {
        const nanoseconds left = std::max<nanoseconds>(deadline - Clock::now(), nanoseconds(0));
        const auto wholeSeconds = duration_cast<seconds>(left);
        timespec timeout = {};
        timeout.tv_sec = static_cast<decltype(timeout.tv_sec)>(wholeSeconds.count());
        timeout.tv_nsec = static_cast<decltype(timeout.tv_nsec)>((left - wholeSeconds).count());
        if (sigtimedwait(&m_signals, nullptr, &timeout) != -1) {
            m_stopped = true;
        } else if (errno != EINTR) {
            return false; // the time is up
        }
    }
    return true;
}

} // namespace Sysmon
