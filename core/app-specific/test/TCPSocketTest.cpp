#include "TCPSocket.h"

#include "support/StreamClient.h"
#include "torture/StandIn.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

// What the streams of the other tests can't show: they get what is sent whatever becomes of descriptors and
// texts.

using namespace Lodestone;

namespace
{

int g_rests = 0; // milliseconds, of polls that wait for nothing
bool g_optionsFail = false;

} // namespace

STAND_IN(int, poll, (pollfd * entries, nfds_t count, int timeout_ms))
{
    g_rests += count == 0 ? timeout_ms : 0;
    return __real_poll(entries, count, timeout_ms);
}

STAND_IN(int, setsockopt, (int sock, int level, int name, const void* value, socklen_t length))
{
    return g_optionsFail ? -1 : __real_setsockopt(sock, level, name, value, length);
}

namespace
{

/// Shows the descriptor of a socket.
template<typename Base>
struct Opened : Base
{
    using Base::Base;
    using Base::m_sock;
};

typedef Opened<TCPSocket> Connection;
typedef Opened<TCPServerSocket> Listener;

sockaddr_in addressOf(const Listener& listener)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(0, ::getsockname(listener.m_sock, reinterpret_cast<sockaddr*>(&address), &length));
    return address;
}

/// A listener on a port of the kernel's choice, and both ends of a connection to it.
struct Pair
{
    Listener listener{0};
    int port = ntohs(addressOf(listener).sin_port);
    StreamClient peer{port};
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

TEST(TCPSocket, ReceiveWaitsForAllBytesAndNamesTheReasonOfAnEarlyEnd)
{
    char buffer[8] = {};
    Pair pair;
    EXPECT_EQ("socket receive timed out", failureOf([&] { pair.connection.receiveTimeout(buffer, 8, 1); }));
    pair.peerSends("abcd");
    std::thread rest([&] { // when the first piece has been taken
        char next = 0;
        waitFor([&] { return ::recv(pair.connection.m_sock, &next, 1, MSG_PEEK | MSG_DONTWAIT) < 0; });
        pair.peerSends("efgh");
    });
    EXPECT_EQ(8, pair.connection.receiveTimeout(buffer, 8, 900));
    rest.join();
    EXPECT_EQ("abcdefgh", std::string(buffer, 8));
    pair.peerSends("123");
    pair.peer.close();
    EXPECT_EQ("socket connection closed by client", failureOf([&] { pair.connection.receive(buffer, 8); }));
}

TEST(TCPSocket, SendToAGonePeerThrowsWithoutASignal)
{
    std::signal(SIGPIPE, SIG_DFL);
    Pair pair;
    pair.peer.vanish();
    for (int i = 0; i < 2; ++i) { // the first one hears of the reset, the second one writes into the end
        EXPECT_EQ("socket::send reported an error", failureOf([&] { pair.connection.send("bytes", 5); }));
    }
    EXPECT_EQ("Cannot send something on an invalid socket", failureOf([] { Connection(1).send("x", 1); }));
}

TEST(TCPSocket, EachKindOfProgressCounts)
{
    const TCPSocket::Progress looks[] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    for (const TCPSocket::Progress& a : looks) {
        for (const TCPSocket::Progress& b : looks) {
            EXPECT_EQ(&a == &b, a == b);
        }
    }
    Pair pair;
    ::fcntl(pair.connection.m_sock, F_SETFL, O_NONBLOCK); // a send that would hang fails
    const std::string block(1 << 16, 'x');
    std::uint64_t sent = 0;
    while (failureOf([&] {
               sent += static_cast<std::uint64_t>(pair.connection.send(block.data(), 1 << 16));
           }).empty()) {
    }
    EXPECT_EQ(sent, pair.connection.progress().handedOver);
    EXPECT_GT(pair.connection.progress().queued, 0);
    char info[256];
    socklen_t length = sizeof info;
    const bool told = // an emulator may know nothing of it
        ::getsockopt(pair.peer.descriptor(), IPPROTO_TCP, TCP_INFO, info, &length) == 0 && length >= 128;
    EXPECT_TRUE(!told || waitFor([&] { return pair.connection.progress().acknowledged > 0; }));
}

TEST(TCPServerSocket, BindsTheLowBitsOfThePortAgainInSpiteOfOldConnections)
{
    int port = 0;
    {
        Pair pair;
        port = pair.port;
        EXPECT_EQ("Error calling bind()", failureOf([&] { TCPServerSocket second(port); }));
        pair.connection.abort(); // this end closes first, so the port stays with the connection for a minute
        EXPECT_TRUE(pair.peer.waitForEnd());
        pair.peer.close();
    }
    g_optionsFail = true;
    EXPECT_EQ("Unable to set socket option", failureOf([&] { TCPServerSocket second(port); }));
    g_optionsFail = false;
    Listener again(0x30000 + port);
    EXPECT_EQ(htons(static_cast<std::uint16_t>(port)), addressOf(again).sin_port);
    EXPECT_EQ(htonl(INADDR_ANY), addressOf(again).sin_addr.s_addr);
    ASSERT_NE(0, ::fcntl(again.m_sock, F_GETFL) & O_NONBLOCK) << "accept would hang";
    Connection socket(1);
    EXPECT_EQ(AcceptResult::VANISHED, again.accept(socket)) << "nothing is pending";
}

TEST(TCPSocket, WaitForReadyReadIsRightForEveryDescriptorAndAfterAFailedSelect)
{
    const rlimit limit = {2048, 2048}; // a usual shell allows 1024
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    for (const int least : {FD_SETSIZE - 1, FD_SETSIZE, FD_SETSIZE + 500}) {
        Pair pair;
        const int low = pair.connection.m_sock;
        pair.connection.m_sock = ::fcntl(low, F_DUPFD_CLOEXEC, least);
        ASSERT_GE(pair.connection.m_sock, least);
        ::close(low);
        EXPECT_FALSE(pair.connection.waitForReadyRead(1)) << least;
        pair.peerSends("x");
        EXPECT_TRUE(pair.connection.waitForReadyRead(900)) << least;
    }
    Pair pair;
    pair.peerSends("x");
    ::close(pair.connection.m_sock);
    g_rests = 0;
    EXPECT_FALSE(pair.connection.waitForReadyRead(1));
    EXPECT_EQ(1, g_rests) << "a failure that lasts must not burn a core";
}

} // namespace
