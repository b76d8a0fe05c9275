#ifndef LODESTONE_TEST_ABUSIVECLIENT_H
#define LODESTONE_TEST_ABUSIVECLIENT_H

#include "StreamClient.h"

/// A connection that misbehaves. It never waits, so the host's own thread can lead it, a step at a time. At
/// its end it goes with a reset.
class AbusiveClient : private StreamClient
{
public:
    enum Way
    {
        GO,         ///< Reads so many bytes and closes; what it leaves unread makes the kernel reset.
        RESET,      ///< Reads so many bytes and resets.
        HALF_CLOSE, ///< Ends its own direction at once, reads so many bytes and closes.
        GARBAGE,    ///< Sends bytes that nobody reads, then as GO.
        STALL,      ///< Never reads; stays until its end.
        NO_WAYS
    };

    /// Begins to connect to the port on loopback.
    AbusiveClient(int port, int way, std::size_t leaveAt);
    ~AbusiveClient() { vanish(); }

    /// Does what can be done now. True when it has left, or has found its connection ended.
    bool step();
    bool begun() const { return m_begun; } ///< It was connected.
    std::size_t bytesRead() const { return m_bytesRead; }

private:
    const int m_way;
    const std::size_t m_leaveAt;
    bool m_begun = false;
    std::size_t m_bytesRead = 0;
};

#endif
