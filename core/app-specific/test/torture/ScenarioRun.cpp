#include "Scenario.h"

#include "HostFrame.h"
#include "Lodestone.h"
#include "life/Child.h"

#include <algorithm>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

const int PATIENT_FRAMES = 12; // for a client that may have been lost
const int PATIENT_ATTEMPTS = 50;
const int FRAME_WAIT_MS = 1;
const unsigned PATIENCE_S = 100;

// Of the process: the library's constant store lives as long.
unsigned g_frame = 0;
std::set<int> g_constants;

std::size_t sizeOf(int channel)
{
    switch (channel) {
    case 11:
        return 64;
    case 12: // big ones, beyond what the heap gives
    case 22:
        return 140001;
    default:
        return 20 + static_cast<std::size_t>(channel);
    }
}

std::string payloadOf(int channel, unsigned frame)
{
    std::string bytes = std::to_string(channel) + "/" + std::to_string(frame) + "/";
    bytes.resize(sizeOf(channel), static_cast<char>('A' + frame % 26));
    bytes.back() = '.';
    return bytes;
}

bool contains(const std::vector<int>& channels, int channel)
{
    return std::find(channels.begin(), channels.end(), channel) != channels.end();
}

bool somethingComes(const StreamClient& stream)
{
    pollfd entry = {stream.descriptor(), POLLIN, 0};
    return ::poll(&entry, 1, FRAME_WAIT_MS) > 0;
}

} // namespace

struct ScenarioRun::Reader
{
    std::string name;
    Beginning beginning;
    std::vector<int> onceChannels; ///< Of the configuration that it came to.
    StreamClient stream;
    int cycles = 0;
    std::uint32_t counter = 0;      ///< Of the last one.
    std::map<int, unsigned> newest; ///< Frame by channel.
    std::map<int, int> received;    ///< Buffers by channel.
    std::map<int, WireEntry> parts; ///< Put together so far, up to partNumber.
};

HostApi HostApi::ofThisProgram()
{
    return {CLodestone_Lodestone_Init, CLodestone_Lodestone_Apply, CLodestone_GetLastErrorString};
}

ScenarioRun::ScenarioRun(int port, Disturbance& disturbance, HostApi api)
    : m_port(port), m_disturbance(disturbance), m_api(api)
{}

ScenarioRun::~ScenarioRun() = default;

void ScenarioRun::end()
{
    m_clients.clear();
    if (m_hostIsHere) {
        disable();
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The host

bool ScenarioRun::missing(const std::string& text)
{
    if (!disturbed()) {
        violation(text);
    }
    return false;
}

std::string ScenarioRun::errorText() const
{
    alif_int8_t text[256] = {};
    m_api.lastError(text, sizeof text);
    return reinterpret_cast<const char*>(text);
}

bool ScenarioRun::finish(const std::string& call, alif_int32_t result, const std::string& refusal)
{
    std::vector<std::string> texts = m_disturbance.expectedTexts();
    const bool refused = texts.empty() && !refusal.empty();
    if (refused) {
        texts = {refusal};
    }
    const std::string text = errorText();
    const bool told = texts.empty() || std::count(texts.begin(), texts.end(), text) != 0;
    if (result != (texts.empty() ? 0 : 1) || !told) {
        violation(call + " gave " + std::to_string(result) + " and \"" + text + "\"" +
                  (texts.empty() ? "" : ", not \"" + texts[0] + "\""));
    }
    return texts.empty() || refused;
}

bool ScenarioRun::init(const std::string& tail)
{
    const std::string text = "0," + std::to_string(m_port) + "," + tail;
    alif_int32_t result = 0;
    inLibrary([&] { result = m_api.init(1, reinterpret_cast<const alif_int8_t*>(text.c_str())); });
    if (!finish("Init", result)) {
        return false;
    }
    std::istringstream fields(tail);
    char delimiter = 0;
    fields >> m_splitCount >> delimiter >> m_intermittentCount;
    m_onceChannels.clear();
    m_onceApart = false;
    m_constantsSince = 0;
    for (std::string item; std::getline(fields, item, ':');) {
        if (item.back() == 'o') {
            m_onceChannels.push_back(std::stoi(item));
        }
    }
    return true;
}

bool ScenarioRun::initRefused(const std::string& tail, const std::string& refusal)
{
    const std::string text = "0," + std::to_string(m_port) + "," + tail;
    alif_int32_t result = 0;
    inLibrary([&] { result = m_api.init(1, reinterpret_cast<const alif_int8_t*>(text.c_str())); });
    return finish("Init", result, refusal);
}

bool ScenarioRun::disable()
{
    alif_int32_t result = 0;
    inLibrary([&] { result = m_api.init(0, nullptr); });
    return finish("Init(0)", result);
}

bool ScenarioRun::apply(const std::vector<int>& channels, bool constantBuffers)
{
    const unsigned number = ++g_frame;
    Frame frame;
    for (const int channel : channels) {
        frame.emplace_back(channel, payloadOf(channel, number));
    }
    std::vector<AlgoMeasBuffer> array = arrayOf(frame);
    const auto size = static_cast<alif_uint32_t>(array.size());
    if (constantBuffers) {
        g_constants.insert(channels.begin(), channels.end());
    }
    alif_int32_t result = 0;
    inLibrary([&] { result = m_api.apply(array.data(), size, constantBuffers ? 1 : 0); });

    const auto pair = onceTogether();
    const auto brought =
        std::count_if(pair.begin(), pair.end(), [&](int channel) { return contains(channels, channel); });
    const bool all = brought == static_cast<std::ptrdiff_t>(pair.size());
    m_onceApart = m_onceApart || (brought != 0 && !all);
    const bool done = finish("Apply", result);
    m_onlyAFrameFailed = m_onlyAFrameFailed || !done;
    m_constantsSince = done && all && constantBuffers ? number : m_constantsSince;
    return done;
}

std::vector<int> ScenarioRun::onceTogether() const
{
    const auto number = static_cast<std::ptrdiff_t>(std::min<std::size_t>(2, m_onceChannels.size()));
    return {m_onceChannels.begin(), m_onceChannels.begin() + number};
}

void ScenarioRun::inChild(void (*life)(ScenarioRun&))
{
    const Child child([&] {
        ::alarm(PATIENCE_S);
        life(*this);
        for (const std::string& text : m_violations) {
            std::fprintf(stderr, "in the child: %s\n", text.c_str());
        }
        REQUIRE(m_violations.empty());
        m_disturbance.hostEnters();
    });
    if (!child.endsWell()) {
        violation("the child ends badly");
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The clients

bool ScenarioRun::connect(int client, Beginning beginning, int receiveBuffer)
{
    int attempts = 0;
    const auto giveUp = [&] { return disturbed() && ++attempts > PATIENT_ATTEMPTS; };
    auto& reader = m_clients[client];
    reader.reset(new Reader{"client " + std::to_string(client),
                            beginning,
                            m_onceChannels,
                            StreamClient(m_port, receiveBuffer, giveUp),
                            0,
                            0,
                            {},
                            {},
                            {}});
    return reader->stream.connected() || missing(reader->name + " finds no listener");
}

bool ScenarioRun::nextCycle(int client, const Frames& frames)
{
    const StreamClient& stream = m_clients[client]->stream;
    const auto deadline = testDeadline();
    for (int patience = PATIENT_FRAMES; !stream.somethingWaits();) {
        const bool late = disturbed() ? patience-- == 0 : std::chrono::steady_clock::now() > deadline;
        if (late) {
            return missing(m_clients[client]->name + " gets nothing");
        }
        apply(frames[m_turn++ % frames.size()]);
        somethingComes(stream);
    }
    return readOne(client);
}

bool ScenarioRun::readOne(int client)
{
    Reader& reader = *m_clients[client];
    const WireCycle cycle = reader.stream.readCycle();
    if (cycle.complete) {
        check(reader, cycle);
        return true;
    }
    if (!reader.stream.waitForEnd()) {
        violation(reader.name + " is left in the middle of a cycle");
    }
    return cycle.bytes.empty() ? false : missing(reader.name + " got a cycle that breaks off");
}

bool ScenarioRun::readCycles(int client, int number, const Frames& frames)
{
    for (int k = 0; k < number; ++k) {
        if (!nextCycle(client, frames)) {
            return missing("the connection of " + m_clients[client]->name + " has ended");
        }
    }
    return true;
}

bool ScenarioRun::readChannel(int client, int channel, const Frames& frames)
{
    const int before = m_clients[client]->received[channel];
    for (int k = 0; k < 200 && m_clients[client]->received[channel] == before; ++k) {
        if (!nextCycle(client, frames)) {
            return missing("the connection of " + m_clients[client]->name + " has ended");
        }
    }
    return m_clients[client]->received[channel] != before ||
           missing(m_clients[client]->name + " doesn't get channel " + std::to_string(channel));
}

bool ScenarioRun::await(int client, int byteSize)
{
    const int descriptor = m_clients[client]->stream.descriptor();
    const auto ready = [&] {
        int waiting = 0;
        ::ioctl(descriptor, FIONREAD, &waiting);
        pollfd end = {descriptor, POLLRDHUP, 0};
        return waiting >= byteSize || ::poll(&end, 1, 0) > 0;
    };
    int attempts = 0;
    waitFor([&] { return ready() || (disturbed() && ++attempts > PATIENT_ATTEMPTS); });
    return ready() || missing(m_clients[client]->name + " gets nothing");
}

bool ScenarioRun::readToEnd(int client)
{
    while (await(client)) {
        if (!readOne(client)) {
            return true;
        }
    }
    return missing("the connection of " + m_clients[client]->name + " doesn't end");
}

void ScenarioRun::close(int client)
{
    m_clients[client]->stream.close();
}

void ScenarioRun::vanish(int client)
{
    m_clients[client]->stream.vanish();
}

// ---------------------------------------------------------------------------------------------------------------------
// What they get

void ScenarioRun::check(Reader& reader, const WireCycle& cycle)
{
    const bool first = reader.cycles++ == 0;
    const bool next = cycle.counter == reader.counter + 1 || (disturbed() && cycle.counter > reader.counter);
    if (!first && !next) {
        violation(reader.name + " gets cycle " + std::to_string(cycle.counter) + " behind " +
                  std::to_string(reader.counter));
    }
    if (!first && cycle.counter != reader.counter + 1) { // parts may be lost as well
        reader.parts.clear();
        reader.beginning = ANYWHERE;
    }
    reader.counter = cycle.counter;
    if (cycle.isOnce()) {
        checkOnce(reader, cycle);
        return;
    }
    if (first && reader.beginning == ONCE && !m_onceChannels.empty()) {
        violation("the transfer of " + reader.name + " doesn't begin with its ONCE cycle");
    }
    const std::size_t size = cycle.entries.size();
    if (size < 2 || cycle.entries[size - 2].channelID != 10998 || cycle.entries[size - 2].totalSize != 208 ||
        cycle.entries[size - 1].channelID != 10999 || cycle.entries[size - 1].totalSize != 256) {
        violation("a cycle without the diagnostics pair");
        return;
    }
    for (std::size_t k = 0; k + 2 < size; ++k) {
        checkPart(reader, cycle.entries[k]);
    }
}

void ScenarioRun::checkOnce(Reader& reader, const WireCycle& cycle)
{
    if (cycle.channels() != reader.onceChannels || (reader.cycles != 1 && !disturbed())) {
        violation(reader.name + " gets a ONCE cycle that is wrong or comes late");
    }
    reader.newest.clear(); // a transfer of its own
    for (const WireEntry& entry : cycle.entries) {
        if (entry.partNumber != -m_intermittentCount || entry.numberOfParts != 1) {
            violation("a ONCE entry that isn't marked as one");
        }
        checkBuffer(reader, entry);
        const unsigned frame = reader.newest[entry.channelID];
        if (!m_onceApart && contains(onceTogether(), entry.channelID) &&
            (frame != reader.newest[reader.onceChannels[0]] || frame < m_constantsSince)) {
            violation("a ONCE cycle that is old, or mixed of several frames");
        }
    }
}

void ScenarioRun::checkPart(Reader& reader, const WireEntry& entry)
{
    if (entry.numberOfParts == 1) {
        checkBuffer(reader, entry);
        return;
    }
    const auto known = reader.parts.find(entry.channelID);
    const int expected = known == reader.parts.end() ? 0 : known->second.partNumber + 1;
    if (entry.partNumber == 0) {
        reader.parts[entry.channelID] = entry;
    } else if (expected == entry.partNumber && expected != 0) {
        known->second.payload += entry.payload;
        known->second.partNumber = entry.partNumber;
    } else if (reader.beginning == ANYWHERE) {
        return; // the rest of what the client before has got
    }
    if (entry.numberOfParts != m_splitCount || entry.partNumber != expected) {
        violation("part " + std::to_string(entry.partNumber) + " comes where " + std::to_string(expected) +
                  " was due");
        reader.parts.erase(entry.channelID);
    } else if (entry.partNumber + 1 == m_splitCount) {
        checkBuffer(reader, reader.parts[entry.channelID]);
        reader.parts.erase(entry.channelID);
    }
}

void ScenarioRun::checkBuffer(Reader& reader, const WireEntry& entry)
{
    const std::string& bytes = entry.payload;
    const std::size_t slash = bytes.find('/');
    const unsigned frame = slash < 10 ? static_cast<unsigned>(std::stoul("0" + bytes.substr(slash + 1))) : 0;
    unsigned& newest = reader.newest[entry.channelID];
    if (frame > g_frame || bytes != payloadOf(entry.channelID, frame) ||
        static_cast<std::size_t>(entry.totalSize) != bytes.size()) {
        violation("channel " + std::to_string(entry.channelID) + " brings " + bytes.substr(0, 40));
    } else if (frame <= newest && g_constants.count(entry.channelID) == 0) {
        violation("channel " + std::to_string(entry.channelID) + " brings an old frame again");
    }
    newest = frame;
    ++reader.received[entry.channelID];
}
