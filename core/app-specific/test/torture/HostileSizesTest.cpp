#include "HostFixture.h"

#include <limits>
#include <map>
#include <sys/mman.h>
#include <unistd.h>

using namespace Lodestone;

namespace
{

const std::int32_t LARGEST = std::numeric_limits<std::int32_t>::max();
const std::int32_t SMALLEST = std::numeric_limits<std::int32_t>::min();

/// A host that says strange things. Each must have a clear result.
class HostileSizes : public HostFixture
{
protected:
    static int apply(std::vector<AlgoMeasBuffer> array, bool constantBuffers = false)
    {
        const auto size = static_cast<alif_uint32_t>(array.size());
        return Lodestone_Apply(array.data(), size, constantBuffers ? 1 : 0);
    }
};

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
    std::string tail = "3,1,9";
    std::vector<AlgoMeasBuffer> array;
    for (const auto& r : rows) {
        for (const char type : {'n', 's', 'o'}) {
            const int channel = 100 + static_cast<int>(array.size());
            tail += ":" + std::to_string(channel) + "," + type;
            array.push_back({r.bytes, r.sizeTotal, 0, channel});
        }
    }
    for (const bool constantBuffers : {false, true}) {
        start(tail);
        EXPECT_EQ(apply(array, constantBuffers), 0);
        StreamClient client(m_port);
        WireCycle cycles[2]; // once data, normal data
        for (WireCycle& cycle : cycles) {
            EXPECT_TRUE(waitFor([&] { return client.somethingWaits() || apply(array) != 0; }));
            cycle = client.readCycle();
        }
        for (std::size_t k = 0; k < array.size(); ++k) {
            const WireEntry* const entry = cycles[k % 3 == 2 ? 0 : 1].find(array[k].channelID);
            ASSERT_NE(entry, nullptr) << k;
            EXPECT_EQ(entry->totalSize, rows[k / 3].onWire) << k;
            EXPECT_EQ(entry->payload, rows[k / 3].payload) << k;
        }
    }
}

TEST_F(HostileSizes, LargestBufferIsSentOrRefused)
{
    const auto available =
        static_cast<double>(::sysconf(_SC_AVPHYS_PAGES)) * static_cast<double>(::sysconf(_SC_PAGESIZE));
    if (sizeof(void*) > 4 && (TOO_SLOW || available < 3.0 * LARGEST)) {
        GTEST_SKIP() << "not enough memory or time for a copy of 2 GB";
    }
    start("1,1,1:10,n");
    StreamClient client(m_port);
    deliverAndRead(client, {{10, "x"}});
    if (sizeof(void*) == 4) {
        EXPECT_EQ(apply({{&client, 0x7FFFFFFF, 0, 10}}), 1); // no such room in the address space
        EXPECT_EQ(GetLastErrorString(), "std::bad_alloc");
        return;
    }
    const auto size = static_cast<std::size_t>(LARGEST);
    void* const pages =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    *static_cast<char*>(pages) = 'a';
    std::string header;
    do { // cycles of the first frame may still come
        EXPECT_EQ(apply({{pages, 0x7FFFFFFF, 0, 10}}), 0);
        header = client.readBytes(12 + 20);
    } while (header.substr(28) == std::string("\1\0\0\0", 4) &&
             client.readBytes(1 + 2 * 20 + 208 + 256).size() == 505);
    EXPECT_EQ(header.substr(20, 4), "\xFF\xFF\xFF\x7F");
    EXPECT_EQ(header.substr(28, 4), "\xFF\xFF\xFF\x7F");
    EXPECT_EQ(client.readBytes(1 << 20), 'a' + std::string((1 << 20) - 1, '\0'));
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
        const WireCycle cycle = deliverAndRead(client, frame);
        const WireEntry* const high = cycle.find(LARGEST);
        const WireEntry* const due = cycle.find(20);
        ASSERT_TRUE(high != nullptr && due != nullptr);
        EXPECT_EQ(high->numberOfParts, LARGEST);
        EXPECT_EQ(high->partNumber, part);
        EXPECT_EQ(high->payload, part < 2 ? std::string(1, "de"[part]) : "");
        EXPECT_EQ(due->partNumber, part); // due once, and then for years no more
        EXPECT_NE(cycle.find(0), nullptr);
        EXPECT_EQ(cycle.find(-1), nullptr);
    }
    for (int k = 0; k < 100; ++k) {
        deliver(frame); // billions of cycles are queued, and channel 0 has no limit
    }
}

TEST_F(HostileSizes, AThousandChannelsInOneFrame)
{
    std::string tail = "4,1,9";
    Frame frame;
    for (int channel = 0; channel < 1000; ++channel) {
        tail += ":" + std::to_string(channel) + "," + "nsio"[channel % 4];
        frame.emplace_back(channel, std::to_string(10000000 + channel));
    }
    start(tail);
    StreamClient client(m_port);
    std::map<int, std::string> received;
    for (int k = -1; k < 4; ++k) { // the once data, and four parts
        const WireCycle cycle = deliverAndRead(client, frame);
        EXPECT_EQ(cycle.isOnce(), k < 0);
        for (const int channel : cycle.channels()) {
            const bool again = channel % 4 == 0 && k > 0;
            received[channel] += again ? "" : cycle.find(channel)->payload;
        }
    }
    EXPECT_EQ(received, (std::map<int, std::string>(frame.begin(), frame.end())));
}

TEST_F(HostileSizes, ConfigurationStringsOfTenMegabytes)
{
    const std::string begin = config("1,1,5:1,n");
    std::string channels = begin;
    for (int channel = 2; channel < 100000; ++channel) {
        channels += ":" + std::to_string(channel) + ",s";
    }
    const std::string sevens(10000000, '7');
    const std::string zeros(10000000, '0');
    const std::string colons(10000000, ':');
    const struct
    {
        std::string text;
        std::string refusal;
    } rows[] = {{sevens, "Expected 5 elements in basic config"},
                {sevens + ",5000,1,1,5:1,n", "Expected version 0, got " + sevens},
                {"0," + sevens + ",1,1,5:1,n", sevens + " cannot be converted to an int (port)"},
                {"0," + zeros + ",1,1,5:1,n", "Value of port exceeds boundary (1000)"},
                {begin + ":" + sevens, "Invalid channel config item: " + sevens},
                {begin + ":2," + sevens, "Channel type must be i|s|n|o, got " + sevens},
                {colons, "Command string with no content"},
                {"0," + std::to_string(m_port) + std::string(10000000, 'x') + ",1,1,5:1,n", ""},
                {colons + begin + colons, ""},
                {channels + colons, ""}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.text.substr(0, 20));
        EXPECT_EQ(Lodestone_Init(1, r.text), r.refusal.empty() ? 0 : 1);
        if (!r.refusal.empty()) {
            alif_int8_t text[100];
            EXPECT_TRUE(GetLastErrorString() == r.refusal) << GetLastErrorString().substr(0, 99);
            EXPECT_EQ(CLodestone_GetLastErrorString(text, sizeof text),
                      r.refusal.size() < sizeof text ? 0 : 1);
            continue;
        }
        StreamClient client(m_port);
        EXPECT_EQ(shown(deliverAndRead(client, {{1, "one"}})), "0/0: 1=one");
    }
}

} // namespace
