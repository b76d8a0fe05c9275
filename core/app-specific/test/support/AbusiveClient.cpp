#include "AbusiveClient.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>

AbusiveClient::AbusiveClient(int port, int way, std::size_t leaveAt) : m_way(way), m_leaveAt(leaveAt)
{
    open(port, way == STALL ? 2048 : 0, SOCK_NONBLOCK); // a refusal shows in the first step
}

bool AbusiveClient::step()
{
    pollfd entry = {descriptor(), POLLOUT, 0};
    if (!m_begun && ::poll(&entry, 1, 0) > 0) {
        m_begun = true;
        const char garbage[1000] = {'G', 'E', 'T'};
        if (m_way == HALF_CLOSE) {
            ::shutdown(descriptor(), SHUT_WR);
        } else if (m_way == GARBAGE) {
            static_cast<void>(::send(descriptor(), garbage, sizeof garbage, MSG_NOSIGNAL));
        }
    }
    if (!m_begun || m_way == STALL) {
        return !connected(); // one that reads nothing doesn't see its end either
    }
    char bytes[4096];
    while (m_bytesRead < m_leaveAt) {
        const std::size_t wanted = std::min(sizeof bytes, m_leaveAt - m_bytesRead);
        const ssize_t count = ::recv(descriptor(), bytes, wanted, 0);
        if (count < 0 && errno == EAGAIN) {
            return false;
        }
        if (count <= 0) {
            break;
        }
        m_bytesRead += static_cast<std::size_t>(count);
    }
    if (m_way == RESET) {
        vanish();
    }
    close();
    return true;
}
