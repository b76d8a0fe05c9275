#include "Scenario.h"

#include "AllocationHook.h"
#include "HostFrame.h"
#include "Lodestone.h"
#include "life/Child.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/ioctl.h>
#include <unistd.h>

// Children end in the middle of things, and quickly, beside threads that still own something. What the host's
// process leaves is counted by the tests.
extern "C" const char* __asan_default_options()
{
    return "detect_leaks=0";
}

extern "C" const char* __tsan_default_options()
{
    return "atexit_sleep_ms=0:report_thread_leaks=0";
}

namespace
{

const int PATIENT_FRAMES = 12; // for a client that may have been lost
const int PATIENT_ATTEMPTS = 50;
const int FRAME_WAIT_MS = 1;
const int MOST_CYCLES = 200; // until a buffer has come
const unsigned PATIENCE_S = 100;

// Of the process: the library's constant store lives as long.
std::atomic<unsigned> g_frame{0}; // clients may have a thread of their own
std::set<int> g_constants;

char g_label[200] = "";

std::string payloadOf(int channel, unsigned frame)
{
    const bool big = channel == 12 || channel == 22; // beyond what the heap gives
    std::string bytes = std::to_string(channel) + "/" + std::to_string(frame) + "/";
    bytes.resize(big ? 140001 : 20 + static_cast<std::size_t>(channel), static_cast<char>('A' + frame % 26));
    bytes.back() = '.';
    return bytes;
}

template<typename T>
bool contains(const std::vector<T>& values, const T& value)
{
    return std::find(values.begin(), values.end(), value) != values.end();
}

void tellLabel(int signal)
{
    static_cast<void>(!::write(STDERR_FILENO, g_label, std::strlen(g_label)));
    std::signal(signal, SIG_DFL);
    ::raise(signal == SIGALRM ? SIGABRT : signal);
}

} // namespace

void labelRun(const std::string& label)
{
    std::snprintf(g_label, sizeof g_label, "\n%s\n", label.c_str());
    for (const int signal : {SIGALRM, SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        struct sigaction present;
        ::sigaction(signal, nullptr, &present);
        if (present.sa_handler == SIG_DFL) { // or a sanitizer's
            std::signal(signal, tellLabel);
        }
    }
    ::alarm(PATIENCE_S);
}

const char* runLabel()
{
    return g_label;
}

Holdings::Holdings()
    : blocks(AllocationScope::liveBlocks()), bytes(AllocationScope::liveBytes()),
      descriptors(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}))
{}

bool operator==(const Holdings& a, const Holdings& b)
{
    const std::size_t difference = std::max(a.bytes, b.bytes) - std::min(a.bytes, b.bytes);
    return a.blocks == b.blocks && a.descriptors == b.descriptors &&
           difference <= a.blocks * AllocationScope::ROUNDING;
}

std::ostream& operator<<(std::ostream& stream, const Holdings& holdings)
{
    return stream << holdings.blocks << " blocks, " << holdings.bytes << " bytes, " << holdings.descriptors
                  << " descriptors";
}

struct ScenarioRun::Reader
{
    Beginning beginning;
    std::vector<int> onceChannels; ///< Of the configuration that it came to.
    StreamClient stream;
    int cycles = 0;
    bool gap = false; ///< A cycle is missing, and parts with it.
    bool normalData = false;
    std::uint32_t counter = 0;      ///< Of the last one.
    std::map<int, unsigned> newest; ///< Frame by channel.
    std::map<int, int> received;    ///< Buffers by channel.
    std::map<int, WireEntry> parts; ///< Put together so far, up to partNumber.

    Reader(Beginning beginningThen, std::vector<int> once, int port, int receiveBuffer,
           const std::function<bool()>& giveUp)
        : beginning(beginningThen), onceChannels(std::move(once)), stream(port, receiveBuffer, giveUp)
    {}
};

HostApi HostApi::ofThisProgram()
{
    return {CLodestone_Lodestone_Init, CLodestone_Lodestone_Apply, CLodestone_GetLastErrorString};
}

ScenarioRun::ScenarioRun(int port, Disturbance& disturbance) : m_port(port), m_disturbance(disturbance) {}

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

template<typename Call>
bool ScenarioRun::succeeds(Call call, const std::string& refusal)
{
    alif_int32_t result = 0;
    inLibrary([&] { result = call(); });
    alif_int8_t bytes[256] = {};
    m_api.lastError(bytes, sizeof bytes);
    const std::string text = reinterpret_cast<const char*>(bytes);

    std::vector<std::string> texts = m_disturbance.expectedTexts();
    const bool disturbs = !texts.empty();
    if (!disturbs && !refusal.empty()) {
        texts = {refusal};
    }
    EXPECT_EQ(result, texts.empty() ? 0 : 1) << text;
    EXPECT_TRUE(texts.empty() || contains(texts, text)) << text << " instead of " << texts[0];
    return !disturbs;
}

bool ScenarioRun::init(const std::string& tail, const std::string& refusal)
{
    m_hostIsHere = true;
    const std::string text = "0," + std::to_string(m_port) + "," + tail;
    const auto* const bytes = reinterpret_cast<const alif_int8_t*>(text.c_str());
    const bool done = succeeds([&] { return m_api.init(1, bytes); }, refusal);
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
    m_onceApart = false;
    m_constantsSince = 0;
    for (std::string item; std::getline(fields, item, ':');) {
        if (!item.empty() && item.back() == 'o') {
            m_onceChannels.push_back(std::stoi(item));
        }
    }
}

bool ScenarioRun::disable()
{
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
    if (constantBuffers) {
        g_constants.insert(channels.begin(), channels.end());
    }
    const bool done = succeeds([&] { return m_api.apply(array.data(), size, constantBuffers ? 1 : 0); });

    const auto pair = onceTogether();
    const auto brought =
        std::count_if(pair.begin(), pair.end(), [&](int channel) { return contains(channels, channel); });
    const bool all = brought == static_cast<std::ptrdiff_t>(pair.size());
    m_onceApart = m_onceApart || (brought != 0 && !all);
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
        REQUIRE(!::testing::Test::HasFailure());
        m_disturbance.hostEnters();
    });
    EXPECT_TRUE(child.endsWell());
}

// ---------------------------------------------------------------------------------------------------------------------
// The clients

bool ScenarioRun::missing(int client, const std::string& text) const
{
    EXPECT_TRUE(disturbed()) << "client " << client << " " << text;
    return false;
}

bool ScenarioRun::connect(int client, Beginning beginning, int receiveBuffer)
{
    int attempts = 0;
    const auto giveUp = [&] { return disturbed() && ++attempts > PATIENT_ATTEMPTS; };
    m_clients[client] = std::make_unique<Reader>(beginning, m_onceChannels, m_port, receiveBuffer, giveUp);
    return stream(client).connected() || missing(client, "finds no listener");
}

bool ScenarioRun::nextCycle(int client, const Frames& frames)
{
    const auto deadline = testDeadline();
    for (int patience = PATIENT_FRAMES; !stream(client).somethingWaits();) {
        const bool late = disturbed() ? patience-- == 0 : std::chrono::steady_clock::now() > deadline;
        if (late) {
            return missing(client, "gets nothing");
        }
        apply(frames[m_turn++ % frames.size()]);
        pollfd entry = {stream(client).descriptor(), POLLIN, 0};
        ::poll(&entry, 1, FRAME_WAIT_MS);
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
    EXPECT_TRUE(reader.stream.waitForEnd()) << "client " << client << " is left in the middle of a cycle";
    return cycle.bytes.empty() ? false : missing(client, "gets a cycle that breaks off");
}

bool ScenarioRun::readUntil(const std::function<bool()>& done, int client, const Frames& frames)
{
    for (int k = 0; !done(); ++k) {
        if (k == MOST_CYCLES || !nextCycle(client, frames)) {
            return missing(client, "doesn't get what it should");
        }
    }
    return true;
}

bool ScenarioRun::readCycles(int client, int number, const Frames& frames)
{
    const int& cycles = m_clients[client]->cycles;
    return readUntil([&cycles, end = cycles + number] { return cycles == end; }, client, frames);
}

bool ScenarioRun::readChannel(int client, int channel, const Frames& frames)
{
    const int& buffers = m_clients[client]->received[channel];
    return readUntil([&buffers, before = buffers] { return buffers != before; }, client, frames);
}

bool ScenarioRun::await(int client, int byteSize)
{
    const int descriptor = stream(client).descriptor();
    const auto ready = [&] {
        int waiting = 0;
        ::ioctl(descriptor, FIONREAD, &waiting);
        pollfd end = {descriptor, POLLRDHUP, 0};
        return waiting >= byteSize || ::poll(&end, 1, 0) > 0;
    };
    int attempts = 0;
    waitFor([&] { return ready() || (disturbed() && ++attempts > PATIENT_ATTEMPTS); });
    return ready() || missing(client, "gets nothing");
}

bool ScenarioRun::readToEnd(int client)
{
    while (await(client)) {
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
        EXPECT_FALSE(contains(reader.onceChannels, cycle.entries[k].channelID)) << "once data among others";
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
        const unsigned frame = reader.newest[entry.channelID];
        if (!m_onceApart && contains(onceTogether(), entry.channelID)) {
            EXPECT_EQ(frame, reader.newest[reader.onceChannels[0]]) << "a ONCE cycle of several frames";
            EXPECT_GE(frame, m_constantsSince) << "an old ONCE cycle";
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
    const bool inARow = entry.numberOfParts == m_splitCount && entry.partNumber == expected;
    if (!inARow) { // unless it is the rest of what the client before has got
        EXPECT_TRUE(reader.gap || (reader.beginning != ONCE && reader.newest.count(entry.channelID) == 0))
            << "part " << entry.partNumber << " comes where " << expected << " was due";
        reader.parts.erase(entry.channelID);
        return;
    }
    WireEntry& buffer = reader.parts[entry.channelID];
    const std::string before = buffer.payload;
    buffer = entry;
    buffer.payload = before + entry.payload;
    if (expected + 1 == m_splitCount) {
        checkBuffer(reader, buffer);
        reader.parts.erase(entry.channelID);
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
    EXPECT_TRUE(frame > newest || g_constants.count(entry.channelID) != 0) << "an old frame again";
    EXPECT_TRUE(newest == 0 || frame == newest + 1 || m_queueLength >= 0 || entry.channelID != 10 ||
                m_disturbance.happened())
        << "a host that waits for room loses frames";
    newest = frame;
    ++reader.received[entry.channelID];
}
