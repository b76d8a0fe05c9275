#ifndef LODESTONE_TEST_SCENARIO_H
#define LODESTONE_TEST_SCENARIO_H

#include "ALStructs_extif.h"
#include "StreamClient.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

/// What a test program does to the library while a scenario runs: it fails calls, or shuffles threads. This
/// one does nothing.
class Disturbance
{
public:
    Disturbance() = default;
    Disturbance(const Disturbance&) = delete;
    Disturbance& operator=(const Disturbance&) = delete;
    virtual ~Disturbance() = default;

    /// The host's thread goes into the library, and is back. Not nested.
    virtual void hostEnters() {}
    virtual void hostLeaves() {}
    /// Asked when a call is back: the texts with which it must have failed. None: it must have succeeded.
    virtual std::vector<std::string> expectedTexts() const { return {}; }
    /// Something has gone wrong in the library, so clients may be lost or get nothing.
    virtual bool happened() const { return false; }
    /// And nothing more will. Then a frame that failed for it is all that is missing.
    virtual bool isOver() const { return false; }
    /// A client will stall: the kernel's buffers of new connections shall be small from now on, and the clock
    /// of the stall limit fast. True if that client is cut off before the next one comes.
    virtual bool expectStall() { return false; }
};

/// The host's functions: of this program, or of a library that was loaded.
struct HostApi
{
    alif_int32_t (*init)(alif_int32_t, const alif_int8_t*);
    alif_int32_t (*apply)(AlgoMeasBuffer*, alif_uint32_t, alif_int32_t);
    alif_int32_t (*lastError)(alif_int8_t*, alif_uint32_t);

    static HostApi ofThisProgram();
};

/// From now on a crash or a hang tells this.
void labelRun(const std::string& label);
const char* runLabel();

/// What the process has now.
struct Holdings
{
    Holdings();
    std::size_t blocks; ///< Of the heap.
    std::size_t bytes;  ///< In them.
    std::ptrdiff_t descriptors;
};
/// Whether nothing has leaked. Bytes may differ by as much as the heap rounds them.
bool operator==(const Holdings& a, const Holdings& b);
std::ostream& operator<<(std::ostream& stream, const Holdings& holdings); // for the messages of GoogleTest

/// Channels of each frame.
typedef std::vector<std::vector<int>> Frames;

/// One run of a scenario: a host on one thread, the clients on the same one. Whatever they see that is wrong
/// fails the test.
///
/// Each channel has a size of its own, and a payload tells its channel and frame, so every byte that a client
/// gets is checked against what the host delivered. A verb that finds something missing after the disturbance
/// has happened returns false; without one that is a violation. Scenarios return early then.
class ScenarioRun
{
public:
    /// All runs of a process may share one port.
    ScenarioRun(int port, Disturbance& disturbance);
    ~ScenarioRun();
    ScenarioRun(const ScenarioRun&) = delete;
    ScenarioRun& operator=(const ScenarioRun&) = delete;

    // --- The host ---

    /// `tail` is what follows the port: "<split>,<intermittent>,<length>:<channel>,<type>:...".
    /// If there is a `refusal`, the string must be refused with that text.
    bool init(const std::string& tail, const std::string& refusal = "");
    /// The clients are of a host with that string, in another run.
    void expect(const std::string& tail);
    bool disable();
    /// The next frame.
    bool apply(const std::vector<int>& channels, bool constantBuffers = false);
    /// Other functions from now on.
    void use(HostApi api) { m_api = api; }
    /// A child process lives `life` and ends by its exit handlers. The host's thread counts as in the library
    /// from then on.
    void inChild(void (*life)(ScenarioRun&));
    /// False if the scenario's host is a child: this process has nothing of the library.
    bool hostIsHere() const { return m_hostIsHere; }
    /// Closes the clients and disables the library. Comes last.
    void end();
    /// Something else that leads into the library.
    template<typename Operation>
    void inLibrary(Operation operation)
    {
        m_disturbance.hostEnters();
        operation();
        m_disturbance.hostLeaves();
    }

    // --- Clients, numbered by the scenario ---

    enum Beginning
    {
        ONCE,    ///< The first cycle is the ONCE cycle, if there are once channels.
        AMID,    ///< It takes over from one that had normal data.
        ANYWHERE ///< It takes over, or may.
    };
    /// `receiveBuffer`: see StreamClient. False if nobody listens.
    bool connect(int client, Beginning beginning = ONCE, int receiveBuffer = 0);
    /// Waits for one cycle. False if the connection has ended.
    bool readOne(int client);
    bool hasNormalData(int client) const;
    /// Waits until the client has so many bytes to read, or its end.
    bool await(int client, int byteSize = 1);
    /// Delivers these frames in turn until the client has read so many more cycles.
    bool readCycles(int client, int number, const Frames& frames);
    /// Delivers these frames in turn until the client got one more buffer of that channel, whole.
    bool readChannel(int client, int channel, const Frames& frames);
    /// Reads what is there until the connection ends, which it must.
    bool readToEnd(int client);
    StreamClient& stream(int client);

    // --- What comes out ---

    bool disturbed() const
    {
        return m_disturbance.happened() && !(m_onlyAFrameFailed && m_disturbance.isOver());
    }
    bool expectStall() { return m_disturbance.expectStall(); }
    int port() const { return m_port; }

private:
    /// A client, and what it has got so far.
    struct Reader;

    bool missing(int client, const std::string& text) const;
    std::vector<int> onceTogether() const; ///< The first two.
    template<typename Call>
    bool succeeds(Call call, const std::string& refusal = "");
    bool nextCycle(int client, const Frames& frames);
    bool readUntil(const std::function<bool()>& done, int client, const Frames& frames);
    void check(Reader& reader, const WireCycle& cycle);
    void checkOnce(Reader& reader, const WireCycle& cycle);
    void checkPart(Reader& reader, const WireEntry& entry);
    void checkBuffer(Reader& reader, const WireEntry& entry);

    const int m_port;
    Disturbance& m_disturbance;
    HostApi m_api = HostApi::ofThisProgram();
    bool m_hostIsHere = false;
    bool m_onlyAFrameFailed = false;
    int m_splitCount = 1;
    int m_intermittentCount = 1;
    int m_queueLength = 0;
    std::vector<int> m_onceChannels;
    bool m_onceApart = false;      ///< A frame has brought one of the first two without the other.
    unsigned m_constantsSince = 0; ///< The newest frame that brought them as constant buffers.
    std::size_t m_turn = 0;
    std::map<int, std::unique_ptr<Reader>> m_clients;
};

struct Scenario
{
    const char* name;
    void (*run)(ScenarioRun&);
};

/// For the messages of GoogleTest.
inline std::ostream& operator<<(std::ostream& stream, const Scenario& scenario)
{
    return stream << scenario.name;
}

/// Each takes some milliseconds if the library's waits are shortened.
const std::vector<Scenario>& scenarios();

#endif
