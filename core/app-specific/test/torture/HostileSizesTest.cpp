#include "HostFrame.h"
#include "Lodestone.h"
#include "StreamClient.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

using namespace Lodestone;

namespace
{

const std::int32_t LARGEST = std::numeric_limits<std::int32_t>::max();
const std::int32_t SMALLEST = std::numeric_limits<std::int32_t>::min();

/// A host that says strange things. Each must have a clear result.
class HostileSizes : public testing::Test
{
protected:
    void TearDown() override { EXPECT_EQ(Lodestone_Init(0, ""), 0); }

    /// `tail` is what follows the port.
    void start(const std::string& tail)
    {
        ASSERT_EQ(Lodestone_Init(1, "0," + std::to_string(m_port) + "," + tail), 0) << GetLastErrorString();
    }

    static int apply(std::vector<AlgoMeasBuffer> array, bool constantBuffers = false)
    {
        const auto size = static_cast<alif_uint32_t>(array.size());
        return Lodestone_Apply(array.data(), size, constantBuffers ? 1 : 0);
    }

    /// The next cycle, for which `array` is delivered as often as it takes.
    static WireCycle applyAndRead(StreamClient& client, const std::vector<AlgoMeasBuffer>& array)
    {
        EXPECT_TRUE(waitFor([&] { return client.somethingWaits() || apply(array) != 0; }));
        WireCycle cycle = client.readCycle();
        EXPECT_TRUE(cycle.complete);
        return cycle;
    }

    const int m_port = freePort();
};

AlgoMeasBuffer buffer(int channel, const void* bytes, std::uint32_t sizeTotal)
{
    AlgoMeasBuffer result = {};
    result.buffer = bytes;
    result.sizeTotal = sizeTotal;
    result.channelID = channel;
    return result;
}

const WireEntry& entryOf(const WireCycle& cycle, int channel)
{
    static const WireEntry none;
    const WireEntry* const entry = cycle.find(channel);
    EXPECT_NE(entry, nullptr) << channel;
    return entry != nullptr ? *entry : none;
}

TEST_F(HostileSizes, SizesWithoutBytesAreEmptyEntriesOfEveryType)
{
    const struct
    {
        const char* bytes;
        std::uint32_t sizeTotal;
        std::int32_t onWire;
        const char* payload;
    } rows[] = {{"x", 0, 0, ""},
                {"x", 1, 1, "x"},
                {"x", 0x80000000U, SMALLEST, ""},
                {"x", 0xFFFFFFFFU, -1, ""},
                {nullptr, 0, 0, ""},
                {nullptr, 5, 0, ""},
                {nullptr, 0x7FFFFFFFU, 0, ""},
                {nullptr, 0xFFFFFFFFU, -1, ""}};
    std::string config = "3,1,9";
    std::vector<AlgoMeasBuffer> array;
    for (const auto& r : rows) {
        for (const char type : {'n', 's', 'o'}) {
            const int channel = 100 + static_cast<int>(array.size());
            config += ":" + std::to_string(channel) + "," + type;
            array.push_back(buffer(channel, r.bytes, r.sizeTotal));
        }
    }
    for (const bool constantBuffers : {false, true}) {
        start(config);
        EXPECT_EQ(apply(array, constantBuffers), 0);
        StreamClient client(m_port);
        const WireCycle once = applyAndRead(client, array);
        const WireCycle cycle = applyAndRead(client, array);
        EXPECT_TRUE(once.isOnce());
        int channel = 100;
        for (const auto& r : rows) {
            for (const WireCycle* const place : {&cycle, &cycle, &once}) {
                const WireEntry& entry = entryOf(*place, channel++);
                EXPECT_EQ(entry.totalSize, r.onWire) << entry.channelID;
                EXPECT_EQ(entry.payload, r.payload) << entry.channelID;
            }
        }
    }
}

TEST_F(HostileSizes, LargestBufferIsSentOrRefused)
{
    const auto size = static_cast<std::size_t>(LARGEST);
    const auto available =
        static_cast<double>(::sysconf(_SC_AVPHYS_PAGES)) * static_cast<double>(::sysconf(_SC_PAGESIZE));
    if (sizeof(void*) > 4 && available < 3.0 * LARGEST) {
        GTEST_SKIP() << "not enough memory for a copy of 2 GB";
    }
    start("1,1,1:10,n");
    StreamClient client(m_port);
    applyAndRead(client, {buffer(10, "x", 1)});
    if (sizeof(void*) == 4) {
        EXPECT_EQ(apply({buffer(10, &client, 0x7FFFFFFF)}), 1); // no such room in the address space
        EXPECT_EQ(GetLastErrorString(), "std::bad_alloc");
        return;
    }
    void* const pages =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    char* const bytes = static_cast<char*>(pages);
    bytes[0] = 'a';
    std::string header;
    do { // cycles of the first frame may still come
        EXPECT_EQ(apply({buffer(10, bytes, 0x7FFFFFFF)}), 0);
        header = client.readBytes(12 + 20);
    } while (header.substr(28) == std::string("\1\0\0\0", 4) &&
             client.readBytes(1 + 2 * 20 + 208 + 256).size() == 505);
    EXPECT_EQ(header.substr(20, 4), "\xFF\xFF\xFF\x7F");
    EXPECT_EQ(header.substr(28, 4), "\xFF\xFF\xFF\x7F");
    const std::string piece = client.readBytes(1 << 20);
    EXPECT_EQ(piece, 'a' + std::string((1 << 20) - 1, '\0'));
    client.close(); // in the middle of a send of all of it
    ::munmap(pages, size);
}

TEST_F(HostileSizes, LargestNumbersOfPartsFramesAndCycles)
{
    const std::string most = std::to_string(LARGEST);
    start(most + "," + most + "," + most + ":0,s:10,n:20,i:" + most + ",s");
    StreamClient client(m_port);
    const Frame frame = {{SMALLEST, "no"}, {-1, "such"}, {LARGEST, "de"},
                         {10, "whole"},    {20, "due"},  {0, "abc"}};
    for (int part = 0; part < 5; ++part) {
        const WireCycle cycle = applyAndRead(client, arrayOf(frame));
        const WireEntry& low = entryOf(cycle, 0);
        const WireEntry& high = entryOf(cycle, LARGEST);
        EXPECT_EQ(low.numberOfParts, LARGEST);
        EXPECT_EQ(high.partNumber, part);
        EXPECT_EQ(high.payload, part < 2 ? std::string(1, "de"[part]) : "");
        EXPECT_EQ(entryOf(cycle, 20).partNumber, part); // due once, and then for years no more
        EXPECT_EQ(cycle.find(-1), nullptr);
    }
    for (int k = 0; k < 100; ++k) {
        EXPECT_EQ(apply(arrayOf(frame)), 0); // billions of cycles are queued, and channel 0 has no limit
    }
    client.close();
}

TEST_F(HostileSizes, AThousandChannelsInOneFrame)
{
    const int NO_CHANNELS = 1000;
    std::string config = "4,1,9";
    Frame frame;
    for (int channel = 0; channel < NO_CHANNELS; ++channel) {
        config += ":" + std::to_string(channel) + "," + "nsio"[channel % 4];
        frame.emplace_back(channel, std::to_string(10000000 + channel));
    }
    start(config);
    StreamClient client(m_port);
    const WireCycle once = applyAndRead(client, arrayOf(frame));
    EXPECT_TRUE(once.isOnce());
    EXPECT_EQ(once.entries.size(), 250U);
    std::map<int, std::string> received;
    for (const WireEntry& entry : once.entries) {
        received[entry.channelID] = entry.payload;
    }
    for (int part = 0; part < 4; ++part) {
        const WireCycle cycle = applyAndRead(client, arrayOf(frame));
        for (const int channel : cycle.channels()) {
            const bool whole = channel % 4 == 0;
            received[channel] += part == 0 || !whole ? cycle.find(channel)->payload : "";
        }
    }
    EXPECT_EQ(received, (std::map<int, std::string>(frame.begin(), frame.end())));
}

TEST_F(HostileSizes, ConfigurationStringsOfTenMegabytes)
{
    const std::size_t SIZE = 10000000;
    const std::string port = std::to_string(m_port);
    const std::string begin = "0," + port + ",1,1,5:1,n";
    std::string channels = begin;
    for (int channel = 2; channel < 100000; ++channel) {
        channels += ":" + std::to_string(channel) + ",s";
    }
    const std::string sevens(SIZE, '7');
    const std::string colons(SIZE, ':');
    const struct
    {
        std::string text;
        std::string refusal;
    } rows[] = {{sevens, "Expected 5 elements in basic config"},
                {sevens + ",5000,1,1,5:1,n", "Expected version 0, got " + sevens},
                {"0," + sevens + ",1,1,5:1,n", sevens + " cannot be converted to an int (port)"},
                {"0," + std::string(SIZE, '0') + ",1,1,5:1,n", "Value of port exceeds boundary (1000)"},
                {begin + ":" + sevens, "Invalid channel config item: " + sevens},
                {begin + ":2," + sevens, "Channel type must be i|s|n|o, got " + sevens},
                {colons, "Command string with no content"},
                {"0," + port + std::string(SIZE, 'x') + ",1,1,5:1,n", ""},
                {colons + begin + colons, ""},
                {channels + colons, ""}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.text.substr(0, 20));
        EXPECT_EQ(Lodestone_Init(1, r.text), r.refusal.empty() ? 0 : 1);
        alif_int8_t text[100];
        if (!r.refusal.empty()) {
            EXPECT_TRUE(GetLastErrorString() == r.refusal) << GetLastErrorString().substr(0, 99);
            EXPECT_EQ(CLodestone_GetLastErrorString(text, sizeof text),
                      r.refusal.size() < sizeof text ? 0 : 1);
            continue;
        }
        StreamClient client(m_port);
        EXPECT_EQ(entryOf(applyAndRead(client, arrayOf({{1, "one"}})), 1).payload, "one");
    }
}

} // namespace
