#include "CheckingReader.h"

#include <algorithm>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace
{

const std::size_t LARGE_BITE = 1 << 16;
const std::size_t SMALL_BITE = 1 << 11;
const int LOOK_MS = 2; // how long a stop can go unnoticed

} // namespace

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
        if (!readSome()) {
            m_broken = m_begin != m_end;
            if (m_broken || !nextClient()) {
                return;
            }
            continue;
        }
        handOn();
        if (m_pace == Pace::SLOW) {
            rest(1, 100);
        } else if (m_pace == Pace::STUTTERING && m_random() % 32 == 0) {
            rest(m_random() % 100, 3000);
        }
    }
}

// False at the end of the connection.
bool CheckingReader::readSome()
{
    pollfd entry = {m_client->descriptor(), POLLIN, 0};
    if (::poll(&entry, 1, LOOK_MS) <= 0) {
        return true;
    }
    if (m_begin == m_end) {
        m_begin = m_end = 0;
    }
    const std::size_t bite = m_pace == Pace::SLOW && !m_hurried ? SMALL_BITE : LARGE_BITE;
    if (m_bytes.size() < m_end + bite) {
        m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_begin));
        m_end -= m_begin;
        m_begin = 0;
        m_bytes.resize(std::max(m_bytes.size(), m_end + LARGE_BITE));
    }
    const ssize_t count = ::recv(m_client->descriptor(), m_bytes.data() + m_end, bite, 0);
    m_end += count > 0 ? static_cast<std::size_t>(count) : 0;
    return count > 0;
}

// The host announces the next client a moment after it has connected it.
bool CheckingReader::nextClient()
{
    bool found = false;
    waitFor([&] {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_next != nullptr) {
            m_client = std::move(m_next);
            found = true;
        }
        return found || m_stop;
    });
    m_newConnection = m_newConnection || found;
    return found;
}

void CheckingReader::handOn()
{
    WireCycle cycle;
    while (decode(cycle)) {
        if (!cycle.isOnce()) {
            m_queueLength = cycle.diag(0); // first: it is asked for after what the sink knows
        }
        m_sink(cycle, m_newConnection);
        m_newConnection = false;
        settleIn();
        m_nextCycle = std::uint64_t{cycle.counter} + 1;
        cycle = WireCycle();
    }
}

void CheckingReader::settleIn()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_settledIn = m_next == nullptr;
}

// False if the cycle isn't all there yet.
bool CheckingReader::decode(WireCycle& cycle)
{
    std::size_t position = m_begin;
    if (!take(position, 12)) {
        return false;
    }
    cycle.counter = number(m_begin + 4);
    for (std::uint32_t left = number(m_begin + 8); left > 0; --left) {
        const std::size_t header = position;
        if (!take(position, 20) || !take(position, number(header + 16))) {
            return false;
        }
        WireEntry entry;
        entry.channelID = static_cast<std::int32_t>(number(header));
        entry.numberOfParts = static_cast<std::int32_t>(number(header + 4));
        entry.totalSize = static_cast<std::int32_t>(number(header + 8));
        entry.partNumber = static_cast<std::int32_t>(number(header + 12));
        entry.payload.assign(m_bytes.data() + header + 20, number(header + 16));
        cycle.entries.push_back(std::move(entry));
    }
    cycle.complete = number(m_begin) == 0;
    m_begin = position;
    return true;
}

bool CheckingReader::take(std::size_t& position, std::size_t byteSize) const
{
    position += byteSize;
    return position <= m_end;
}

std::uint32_t CheckingReader::number(std::size_t position) const
{
    std::uint32_t value = 0;
    for (std::size_t k = 0; k < 4; ++k) {
        value |= static_cast<std::uint32_t>(static_cast<std::uint8_t>(m_bytes[position + k])) << (8 * k);
    }
    return value;
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
