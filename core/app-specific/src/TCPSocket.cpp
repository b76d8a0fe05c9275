#include "TCPSocket.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <fcntl.h>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Lodestone
{

namespace
{

const char* const SEND_FAILED = "socket::send reported an error";

// The one connection was at fault, not the listener: accept(2) lists the network's errors, which stand for a
// connection that broke before it was accepted.
bool isConnectionError(int error)
{
    switch (error) {
    case EAGAIN:
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case ENETUNREACH:
        return true;
    default:
        return false;
    }
}

bool pollReadable(int descriptor, int timeout_ms)
{
    pollfd entry = {descriptor, POLLIN, 0};
    return ::poll(&entry, 1, timeout_ms) > 0;
}

} // namespace

TCPSocket::TCPSocket(unsigned int ID) noexcept : m_sock(-1), m_addr(), m_ID(ID), m_handedOver(0) {}

TCPSocket::~TCPSocket()
{
    if (isValid()) {
        // A child that the host has forked holds a copy of the descriptor. The connection, or the port, ends
        // here all the same.
        ::shutdown(m_sock, SHUT_RDWR);
        ::close(m_sock);
    }
}

int TCPSocket::send(const char* data, int byteSize)
{
    if (!isValid()) {
        throw std::runtime_error("Cannot send something on an invalid socket");
    }
    const ssize_t taken = ::send(m_sock, data, static_cast<std::size_t>(byteSize), MSG_NOSIGNAL);
    if (taken < 0) {
        throw std::runtime_error(SEND_FAILED);
    }
    m_handedOver.store(m_handedOver.load(std::memory_order_relaxed) + static_cast<std::uint64_t>(taken),
                       std::memory_order_relaxed);
    return static_cast<int>(taken);
}

int TCPSocket::receive(char* buffer, int byteSize)
{
    if (!isValid()) {
        throw std::runtime_error("Cannot receive something on an invalid socket");
    }
    int total = 0;
    while (total < byteSize) {
        const ssize_t count = ::recv(m_sock, buffer + total, static_cast<std::size_t>(byteSize - total), 0);
        if (count < 0) {
            throw std::runtime_error("socket::receive reported an error");
        }
        if (count == 0) {
            throw std::runtime_error("socket connection closed by client");
        }
        total += static_cast<int>(count);
    }
    return total;
}

bool TCPSocket::waitForReadyRead(int timeout_ms)
{
    if (!isValid()) {
        return false;
    }
    if (m_sock >= FD_SETSIZE) {
        // A host with many open files: the set below has no bit for this descriptor.
        return pollReadable(m_sock, timeout_ms);
    }
    timeval timeout = {};
    timeout.tv_usec = static_cast<suseconds_t>(std::min(timeout_ms, INT_MAX / 1000)) * 1000;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(m_sock, &readable);
    if (::select(m_sock + 1, &readable, nullptr, nullptr, &timeout) < 0) {
        if (errno != EINTR) {
            // A host that closes all its descriptors takes this one along. The caller's loop must not burn a
            // core.
            ::poll(nullptr, 0, timeout_ms);
        }
        return false; // the set means nothing after a failure
    }
    return FD_ISSET(m_sock, &readable);
}

int TCPSocket::receiveTimeout(char* buffer, int byteSize, int timeout_ms)
{
    if (!waitForReadyRead(timeout_ms)) {
        throw std::runtime_error("socket receive timed out");
    }
    return receive(buffer, byteSize);
}

void TCPSocket::abort() noexcept
{
    if (isValid()) {
        ::shutdown(m_sock, SHUT_RDWR);
    }
}

TCPSocket::Progress TCPSocket::progress() const noexcept
{
    Progress result;
    result.handedOver = m_handedOver.load(std::memory_order_relaxed);
    if (!isValid()) {
        return result;
    }
    int queued = 0;
    if (::ioctl(m_sock, SIOCOUTQ, &queued) == 0) {
        result.queued = queued;
    }
    // A reader that takes large bites leaves the queue as full as before at each look; what it acknowledged
    // in all only grows.
    tcp_info info;
    socklen_t length = sizeof info;
    if (::getsockopt(m_sock, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
        length >= offsetof(tcp_info, tcpi_bytes_acked) + sizeof info.tcpi_bytes_acked) {
        result.acknowledged = info.tcpi_bytes_acked;
    }
    return result;
}

bool TCPSocket::closedByPeer() const noexcept
{
    if (!isValid()) {
        return true;
    }
    pollfd entry = {m_sock, POLLRDHUP, 0};
    // Not to know counts as closed: a newcomer is served by a transfer of its own in either case.
    return ::poll(&entry, 1, 0) < 0 || (entry.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0;
}

void TCPSocket::create()
{
    m_sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_sock == -1) {
        throw std::runtime_error("Unable to create socket");
    }
    const int enabled = 1;
    if (::setsockopt(m_sock, SOL_SOCKET, SO_REUSEADDR, &enabled, sizeof enabled) == -1) {
        throw std::runtime_error("Unable to set socket option");
    }
}

TCPServerSocket::TCPServerSocket(int port) : TCPSocket(0)
{
    create();
    m_addr.sin_family = AF_INET;
    m_addr.sin_addr.s_addr = htonl(INADDR_ANY);
    m_addr.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::bind(m_sock, reinterpret_cast<const sockaddr*>(&m_addr), sizeof m_addr) < 0) {
        throw std::runtime_error("Error calling bind()");
    }
    if (::listen(m_sock, 1) == -1) {
        throw std::runtime_error("Error calling listen()");
    }
    // A connection that was announced can be gone when accept() is called, and the thread there has a flag to
    // watch.
    if (::fcntl(m_sock, F_SETFL, O_NONBLOCK) == -1) {
        throw std::runtime_error("Unable to set socket option");
    }
}

AcceptResult TCPServerSocket::accept(TCPSocket& newSocket)
{
    socklen_t addr_length = sizeof m_addr;
    // Close-on-exec at once: another thread of the host may be starting a child. accept4 gives a blocking
    // descriptor whatever the listener's mode.
    newSocket.m_sock = ::accept4(m_sock, reinterpret_cast<sockaddr*>(&m_addr), &addr_length, SOCK_CLOEXEC);
    if (newSocket.isValid()) {
        return AcceptResult::CONNECTED;
    }
    return isConnectionError(errno) ? AcceptResult::VANISHED : AcceptResult::FAILED;
}

} // namespace Lodestone
