#include "AbusiveClient.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

AbusiveClient::AbusiveClient(int port, Way way, std::size_t leaveAt) : m_way(way), m_leaveAt(leaveAt)
{
    m_sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int receiveBuffer = 2048;
    if (way == STALL) {
        ::setsockopt(m_sock, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    // In progress, as a rule; a refusal shows in the first step.
    static_cast<void>(::connect(m_sock, reinterpret_cast<const sockaddr*>(&address), sizeof address));
}

// What is done once, as soon as it is connected.
void AbusiveClient::beginBadly()
{
    if (m_way == HALF_CLOSE) {
        ::shutdown(m_sock, SHUT_WR);
    } else if (m_way == GARBAGE) {
        const char garbage[1000] = {'G', 'E', 'T'};
        static_cast<void>(::send(m_sock, garbage, sizeof garbage, MSG_NOSIGNAL));
    }
    m_connected = true;
}

bool AbusiveClient::step()
{
    pollfd entry = {m_sock, POLLOUT, 0};
    if (m_sock < 0) {
        return true;
    }
    if (!m_connected && ::poll(&entry, 1, 0) > 0) {
        beginBadly();
    }
    if (!m_connected || m_way == STALL) {
        return false; // one that reads nothing doesn't see its end either
    }
    char bytes[4096];
    while (m_bytesRead < m_leaveAt) {
        const ssize_t count = ::recv(m_sock, bytes, std::min(sizeof bytes, m_leaveAt - m_bytesRead), 0);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            return false;
        }
        if (count <= 0) {
            break;
        }
        m_bytesRead += static_cast<std::size_t>(count);
    }
    close(m_way == RESET);
    return true;
}

void AbusiveClient::close(bool reset)
{
    const linger now = {1, 0};
    if (m_sock >= 0 && reset) {
        ::setsockopt(m_sock, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }
    if (m_sock >= 0) {
        ::close(m_sock);
    }
    m_sock = -1;
}
