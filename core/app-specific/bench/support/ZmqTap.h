#ifndef LODESTONE_BENCH_ZMQTAP_H
#define LODESTONE_BENCH_ZMQTAP_H

#include "ALStructs_extif.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>

/// The same frames through ZeroMQ's PUSH and PULL over loopback, one message a frame. For comparison only;
/// never part of the library.
class ZmqTap
{
public:
    ZmqTap();
    ~ZmqTap();

    ZmqTap(const ZmqTap&) = delete;
    ZmqTap& operator=(const ZmqTap&) = delete;

    /// False if the frame was dropped.
    bool apply(const AlgoMeasBuffer* buffers, std::size_t count);
    /// Waits until so many frames have been read in all.
    void awaitFrames(std::uint64_t total) const;

private:
    void run();

    void* m_context;
    void* m_push;
    void* m_pull;
    std::atomic<std::uint64_t> m_frames{0};
    std::thread m_thread;
};

#endif
