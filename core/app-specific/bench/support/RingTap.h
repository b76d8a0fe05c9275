#ifndef LODESTONE_BENCH_RINGTAP_H
#define LODESTONE_BENCH_RINGTAP_H

#include "ALStructs_extif.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

/// What an engineer would write in an afternoon: a ring of bytes and a thread that sends it. No
/// configuration, no backlog rule, no diagnostics, no second client. A frame that doesn't fit is dropped. For
/// comparison only.
class RingTap
{
public:
    /// Sends to `sock`, which stays the caller's. `capacity` bytes of ring.
    RingTap(int sock, std::size_t capacity);
    ~RingTap();

    RingTap(const RingTap&) = delete;
    RingTap& operator=(const RingTap&) = delete;

    /// False if the frame was dropped.
    bool apply(const AlgoMeasBuffer* buffers, std::size_t count);

private:
    void put(const void* bytes, std::size_t size);
    void run();

    const int m_sock;
    std::vector<char> m_ring;
    std::mutex m_mutex;
    std::condition_variable m_filled;
    std::uint64_t m_head = 0; // bytes ever put; m_mutex when it changes for the sender
    std::uint64_t m_tail = 0; // bytes ever sent; m_mutex
    std::uint64_t m_next = 0; // host only
    bool m_stop = false;      // m_mutex
    std::thread m_thread;
};

#endif
