#ifndef LODESTONE_TEST_STREAMCLIENT_H
#define LODESTONE_TEST_STREAMCLIENT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// How long anything may take before a test gives up. Nothing is ever measured with it.
std::chrono::steady_clock::time_point testDeadline();

/// Waits until `condition` holds; false at the deadline.
bool waitFor(const std::function<bool()>& condition);

/// A seed for a random test, printed so that a failure can be replayed: LODESTONE_TEST_SEED=<seed>.
unsigned testSeed();

/// A free port, reserved for this process until its end.
int freePort();

/// One channel entry of a cycle, as it came over the wire.
struct WireEntry
{
    std::int32_t channelID = 0;
    std::int32_t numberOfParts = 0;
    std::int32_t totalSize = 0;
    std::int32_t partNumber = 0;
    std::string payload;
};

/// One cycle, as it came over the wire.
struct WireCycle
{
    bool complete = false; ///< False if the stream ended, broke or stood still before the cycle's end.
    std::string bytes;     ///< All of them.
    std::uint32_t counter = 0;
    std::vector<WireEntry> entries;

    /// The entry of that channel, or null.
    const WireEntry* find(std::int32_t channelID) const;
    /// Channels in the order of transmission, the diagnostics pair left out.
    std::vector<std::int32_t> channels() const;
    /// A little-endian number of `size` bytes at `offset` of the diagnostics record; 0 if there is none.
    std::uint64_t diag(std::size_t offset, std::size_t size = 4) const;
    bool isOnce() const { return !entries.empty() && entries[0].partNumber < 0; }
};

/// A cycle in one line, for tables: "<counter>/<skipped buffers>: <entry> ...", an entry as
/// "<channel>=<bytes>" if it is whole, "<channel>.<part>=<bytes>" if not; parts of a ONCE cycle are negative.
/// Without the diagnostics pair. "end" for a connection that ended between two cycles, "broken" for one that
/// ended in a cycle.
std::string shown(const WireCycle& cycle);

/// The test's own reader: decodes the bytes with its own offsets and shares nothing with the library.
class StreamClient
{
public:
    /// Connects to the port on loopback, waiting for a listener until the deadline. `receiveBuffer` bytes of
    /// socket buffer, 0 for the system's choice: a small one makes a stalled client felt soon. `giveUp` ends
    /// the wait, asked after each attempt that failed.
    explicit StreamClient(int port, int receiveBuffer = 0, const std::function<bool()>& giveUp = {});
    ~StreamClient();

    StreamClient(const StreamClient&) = delete;
    StreamClient& operator=(const StreamClient&) = delete;

    bool connected() const { return m_sock >= 0; }
    int descriptor() const { return m_sock; }

    WireCycle readCycle();
    /// Up to `byteSize` bytes; fewer if the stream ends.
    std::string readBytes(std::size_t byteSize);
    /// Reads some of what waits, if anything does, and drops it; touches no heap. False at the connection's
    /// end.
    bool drain(int patience_ms = 0);
    /// Reads and drops until the connection ends; false at the deadline.
    bool waitForEnd();
    /// Whether bytes (or the end) wait to be read; without waiting, as a rule.
    bool somethingWaits(int patience_ms = 0) const;
    void close();
    /// Ends the connection at once, with a reset.
    void vanish();

protected:
    StreamClient() = default;
    /// Begins to connect; `flags` are those of a socket. Whether it has connected.
    bool open(int port, int receiveBuffer, int flags);

private:
    bool append(std::string& bytes, std::size_t byteSize);

    int m_sock = -1;
};

#endif
