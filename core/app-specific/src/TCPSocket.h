#ifndef LODESTONE_APP_TCPSOCKET_H
#define LODESTONE_APP_TCPSOCKET_H

#include <atomic>
#include <cstdint>
#include <netinet/in.h>

namespace Lodestone
{

/// One connected IPv4 stream socket. Sole owner of its descriptor, which only the destructor closes; children
/// that the host starts don't inherit it.
///
/// Failures are std::runtime_error with a fixed text. One thread at a time may be inside an object, except
/// for abort() and progress(), which are there for another thread while a send() hangs.
class TCPSocket
{
public:
    /// What a hanging send has moved so far. Two equal readings mean that nothing moved in between.
    struct Progress
    {
        std::uint64_t handedOver = 0; ///< Bytes that the kernel has taken from send().
        std::uint64_t acknowledged =
            0;                    ///< Bytes that the peer has acknowledged; 0 where the kernel can't tell.
        std::int64_t queued = -1; ///< Bytes in the kernel's send queue; -1 where it can't tell.

        bool operator==(const Progress& other) const
        {
            return handedOver == other.handedOver && acknowledged == other.acknowledged &&
                   queued == other.queued;
        }
    };

    /// Without a descriptor: TCPServerSocket::accept brings one. `ID` is the generation of the connection.
    explicit TCPSocket(unsigned int ID) noexcept;
    virtual ~TCPSocket();

    TCPSocket(const TCPSocket&) = delete;
    TCPSocket& operator=(const TCPSocket&) = delete;

    /// One system call; returns the bytes that it took, which can be fewer than `byteSize`. Blocks as long as
    /// the peer doesn't read. Throws if the connection is gone, without a signal.
    int send(const char* data, int byteSize);

    /// Blocks until `byteSize` bytes are there and returns `byteSize`; 0 for a size below 1. Throws if the
    /// connection fails or ends before that.
    int receive(char* buffer, int byteSize);

    /// Whether there is something to read, or on a listener a connection to accept, within `timeout_ms`.
    /// False too if the wait fails or is interrupted: the caller then looks at its own flags and asks again.
    bool waitForReadyRead(int timeout_ms);

    /// As receive(), but throws if the first byte isn't there within `timeout_ms`.
    int receiveTimeout(char* buffer, int byteSize, int timeout_ms);

    unsigned int ID() const { return m_ID; }

    /// Ends the connection under a send() that hangs in another thread: that send fails like one to a lost
    /// peer, and so do all later ones. The descriptor stays open. The caller sees to it that the object
    /// lives.
    void abort() noexcept;

    /// For another thread, as abort().
    Progress progress() const noexcept;

    /// Whether the peer has closed its end or the connection has failed. Reads nothing from the connection
    /// and doesn't block. True without a descriptor, and if it can't be found out.
    bool closedByPeer() const noexcept;

protected:
    void create();
    bool isValid() const { return m_sock != -1; }

    int m_sock;
    sockaddr_in m_addr;
    unsigned int m_ID;

private:
    friend class TCPServerSocket; // accept() brings the descriptor

    std::atomic<std::uint64_t> m_handedOver; // written by the thread in send(), read by a watching one
};

/// What became of an attempt to accept.
enum class AcceptResult
{
    CONNECTED,
    VANISHED, ///< The connection was gone before it could be accepted; nothing is wrong.
    FAILED    ///< The system can't accept now, for want of descriptors for example.
};

/// A listener on every IPv4 interface. Doesn't block in accept().
class TCPServerSocket : public TCPSocket
{
public:
    /// Binds the low 16 bits of `port` and listens. Throws std::runtime_error with the call that failed.
    explicit TCPServerSocket(int port);

    /// Gives `newSocket` the descriptor of the next connection, which is blocking; on any failure `newSocket`
    /// is left without one, and its first send reports it.
    AcceptResult accept(TCPSocket& newSocket);
};

} // namespace Lodestone

#endif
