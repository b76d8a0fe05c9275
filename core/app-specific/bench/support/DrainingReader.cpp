#include "DrainingReader.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <vector>

DrainingReader::DrainingReader(int port) : m_client(port), m_thread([this] { run(); }) {}

DrainingReader::~DrainingReader()
{
    m_stop = true;
    m_thread.join();
}

void DrainingReader::awaitQuiet(int quiet_ms)
{
    std::uint64_t before = bytes() + 1;
    while (before != bytes()) {
        before = bytes();
        std::this_thread::sleep_for(std::chrono::milliseconds(quiet_ms));
    }
}

void DrainingReader::awaitBytes(std::uint64_t total)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_awaited = total;
    if (!m_arrived.wait_for(lock, std::chrono::seconds(60), [&] { return m_bytes >= total; })) {
        std::fprintf(stderr, "%llu bytes came in a minute, not %llu: something was dropped\n",
                     static_cast<unsigned long long>(m_bytes), static_cast<unsigned long long>(total));
        std::exit(1);
    }
    m_awaited = UINT64_MAX;
}

void DrainingReader::run()
{
    std::vector<char> buffer(1 << 20);
    while (!m_stop) {
        pollfd entry = {m_client.descriptor(), POLLIN, 0};
        if (m_paused || ::poll(&entry, 1, 20) <= 0) {
            if (m_paused) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            continue;
        }
        const ssize_t count = ::recv(m_client.descriptor(), buffer.data(), buffer.size(), 0);
        if (count <= 0) {
            return;
        }
        m_bytes += static_cast<std::uint64_t>(count);
        if (m_bytes >= m_awaited) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_arrived.notify_one();
        }
    }
}
