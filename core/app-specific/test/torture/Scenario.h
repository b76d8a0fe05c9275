#ifndef LODESTONE_TEST_SCENARIO_H
#define LODESTONE_TEST_SCENARIO_H

#include "FaultCalls.h"
#include "Lodestone.h"
#include "Schedule.h"
#include "StreamClient.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

/// The host's functions: of this program, or of a library that was loaded.
struct HostApi
{
    decltype(&CLodestone_Lodestone_Init) init = CLodestone_Lodestone_Init;
    decltype(&CLodestone_Lodestone_Apply) apply = CLodestone_Lodestone_Apply;
    decltype(&CLodestone_GetLastErrorString) lastError = CLodestone_GetLastErrorString;
};

/// Channels of each frame.
typedef std::vector<std::vector<int>> Frames;

/// One life of a host, in a run of Schedule.h, with or without one of the faults of FaultCalls.h: a host on
/// one thread, the clients on the same one. Whatever they see that is wrong fails the test.
///
/// Each channel has a size of its own, and a payload tells its channel and frame, so every byte that a client
/// gets is checked against what the host delivered. A verb that finds something missing after a fault has
/// happened returns false; without one that is a violation. Scenarios return early then.
class ScenarioRun
{
public:
    /// All runs of a process may share one port.
    explicit ScenarioRun(int port);
    ~ScenarioRun();

    // --- The host ---

    /// `tail` is what follows the port: "<split>,<intermittent>,<length>:<channel>,<type>:...".
    /// If there is a `refusal`, the string must be refused with that text.
    bool init(const std::string& tail, const std::string& refusal = "");
    /// The clients are of a host with that string, in another run.
    void expect(const std::string& tail);
    bool disable();
    /// The next frame. If there are several once channels, it must bring the first two together or none.
    bool apply(const std::vector<int>& channels, bool constantBuffers = false);
    /// Other functions from now on.
    void use(HostApi api)
    {
        m_api = api;
        m_streams = false;
    }
    /// A child process lives `life` and ends by its exit handlers. The host's thread counts as in the library
    /// from then on.
    void inChild(void (*life)(ScenarioRun&));
    /// If there still is a stream, a new client gets some of it.
    void streamAgain();
    /// Closes the clients and disables the library. Comes last.
    void end();
    /// Something else that leads into the library.
    template<typename Operation>
    void inLibrary(Operation operation)
    {
        FaultCalls::hostEnters();
        Schedule::hostIsInLibrary(true);
        operation();
        Schedule::hostIsInLibrary(false);
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
    /// Delivers these frames in turn until the client got so many more buffers of that channel, whole.
    bool read(int client, int channel, int number, const Frames& frames);
    /// Reads what is there until the connection ends, which it must.
    bool readToEnd(int client);
    StreamClient& stream(int client);
    /// False, for what a client doesn't get or find. A violation, unless a fault has happened.
    bool missing(int client, const std::string& text) const;
    int port() const { return m_port; }

private:
    /// A client, and what it has got so far.
    struct Reader;

    bool disturbed() const;
    template<typename Call>
    bool succeeds(Call call, const std::string& refusal = "");
    void check(Reader& reader, const WireCycle& cycle);
    void checkOnce(Reader& reader, const WireCycle& cycle);
    void checkPart(Reader& reader, const WireEntry& entry);
    void checkBuffer(Reader& reader, const WireEntry& entry);

    const int m_port;
    HostApi m_api;
    bool m_streams = false;
    bool m_aFrameFailed = false;
    int m_splitCount = 1;
    int m_intermittentCount = 1;
    int m_queueLength = 0;
    std::vector<int> m_onceChannels;
    unsigned m_constantsSince = 0; ///< The newest frame of constant buffers.
    std::size_t m_turn = 0;
    std::map<int, std::unique_ptr<Reader>> m_clients;
};

struct Scenario
{
    const char* name;
    void (*run)(ScenarioRun&);
};
const std::vector<Scenario>& scenarios();

/// For the messages of GoogleTest.
inline std::ostream& operator<<(std::ostream& stream, const Scenario& scenario)
{
    return stream << scenario.name;
}

#endif
