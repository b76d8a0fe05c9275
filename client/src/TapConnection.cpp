#include "TapConnection.h"

#include "ReaderError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace LodestoneTap
{

namespace
{

typedef std::unique_ptr<addrinfo, void (*)(addrinfo*)> AddressList;

/// All IPv4 addresses of a name. Blocks for as long as the name service takes.
AddressList resolve(const std::string& host, std::uint16_t port)
{
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* addresses = nullptr;
    const int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &addresses);
    if (result != 0) {
        const char* const reason = result == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(result);
        throw ReaderError("cannot find host " + host + ": " + reason);
    }
    return AddressList(addresses, freeaddrinfo);
}

/// Milliseconds for poll, rounded up so that a wait doesn't end just before its time and spin.
int pollTime(std::chrono::steady_clock::duration left)
{
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::clamp<long long>(milliseconds, 0, INT_MAX));
}

} // namespace

TapConnection::TapConnection(const std::string& host, std::uint16_t port, std::chrono::milliseconds timeout)
{
    const AddressList addresses = resolve(host, port);
    const TimePoint deadline = std::chrono::steady_clock::now() + timeout;
    std::string reason = "it has no IPv4 address";
    for (const addrinfo* item = addresses.get(); item != nullptr; item = item->ai_next) {
        sockaddr_in address = {};
        std::memcpy(&address, item->ai_addr, std::min<std::size_t>(sizeof address, item->ai_addrlen));
        if (connectTo(address, deadline, reason)) {
            acknowledgeAtOnce();
            return;
        }
        close();
    }
    throw ReaderError("cannot connect to " + host + ":" + std::to_string(port) + ": " + reason);
}

TapConnection::~TapConnection()
{
    close();
}

// A non-blocking connect reports its outcome in SO_ERROR when the socket becomes writable; poll bounds the
// wait, which a blocking connect to a machine that is switched off would stretch to minutes.
bool TapConnection::connectTo(const sockaddr_in& address, TimePoint deadline, std::string& reason)
{
    m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_socket == -1) {
        reason = std::strerror(errno);
        return false;
    }
    int error = 0;
    if (connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error = errno;
    }
    if (error == EINPROGRESS || error == EINTR) { // interrupted, the connection is still being made
        pollfd wait = {m_socket, POLLOUT, 0};
        int ready = 0;
        do {
            ready = poll(&wait, 1, pollTime(deadline - std::chrono::steady_clock::now()));
        } while (ready == -1 && errno == EINTR);
        socklen_t length = sizeof error;
        if (ready == 0) {
            error = ETIMEDOUT;
        } else if (getsockopt(m_socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
            error = errno;
        }
    }
    reason = std::strerror(error);
    return error == 0;
}

TapConnection::Outcome TapConnection::read(std::uint8_t* buffer, std::size_t capacity, std::size_t& received,
                                           std::chrono::milliseconds timeout, int stopDescriptor)
{
    received = 0;
    std::array<pollfd, 2> wait = {pollfd{stopDescriptor, POLLIN, 0}, pollfd{m_socket, POLLIN, 0}};
    const int ready = poll(wait.data(), wait.size(), pollTime(timeout)); // passes over a descriptor of -1
    if (ready == 0 || (ready == -1 && errno == EINTR)) {
        return Outcome::TIMEOUT; // interrupted: the caller looks at its own clock and comes back
    }
    if (ready == -1) {
        throw ReaderError(std::string("connection failed: ") + std::strerror(errno));
    }
    if (wait[0].revents != 0) {
        return Outcome::STOPPED;
    }
    const ssize_t result = recv(m_socket, buffer, capacity, 0);
    if (result == 0) {
        return Outcome::ENDED;
    }
    if (result == -1) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
            return Outcome::TIMEOUT;
        }
        throw ReaderError(std::string("connection failed: ") + std::strerror(errno));
    }
    acknowledgeAtOnce();
    received = static_cast<std::size_t>(result);
    return Outcome::DATA;
}

// A refusal is ignored: the stream is only slower without it.
void TapConnection::acknowledgeAtOnce() const
{
    const int on = 1;
    setsockopt(m_socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

void TapConnection::close()
{
    if (m_socket != -1) {
        ::close(m_socket);
        m_socket = -1;
    }
}

} // namespace LodestoneTap
