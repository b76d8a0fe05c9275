#include "TCPSocket.h"

#include "support/StreamClient.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace Lodestone;

namespace
{

// Calls of the library can be made to fail: the linker leads them through wrappers.
const char* g_failingCall = "";
int g_failure = 0; // errno of the failing call

} // namespace

#define FAILING(call, parameters, arguments)                                                                 \
    extern "C" int __real_##call parameters;                                                                 \
    extern "C" int __wrap_##call parameters                                                                  \
    {                                                                                                        \
        errno = g_failure;                                                                                   \
        return std::string(#call) == g_failingCall ? -1 : __real_##call arguments;                           \
    }

FAILING(socket, (int domain, int type, int protocol), (domain, type, protocol))
FAILING(setsockopt, (int sock, int level, int name, const void* value, socklen_t length),
        (sock, level, name, value, length))
FAILING(listen, (int sock, int backlog), (sock, backlog))
FAILING(select, (int count, fd_set* reads, fd_set* writes, fd_set* others, timeval* timeout),
        (count, reads, writes, others, timeout))
FAILING(accept4, (int sock, sockaddr* address, socklen_t* length, int flags), (sock, address, length, flags))

namespace
{

int g_rests = 0; // milliseconds, of polls that wait for nothing

} // namespace

extern "C" int __real_poll(pollfd* entries, nfds_t count, int timeout_ms);
extern "C" int __wrap_poll(pollfd* entries, nfds_t count, int timeout_ms)
{
    g_rests += count == 0 ? timeout_ms : 0;
    return __real_poll(entries, count, timeout_ms);
}

namespace
{

/// Shows the descriptor of a socket, and can put it under a higher number.
template<typename Base>
class Opened : public Base
{
public:
    using Base::Base;

    int descriptor() const { return this->m_sock; }

    void renumber(int least)
    {
        const int higher = ::fcntl(this->m_sock, F_DUPFD_CLOEXEC, least);
        ASSERT_GE(higher, least);
        ::close(this->m_sock);
        this->m_sock = higher;
    }

    sockaddr_in address() const
    {
        sockaddr_in address = {};
        socklen_t length = sizeof address;
        EXPECT_EQ(0, ::getsockname(this->m_sock, reinterpret_cast<sockaddr*>(&address), &length));
        return address;
    }

    int port() const { return ntohs(address().sin_port); }
};

typedef Opened<TCPSocket> Connection;
typedef Opened<TCPServerSocket> Listener;

/// A listener on a port of the kernel's choice, and both ends of a connection to it.
struct Pair
{
    Listener listener{0};
    StreamClient peer{listener.port()};
    Connection connection{7};

    Pair()
    {
        EXPECT_TRUE(listener.waitForReadyRead(1500)); // more than a second goes into one field, too
        EXPECT_EQ(AcceptResult::CONNECTED, listener.accept(connection));
    }

    void peerSends(const std::string& bytes) const
    {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  ::send(peer.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
};

std::string failureOf(const std::function<void()>& operation)
{
    try {
        operation();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

/// The next descriptor that the system will give: another one if anything was left open, or closed too early.
int nextDescriptor()
{
    const int next = ::open("/dev/null", O_RDONLY);
    ::close(next);
    return next;
}

TEST(TCPSocket, WithoutDescriptorRefusesInItsOwnWords)
{
    Connection socket(3);
    char byte = 0;
    EXPECT_EQ("Cannot send something on an invalid socket", failureOf([&] { socket.send("x", 1); }));
    EXPECT_EQ("Cannot receive something on an invalid socket", failureOf([&] { socket.receive(&byte, 0); }));
    EXPECT_EQ("socket receive timed out", failureOf([&] { socket.receiveTimeout(&byte, 1, 0); }));
    EXPECT_FALSE(socket.waitForReadyRead(0));
    socket.abort();
    EXPECT_TRUE(socket.progress() == TCPSocket::Progress());
}

TEST(TCPSocket, ReceiveWaitsForAllBytesAndNamesTheReasonOfAnEarlyEnd)
{
    char buffer[8] = {};
    Pair pair;
    EXPECT_EQ("socket receive timed out", failureOf([&] { pair.connection.receiveTimeout(buffer, 8, 1); }));
    EXPECT_EQ(0, pair.connection.receive(buffer, 0));
    pair.peerSends("abcd");
    std::thread rest([&] { pair.peerSends("efgh"); });
    EXPECT_EQ(8, pair.connection.receiveTimeout(buffer, 8, 900));
    rest.join();
    EXPECT_EQ("abcdefgh", std::string(buffer, 8));

    EXPECT_FALSE(pair.connection.closedByPeer());
    pair.peerSends("123");
    pair.peer.close();
    EXPECT_TRUE(pair.connection.closedByPeer());
    EXPECT_EQ("socket connection closed by client", failureOf([&] { pair.connection.receive(buffer, 8); }));

    Pair broken;
    broken.peer.vanish();
    EXPECT_EQ("socket::receive reported an error", failureOf([&] { broken.connection.receive(buffer, 8); }));
}

TEST(TCPSocket, SendToAGonePeerThrowsWithoutASignal)
{
    std::signal(SIGPIPE, SIG_DFL);
    Pair pair;
    EXPECT_EQ(5, pair.connection.send("bytes", 5));
    EXPECT_EQ("bytes", pair.peer.readBytes(5));
    pair.peer.vanish();
    for (int i = 0; i < 2; ++i) { // the first one hears of the reset, the second one writes into the end
        EXPECT_EQ("socket::send reported an error", failureOf([&] { pair.connection.send("bytes", 5); }));
    }
    EXPECT_EQ(5U, pair.connection.progress().handedOver);
}

TEST(TCPSocket, EachKindOfProgressCounts)
{
    TCPSocket::Progress looks[4];
    looks[1].handedOver = 1;
    looks[2].acknowledged = 1;
    looks[3].queued = 1;
    for (const TCPSocket::Progress& a : looks) {
        for (const TCPSocket::Progress& b : looks) {
            EXPECT_EQ(&a == &b, a == b);
        }
    }
    Pair pair;
    char info[256];
    socklen_t length = sizeof info;
    const bool told = // an emulator may know nothing of it
        ::getsockopt(pair.peer.descriptor(), IPPROTO_TCP, TCP_INFO, info, &length) == 0 && length >= 128;
    pair.connection.send("bytes", 5);
    EXPECT_TRUE(!told || waitFor([&] { return pair.connection.progress().acknowledged >= 5; }));
}

TEST(TCPSocket, AbortEndsAHangingSendOfAnotherThreadAndLeavesTheDescriptorToTheOwner)
{
    Pair pair;
    std::string reason;
    std::thread sender([&] {
        const std::string block(1 << 16, 'x');
        while (reason.empty()) {
            reason = failureOf([&] { pair.connection.send(block.data(), static_cast<int>(block.size())); });
        }
    });
    // The peer reads nothing. When the queue is full, one look after the other finds the same.
    TCPSocket::Progress last;
    int equalLooks = 0;
    EXPECT_TRUE(waitFor([&] {
        const TCPSocket::Progress now = pair.connection.progress();
        equalLooks = now.queued > 0 && now == last ? equalLooks + 1 : 0;
        last = now;
        return equalLooks == 100;
    }));
    const int before = nextDescriptor();
    pair.connection.abort();
    sender.join();
    EXPECT_EQ("socket::send reported an error", reason);
    EXPECT_EQ(before, nextDescriptor());
}

TEST(TCPServerSocket, FailuresHaveTheirTextsAndNoDescriptorStaysOpenOrIsInherited)
{
    const int before = nextDescriptor();
    {
        Pair pair;
        EXPECT_EQ(FD_CLOEXEC, ::fcntl(pair.listener.descriptor(), F_GETFD));
        EXPECT_EQ(FD_CLOEXEC, ::fcntl(pair.connection.descriptor(), F_GETFD));
        EXPECT_EQ("Error calling bind()", failureOf([&] { TCPServerSocket second(pair.listener.port()); }));
    }
    const std::pair<const char*, const char*> cases[] = {
        {"socket", "Unable to create socket"},
        {"setsockopt", "Unable to set socket option"},
        {"listen", "Error calling listen()"},
    };
    g_failure = ENOBUFS;
    for (const auto& [call, message] : cases) {
        g_failingCall = call;
        EXPECT_EQ(message, failureOf([] { TCPServerSocket listener(0); }));
        g_failingCall = "";
    }
    EXPECT_EQ(before, nextDescriptor());
}

TEST(TCPServerSocket, BindsTheLowBitsOfThePortAgainInSpiteOfOldConnections)
{
    int port = 0;
    {
        Pair pair;
        port = pair.listener.port();
        pair.connection.abort(); // this end closes first, so the port stays with the connection for a minute
        EXPECT_TRUE(pair.peer.waitForEnd());
        pair.peer.close();
    }
    std::unique_ptr<Listener> again;
    EXPECT_EQ("", failureOf([&] { again = std::make_unique<Listener>(0x30000 + port); }));
    ASSERT_TRUE(again);
    EXPECT_EQ(port, again->port());
    EXPECT_EQ(htonl(INADDR_ANY), again->address().sin_addr.s_addr);
}

TEST(TCPServerSocket, AcceptNeverBlocksAndTellsVanishedFromFailed)
{
    Listener listener(0);
    Connection socket(1);
    EXPECT_EQ(AcceptResult::VANISHED, listener.accept(socket)) << "nothing is pending";
    StreamClient peer(listener.port());
    ASSERT_TRUE(listener.waitForReadyRead(900));
    const std::pair<int, AcceptResult> cases[] = {{ECONNABORTED, AcceptResult::VANISHED},
                                                  {EINTR, AcceptResult::VANISHED},
                                                  {EPROTO, AcceptResult::VANISHED},
                                                  {ENETUNREACH, AcceptResult::VANISHED},
                                                  {EMFILE, AcceptResult::FAILED}};
    for (const auto& [error, result] : cases) {
        g_failingCall = "accept4";
        g_failure = error;
        EXPECT_EQ(result, listener.accept(socket)) << error;
        EXPECT_EQ(-1, socket.descriptor());
        g_failingCall = "";
    }
    EXPECT_EQ(AcceptResult::CONNECTED, listener.accept(socket));
}

TEST(TCPSocket, WaitForReadyReadIsRightForEveryDescriptorAndAfterAFailedSelect)
{
    const rlimit limit = {2048, 2048}; // a usual shell allows 1024
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    for (const int least : {FD_SETSIZE - 1, FD_SETSIZE, FD_SETSIZE + 500}) {
        Pair pair;
        pair.connection.renumber(least);
        EXPECT_FALSE(pair.connection.waitForReadyRead(1)) << least;
        pair.peerSends("x");
        EXPECT_TRUE(pair.connection.waitForReadyRead(900)) << least;
    }
    Pair pair;
    pair.peerSends("x");
    g_failingCall = "select";
    for (const int error : {EINTR, EBADF}) {
        g_failure = error;
        g_rests = 0;
        EXPECT_FALSE(pair.connection.waitForReadyRead(1));
        EXPECT_EQ(error == EINTR ? 0 : 1, g_rests) << "a failure that lasts must not burn a core";
    }
    g_failingCall = "";
    EXPECT_TRUE(pair.connection.waitForReadyRead(900));
}

} // namespace
