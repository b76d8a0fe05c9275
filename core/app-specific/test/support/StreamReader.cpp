#include "StreamReader.h"

#include <utility>

StreamReader::StreamReader(std::unique_ptr<StreamClient> client, Pace pace, unsigned seed)
    : m_pace(pace), m_random(seed), m_client(std::move(client)), m_thread([this] { run(); })
{}

StreamReader::~StreamReader()
{
    m_stop = true;
    m_thread.join();
}

bool StreamReader::take(WireCycle& cycle)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_cycles.empty()) {
        return false;
    }
    cycle = std::move(m_cycles.front());
    m_cycles.pop_front();
    return true;
}

void StreamReader::run()
{
    while (!m_stop) {
        if (!m_client->somethingWaits(2)) { // how long a stop can go unnoticed
            continue;
        }
        WireCycle cycle = m_client->readCycle();
        const std::uint64_t behind = cycle.complete ? std::uint64_t{cycle.counter} + 1 : 0;
        if (!cycle.bytes.empty()) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_cycles.push_back(std::move(cycle));
        }
        if (behind == 0) {
            m_ended = true;
            return;
        }
        m_nextCycle = behind;
        if (m_pace == SLOW && m_random() % 4 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(m_random() % 200));
        } else if (m_pace == STUTTERING && m_random() % 32 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(m_random() % 3000));
        }
    }
}
