#ifndef LODESTONE_CLIENT_TAPCONNECTION_H
#define LODESTONE_CLIENT_TAPCONNECTION_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

struct sockaddr_in;

namespace LodestoneTap
{

/// The TCP connection to a host's port, for reading only: the library never reads what a client sends. IPv4,
/// for the library listens on no other.
///
/// The library serves one client at a time and the newest one wins, so to connect is to cut off whoever was
/// connected before. One thread at a time.
///
/// The library leaves Nagle's algorithm on and writes a cycle as many small pieces: header, header, payload
/// and so on. Its kernel may hold a small piece back until the pieces before it have been acknowledged, and a
/// receiver's kernel may take its time with an acknowledgement, 40 ms and more, when it takes the connection
/// for a conversation. Where both happen, each cycle costs that time and the host's queue fills up. The
/// reader can rule it out alone, with TCP_QUICKACK. The kernel takes that option back whenever it sees fit,
/// so it is set again after each read; to set it also sends what is due.
class TapConnection
{
public:
    enum class Outcome
    {
        DATA,
        TIMEOUT,
        STOPPED, ///< The stop descriptor has become readable.
        ENDED    ///< The host closed the connection.
    };

    /// Resolves `host`, a name or an address, and connects; tries all addresses of a name within `timeout`,
    /// which doesn't bound the name service itself. Throws ReaderError with the reason.
    TapConnection(const std::string& host, std::uint16_t port, std::chrono::milliseconds timeout);
    ~TapConnection();

    TapConnection(const TapConnection&) = delete;
    TapConnection& operator=(const TapConnection&) = delete;

    /// Waits for bytes and takes at most `capacity` (above 0) of them. `received` is 0 unless the outcome is
    /// DATA. `stopDescriptor` is watched beside the connection and wins over it; -1 for none. A negative
    /// timeout counts as 0. Throws ReaderError if the connection fails.
    Outcome read(std::uint8_t* buffer, std::size_t capacity, std::size_t& received,
                 std::chrono::milliseconds timeout, int stopDescriptor = -1);

private:
    typedef std::chrono::steady_clock::time_point TimePoint;

    bool connectTo(const sockaddr_in& address, TimePoint deadline, std::string& reason);
    void acknowledgeAtOnce() const;
    void close();

    int m_socket = -1; // non-blocking; the waits are all in poll
};

} // namespace LodestoneTap

#endif
