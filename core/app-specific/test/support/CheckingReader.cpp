#include "CheckingReader.h"

#include <utility>

CheckingReader::CheckingReader(std::unique_ptr<StreamClient> client, Pace pace, unsigned seed, Sink sink)
    : m_pace(pace), m_sink(std::move(sink)), m_random(seed), m_client(std::move(client)),
      m_thread([this] { run(); })
{}

CheckingReader::~CheckingReader()
{
    m_stop = true;
    m_thread.join();
}

void CheckingReader::goOnWith(std::unique_ptr<StreamClient> client)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_next = std::move(client);
    m_settledIn = false;
}

void CheckingReader::run()
{
    while (!m_stop) {
        if (!m_client->somethingWaits(2)) { // how long a stop can go unnoticed
            continue;
        }
        m_client->readAhead(m_pace == Pace::SLOW ? 1 << 11 : 1 << 16);
        const WireCycle cycle = m_client->readCycle();
        if (cycle.bytes.empty()) {
            if (!nextClient()) {
                return;
            }
            continue;
        }
        m_broken = !cycle.complete;
        if (m_broken) {
            return;
        }
        handOn(cycle);
        if (m_pace == Pace::SLOW) {
            rest(1, 100);
        } else if (m_pace == Pace::STUTTERING && m_random() % 32 == 0) {
            rest(m_random() % 100, 3000);
        }
    }
}

// The host announces the next client a moment after it has connected it.
bool CheckingReader::nextClient()
{
    waitFor([&] {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_newConnection = m_next != nullptr;
        if (m_newConnection) {
            m_client = std::move(m_next);
        }
        return m_newConnection || m_stop;
    });
    return m_newConnection;
}

void CheckingReader::handOn(const WireCycle& cycle)
{
    if (!cycle.isOnce()) {
        m_queueLength = cycle.diag(0); // first: it is asked for after what the sink knows
    }
    m_sink(cycle, m_newConnection);
    m_newConnection = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_settledIn = m_next == nullptr;
    }
    m_nextCycle = std::uint64_t{cycle.counter} + 1;
}

void CheckingReader::rest(std::uint64_t beats, int most_us)
{
    const std::uint64_t wanted = m_beats.load(std::memory_order_relaxed) + beats;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::microseconds(most_us);
    while (!m_stop && !m_hurried && m_beats.load(std::memory_order_relaxed) < wanted &&
           std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}
