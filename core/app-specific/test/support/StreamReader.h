#ifndef LODESTONE_TEST_STREAMREADER_H
#define LODESTONE_TEST_STREAMREADER_H

#include "StreamClient.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

/// A client on a thread of its own that reads all it gets, and keeps the cycles for the host's thread.
class StreamReader
{
public:
    enum Pace
    {
        FAST,
        SLOW,       ///< Rests at random ...
        STUTTERING, ///< ... or seldom, and longer.
        NO_PACES
    };

    StreamReader(std::unique_ptr<StreamClient> client, Pace pace, unsigned seed);
    ~StreamReader();

    StreamReader(const StreamReader&) = delete;
    StreamReader& operator=(const StreamReader&) = delete;

    /// The oldest cycle that was read and not taken yet; false if there is none. The last one of a connection
    /// that broke off isn't complete.
    bool take(WireCycle& cycle);
    /// The number behind the last cycle read; 0 before the first.
    std::uint64_t nextCycle() const { return m_nextCycle; }
    /// All has been read up to the connection's end.
    bool ended() const { return m_ended; }

private:
    void run();

    const Pace m_pace;
    std::mt19937 m_random;
    const std::unique_ptr<StreamClient> m_client;
    std::mutex m_mutex; // guards m_cycles
    std::deque<WireCycle> m_cycles;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_ended{false};
    std::atomic<std::uint64_t> m_nextCycle{0};
    std::thread m_thread; // last: it uses all the others
};

#endif
