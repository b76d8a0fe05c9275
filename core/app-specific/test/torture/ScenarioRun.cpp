#include "Scenario.h"

#include "HostFrame.h"
#include "life/Child.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <sstream>

namespace
{

const int PATIENT_FRAMES = 12; // for a client that may have been lost ...
const int MOST_FRAMES = 2000;  // ... and for one that may not
const int PATIENT_ATTEMPTS = 50;
const int FRAME_WAIT_MS = 16; // on the clock of the run, like all waits
const int PATIENCE_MS = 10000;
const int CONSTANT_CHANNEL = 40; // a normal one that only comes as a constant buffer

// Of the process: the library's constant store lives as long.
std::atomic<unsigned> g_frame{0}; // clients may have a thread of their own

std::string payloadOf(int channel, unsigned frame)
{
    const bool big = channel == 12 || channel == 22; // beyond what the heap gives
    std::string bytes = std::to_string(channel) + "/" + std::to_string(frame) + "/";
    bytes.resize(big ? 140001 : 20 + static_cast<std::size_t>(channel), static_cast<char>('A' + frame % 26));
    bytes.back() = '.';
    return bytes;
}

} // namespace

struct ScenarioRun::Reader
{
    Beginning beginning;
    std::vector<int> onceChannels; ///< Of the configuration that it came to.
    StreamClient stream;
    int cycles = 0;
    bool gap = false; ///< A cycle is missing, and parts with it.
    bool normalData = false;
    std::uint32_t counter = 0;           ///< Of the last one.
    std::map<int, unsigned> newest = {}; ///< Frame by channel.
    std::map<int, int> received = {};    ///< Buffers by channel.
    std::map<int, WireEntry> parts = {}; ///< Put together so far, up to partNumber.
};

ScenarioRun::ScenarioRun(int port) : m_port(port) {}

ScenarioRun::~ScenarioRun() = default;

void ScenarioRun::streamAgain()
{
    if (m_streams) {
        m_clients.clear();
        std::vector<int> frame = m_onceChannels;
        frame.push_back(10);
        connect(0, ANYWHERE) && read(0, 10, 1, {frame});
    }
}

void ScenarioRun::end()
{
    m_clients.clear();
    disable();
}

// ---------------------------------------------------------------------------------------------------------------------
// The host

template<typename Call>
bool ScenarioRun::succeeds(Call call, const std::string& refusal)
{
    alif_int32_t result = 0;
    inLibrary([&] { result = call(); });
    alif_int8_t bytes[256] = {};
    m_api.lastError(bytes, sizeof bytes);
    const std::string text = reinterpret_cast<const char*>(bytes);

    std::vector<std::string> texts = FaultCalls::expectedTexts();
    const bool disturbs = !texts.empty();
    if (!disturbs && !refusal.empty()) {
        texts = {refusal};
    }
    EXPECT_EQ(result, texts.empty() ? 0 : 1) << text;
    EXPECT_TRUE(texts.empty() || std::count(texts.begin(), texts.end(), text) != 0)
        << text << " instead of " << texts[0];
    return !disturbs;
}

bool ScenarioRun::init(const std::string& tail, const std::string& refusal)
{
    const std::string text = "0," + std::to_string(m_port) + "," + tail;
    const auto* const bytes = reinterpret_cast<const alif_int8_t*>(text.c_str());
    const bool done = succeeds([&] { return m_api.init(1, bytes); }, refusal);
    m_streams = m_streams || refusal.empty();
    if (done && refusal.empty()) {
        expect(tail);
    }
    return done;
}

void ScenarioRun::expect(const std::string& tail)
{
    std::istringstream fields(tail);
    char comma = 0;
    fields >> m_splitCount >> comma >> m_intermittentCount >> comma >> m_queueLength;
    m_onceChannels.clear();
    m_constantsSince = 0;
    for (std::string item; std::getline(fields, item, ':');) {
        if (!item.empty() && item.back() == 'o') {
            m_onceChannels.push_back(std::stoi(item));
        }
    }
}

bool ScenarioRun::disable()
{
    m_streams = false;
    return succeeds([&] { return m_api.init(0, nullptr); });
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
    const bool done = succeeds([&] { return m_api.apply(array.data(), size, constantBuffers ? 1 : 0); });
    m_aFrameFailed = m_aFrameFailed || !done;
    m_constantsSince = done && constantBuffers ? number : m_constantsSince;
    return done;
}

void ScenarioRun::inChild(void (*life)(ScenarioRun&))
{
    const Child child([&] {
        life(*this);
        REQUIRE(!::testing::Test::HasFailure());
        FaultCalls::hostEnters();
        Schedule::hostIsInLibrary(true);
    });
    EXPECT_TRUE(child.endsWell());
}

// ---------------------------------------------------------------------------------------------------------------------
// The clients

/// A fault has happened, and it isn't only one frame that is missing for it.
bool ScenarioRun::disturbed() const
{
    return FaultCalls::happened() && !(m_aFrameFailed && FaultCalls::isOver());
}

bool ScenarioRun::missing(int client, const std::string& text) const
{
    EXPECT_TRUE(disturbed()) << "client " << client << " " << text;
    return false;
}

bool ScenarioRun::connect(int client, Beginning beginning, int receiveBuffer)
{
    int attempts = 0;
    const auto giveUp = [&] { return disturbed() && ++attempts > PATIENT_ATTEMPTS; };
    m_clients[client].reset(
        new Reader{beginning, m_onceChannels, StreamClient(m_port, receiveBuffer, giveUp)});
    return stream(client).connected() || missing(client, "finds no listener");
}

bool ScenarioRun::readOne(int client)
{
    Reader& reader = *m_clients[client];
    const WireCycle cycle = reader.stream.readCycle();
    if (cycle.complete) {
        check(reader, cycle);
        return true;
    }
    EXPECT_TRUE(reader.stream.waitForEnd()) << "client " << client << " is left in the middle of a cycle";
    return cycle.bytes.empty() ? false : missing(client, "gets a cycle that breaks off");
}

bool ScenarioRun::read(int client, int channel, int number, const Frames& frames)
{
    const int& received = m_clients[client]->received[channel];
    const int end = received + number;
    for (int tried = 0; received < end; ++tried) {
        if (tried >= (disturbed() ? PATIENT_FRAMES : MOST_FRAMES)) {
            return missing(client, "gets nothing");
        }
        apply(frames[m_turn++ % frames.size()]);
        while (stream(client).somethingWaits(FRAME_WAIT_MS)) {
            if (!readOne(client)) {
                return missing(client, "loses the connection");
            }
        }
    }
    return true;
}

bool ScenarioRun::readToEnd(int client)
{
    while (stream(client).somethingWaits(PATIENCE_MS)) {
        if (!readOne(client)) {
            return true;
        }
    }
    return missing(client, "is kept");
}

StreamClient& ScenarioRun::stream(int client)
{
    return m_clients.at(client)->stream;
}

bool ScenarioRun::hasNormalData(int client) const
{
    return m_clients.at(client)->normalData;
}

// ---------------------------------------------------------------------------------------------------------------------
// What they get

void ScenarioRun::check(Reader& reader, const WireCycle& cycle)
{
    const bool first = reader.cycles++ == 0;
    EXPECT_TRUE(first || cycle.counter == reader.counter + 1 ||
                (disturbed() && cycle.counter > reader.counter))
        << "cycle " << cycle.counter << " behind " << reader.counter;
    reader.gap = reader.gap || (!first && cycle.counter != reader.counter + 1);
    reader.counter = cycle.counter;
    if (cycle.isOnce()) {
        checkOnce(reader, cycle);
        return;
    }
    reader.normalData = true;
    EXPECT_TRUE(!first || reader.beginning != ONCE || m_onceChannels.empty()) << "no ONCE cycle";
    const std::size_t size = cycle.entries.size();
    if (size < 2 || cycle.entries[size - 2].channelID != 10998 || cycle.entries[size - 2].totalSize != 208 ||
        cycle.entries[size - 1].channelID != 10999 || cycle.entries[size - 1].totalSize != 256) {
        ADD_FAILURE() << "a cycle without the diagnostics pair";
        return;
    }
    for (std::size_t k = 0; k + 2 < size; ++k) {
        const int channel = cycle.entries[k].channelID;
        EXPECT_EQ(std::count(reader.onceChannels.begin(), reader.onceChannels.end(), channel), 0)
            << "once data among others";
        checkPart(reader, cycle.entries[k]);
    }
}

void ScenarioRun::checkOnce(Reader& reader, const WireCycle& cycle)
{
    EXPECT_EQ(cycle.channels(), reader.onceChannels);
    EXPECT_TRUE(disturbed() || (reader.cycles == 1 && reader.beginning != AMID)) << "a late ONCE cycle";
    reader.newest.clear(); // a transfer of its own
    for (const WireEntry& entry : cycle.entries) {
        EXPECT_EQ(entry.partNumber, -m_intermittentCount);
        EXPECT_EQ(entry.numberOfParts, 1);
        checkBuffer(reader, entry);
    }
    const auto& channels = reader.onceChannels;
    const unsigned frame = reader.newest[channels[0]];
    EXPECT_TRUE(channels.size() == 1 || frame == reader.newest[channels[1]])
        << "a ONCE cycle of several frames";
    EXPECT_GE(frame, m_constantsSince) << "an old ONCE cycle";
}

void ScenarioRun::checkPart(Reader& reader, const WireEntry& entry)
{
    if (entry.numberOfParts == 1) {
        checkBuffer(reader, entry);
        return;
    }
    WireEntry& buffer = reader.parts[entry.channelID];
    const int expected = buffer.numberOfParts == 0 ? 0 : buffer.partNumber + 1;
    if (entry.numberOfParts != m_splitCount || entry.partNumber != expected) {
        // Unless it is the rest of what the client before has got.
        EXPECT_TRUE(reader.gap || (reader.beginning != ONCE && reader.newest.count(entry.channelID) == 0))
            << "part " << entry.partNumber << " comes where " << expected << " was due";
        buffer = {};
        return;
    }
    const std::string before = buffer.payload;
    buffer = entry;
    buffer.payload = before + entry.payload;
    if (expected + 1 == m_splitCount) {
        checkBuffer(reader, buffer);
        buffer = {};
    }
}

void ScenarioRun::checkBuffer(Reader& reader, const WireEntry& entry)
{
    const std::string& bytes = entry.payload;
    const std::size_t slash = bytes.find('/');
    const unsigned frame = slash < 10 ? static_cast<unsigned>(std::stoul("0" + bytes.substr(slash + 1))) : 0;
    unsigned& newest = reader.newest[entry.channelID];
    EXPECT_LE(frame, g_frame);
    EXPECT_TRUE(bytes == payloadOf(entry.channelID, frame))
        << "channel " << entry.channelID << " brings " << bytes.substr(0, 40);
    EXPECT_EQ(static_cast<std::size_t>(entry.totalSize), bytes.size());
    EXPECT_TRUE(frame > newest || entry.channelID == CONSTANT_CHANNEL) << "an old frame again";
    EXPECT_TRUE(newest == 0 || frame == newest + 1 || m_queueLength >= 0 || entry.channelID != 10 ||
                FaultCalls::happened())
        << "a host that waits for room loses frames";
    newest = frame;
    ++reader.received[entry.channelID];
}
