#ifndef LODESTONE_BENCH_COPYINGSENDER_H
#define LODESTONE_BENCH_COPYINGSENDER_H

#include "BareSender.h"
#include "Load.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

/// The least that any tap must do which copies on the host's thread and sends on another one: a BareSender's
/// sends, of bytes that another core has just written, and one lock for each cycle.
class CopyingSender
{
public:
    /// `slots` is memory for as many frames as are ever in flight; borrowed for the whole life.
    explicit CopyingSender(const std::vector<Load>& slots);
    ~CopyingSender();

    CopyingSender(const CopyingSender&) = delete;
    CopyingSender& operator=(const CopyingSender&) = delete;

    void frame(const std::vector<AlgoMeasBuffer>& buffers);
    DrainingReader& reader() { return m_sender.reader(); }
    /// The CPU time of the sending thread up to its last cycle, in ns.
    double cpuNs() const { return m_cpuNs; }

private:
    void run();

    const std::vector<Load>& m_slots;
    BareSender m_sender;
    std::mutex m_mutex;
    std::condition_variable m_filled; // with m_mutex
    std::size_t m_put = 0;            // changes under m_mutex; read without it by the one who puts
    std::size_t m_taken = 0;          // m_mutex
    bool m_stop = false;              // m_mutex
    std::atomic<double> m_cpuNs{0};
    std::thread m_thread; // last: it uses all the others
};

#endif
