#ifndef LODESTONE_TEST_CHECKINGREADER_H
#define LODESTONE_TEST_CHECKINGREADER_H

#include "StreamClient.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

/// A client on a thread of its own that reads all it gets and hands it on cycle by cycle, to be checked.
class CheckingReader
{
public:
    enum class Pace
    {
        FAST,
        SLOW,      ///< Rests after each cycle.
        STUTTERING ///< Stops at random for some frames of the host.
    };
    /// Called on the reader's thread. `newConnection` for the first cycle of a connection but the first.
    typedef std::function<void(const WireCycle& cycle, bool newConnection)> Sink;

    CheckingReader(std::unique_ptr<StreamClient> client, Pace pace, unsigned seed, Sink sink);
    ~CheckingReader();

    CheckingReader(const CheckingReader&) = delete;
    CheckingReader& operator=(const CheckingReader&) = delete;

    /// Goes on with that client when all of the present one's stream has been read. Only if settledIn().
    void goOnWith(std::unique_ptr<StreamClient> client);
    /// Host: a frame was delivered. A reader that rests waits for these, but never for long.
    void beat() { m_beats.fetch_add(1, std::memory_order_relaxed); }
    /// From now on without rests.
    void hurry() { m_hurried = true; }

    /// The number behind the last cycle that was handed on; 0 before the first.
    std::uint64_t nextCycle() const { return m_nextCycle; }
    /// The newest connection has brought a cycle.
    bool settledIn() const { return m_settledIn; }
    /// Queue length in the last record.
    std::uint64_t queueLength() const { return m_queueLength; }
    /// A connection ended in the middle of a cycle.
    bool broken() const { return m_broken; }

private:
    void run();
    bool nextClient();
    void handOn(const WireCycle& cycle);
    void rest(std::uint64_t beats, int most_us);

    const Pace m_pace;
    const Sink m_sink;
    std::mt19937 m_random;
    std::unique_ptr<StreamClient> m_client;
    bool m_newConnection = false;

    std::mutex m_mutex; // guards m_next
    std::unique_ptr<StreamClient> m_next;

    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_hurried{false};
    std::atomic<bool> m_broken{false};
    std::atomic<bool> m_settledIn{false};
    std::atomic<std::uint64_t> m_beats{0};
    std::atomic<std::uint64_t> m_nextCycle{0};
    std::atomic<std::uint64_t> m_queueLength{0};
    std::thread m_thread; // last: it uses all the others
};

#endif
