#include "FrameLoop.h"

#include "Lodestone.h"

#include <algorithm>
#include <cstdio>

namespace Sysmon
{

FrameLoop::FrameLoop(SystemMonitor& monitor, StopSignals& stop, const Options& options)
    : m_monitor(monitor), m_stop(stop), m_seconds(options.seconds),
      m_period(
          std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / options.rate_Hz)))
{}

void FrameLoop::run()
{
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end =
        m_seconds > 0
            ? begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(m_seconds))
            : Clock::time_point::max();
    apply(m_monitor.constantBuffers(), true);
    for (Clock::time_point next = begin; next < end && !m_stop.waitUntil(next);) {
        m_monitor.nextFrame();
        apply(m_monitor.frameBuffers(), false);
        ++m_frames;
        // Frames that were missed, by a machine that slept perhaps, aren't made up for.
        next = std::max(next + m_period, Clock::now());
    }
}

void FrameLoop::apply(std::vector<AlgoMeasBuffer>& buffers, bool constant)
{
    const Clock::time_point begin = Clock::now();
    const alif_int32_t result = Lodestone::Lodestone_Apply(
        buffers.data(), static_cast<alif_uint32_t>(buffers.size()), constant ? 1 : 0);
    m_timeInApply += Clock::now() - begin;
    if (result != 0) {
        ++m_failures;
        if (!m_lastFailed) {
            std::fprintf(stderr, "sysmon: frame %llu: %s\n", static_cast<unsigned long long>(m_frames),
                         Lodestone::GetLastErrorString().c_str());
        }
    }
    m_lastFailed = result != 0;
}

void FrameLoop::printSummary() const
{
    typedef std::chrono::duration<double, std::milli> Milliseconds;
    const double mean_ms =
        m_frames > 0 ? Milliseconds(m_timeInApply).count() / static_cast<double>(m_frames) : 0;
    std::printf(
        "%llu frames, %llu failures, %.3f ms in Lodestone_Apply on average, %.2f %% of the frame time\n",
        static_cast<unsigned long long>(m_frames), static_cast<unsigned long long>(m_failures), mean_ms,
        100 * mean_ms / Milliseconds(m_period).count());
}

} // namespace Sysmon
