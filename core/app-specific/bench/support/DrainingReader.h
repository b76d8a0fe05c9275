#ifndef LODESTONE_BENCH_DRAININGREADER_H
#define LODESTONE_BENCH_DRAININGREADER_H

#include "StreamClient.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

/// A client on a thread of its own that reads and drops as fast as it can. It can pause, to play a stalled
/// one.
class DrainingReader
{
public:
    /// Connects to loopback; waits for a listener.
    explicit DrainingReader(int port);
    ~DrainingReader();

    DrainingReader(const DrainingReader&) = delete;
    DrainingReader& operator=(const DrainingReader&) = delete;

    std::uint64_t bytes() const { return m_bytes.load(std::memory_order_relaxed); }
    /// Waits until nothing has come for `quiet_ms`.
    void awaitQuiet(int quiet_ms);
    /// Sleeps until `total` bytes have come, so that waiting takes no time from the one who sends. Ends
    /// the program after a minute.
    void awaitBytes(std::uint64_t total);
    void pause(bool on) { m_paused = on; }

private:
    void run();

    StreamClient m_client;
    std::atomic<std::uint64_t> m_bytes{0};
    std::atomic<std::uint64_t> m_awaited{UINT64_MAX};
    std::mutex m_mutex;
    std::condition_variable m_arrived; // with m_mutex: m_bytes has reached m_awaited
    std::atomic<bool> m_paused{false};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

#endif
