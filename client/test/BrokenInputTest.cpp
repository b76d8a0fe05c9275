#include "StreamModel.h"
#include "TapOptions.h"
#include "support/DescriptionBytes.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>

// What the reader refuses, and how it tells where. The fuzzers hold that it takes everything else as it is
// meant.

using namespace LodestoneTap;
using namespace LodestoneTapTest;

namespace
{

constexpr std::int64_t BIGGEST = INT32_MAX;

std::string errorOf(const std::function<void()>& step)
{
    try {
        step();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no error";
}

/// The error of a model with one MiB, of a stream behind a good cycle of 37 bytes.
std::string errorBehindACycle(const StreamBytes& tail)
{
    StreamBytes stream;
    stream.cycle(7, 1).whole(300, pattern(5, 0)).raw(tail.bytes());
    StreamLimits limits;
    limits.memoryBytes = 1 << 20;
    StreamModel model({}, limits);
    return errorOf([&] { model.feed(stream.bytes().data(), stream.bytes().size(), {}); });
}

} // namespace

TEST(StreamModel, BrokenStreamNamesItsPlace)
{
    StreamBytes channels;
    for (int i = 0; i < 1100; ++i) {
        channels.cycle(i, 1).whole(i, {});
    }
    const auto begun = [] { return StreamBytes().cycle(8, 1).part(1, 3, {1, 2, 3}, 0, 0, 1).cycle(9, 1); };
    const std::pair<StreamBytes, const char*> cases[] = {
        {StreamBytes().number(1).number(9).number(1), "37, cycle 9: version 1, must be 0"},
        {StreamBytes().cycle(8, 0), "45, cycle 8: numberOfChannelsInCycle 0, must be 1 to 1048576"},
        {StreamBytes().cycle(-1, BIGGEST),
         "45, cycle 4294967295: numberOfChannelsInCycle 2147483647, must be 1 to 1048576"},
        {StreamBytes().cycle(8, 1).header(-5, 1, 0, 0, 0), "49, cycle 8: channelID -5"},
        {StreamBytes().cycle(8, 1).header(12, 0, 0, 0, 0), "53, cycle 8: channel 12 has numberOfParts 0"},
        {StreamBytes().cycle(8, 1).header(12, 3, 9, -1, 3),
         "53, cycle 8: channel 12 has numberOfParts 3 in a ONCE cycle"},
        {StreamBytes().cycle(8, 1).header(12, 3, 9, 3, 3), "61, cycle 8: channel 12 has partNumber 3 of 3"},
        {StreamBytes().cycle(8, 2).whole(12, {}).header(13, 1, 0, -1, 0),
         "81, cycle 8: channel 13 has partNumber -1 in a NORMAL cycle"},
        {StreamBytes().cycle(8, 2).header(12, 1, 0, -4, 0).header(13, 1, 0, -5, 0),
         "81, cycle 8: channel 13 has partNumber -5 in a ONCE cycle that began with -4"},
        {StreamBytes().cycle(8, 1).header(12, 5, 2, 4, 1),
         "65, cycle 8: channel 12 has partByteSize 1, but part 4 of 5 of 2 bytes has 0"},
        {StreamBytes().cycle(8, 1).header(12, 1, BIGGEST, 0, BIGGEST),
         "49, cycle 8: channel 12: 2147483647 more bytes are over the memory limit of 1048576 bytes"},
        {begun().header(1, 3, 7, 1, 2).raw({1, 2}),
         "82, cycle 9: channel 1: totalSize is 7 in part 1 and was 3 in part 0"},
        {begun().header(1, 2, 3, 1, 2).raw({1, 2}),
         "82, cycle 9: channel 1: numberOfParts is 2 in part 1 and was 3 in part 0"},
        {StreamBytes().cycle(8, 1).header(9, 1 << 20, 1 << 20, 0, 1).raw({1}),
         "49, cycle 8: channel 9: 1048832 more bytes are over the memory limit of 1048576 bytes"},
        {channels, "32817, cycle 1024: channel 1024: 1024 more bytes are over the memory limit"},
    };
    for (const auto& [tail, expected] : cases) {
        const std::string error = errorBehindACycle(tail);
        EXPECT_EQ(error.rfind(std::string("stream broken at byte ") + expected, 0), 0U) << error;
    }
}

TEST(RecordDescription, BrokenOneNamesItsPlace)
{
    const Lodestone::DescriptionEncoder encoder = described("record R size 64\n"
                                                            "struct s at 8 size 8\nint32 x at 0\nend\n"
                                                            "int32 y[2] at 16\nend\n");
    const Bytes packed = encoder.packed();
    Bytes marked = packed;
    marked[12] = 9;
    std::vector<std::pair<Bytes, std::string>> cases = {
        {Bytes(packed.begin(), packed.begin() + 13), "description doesn't begin with a description's header"},
        {Bytes(packed.begin(), packed.end() - 10), "description's zlib stream is damaged or cut short"},
        {marked, "description has the mark 0x09, must be 0x02"},
        {deflated({}, 1 << 21), "description of 2097152 bytes, must be 1 to 1048576"},
        {deflated(Bytes(60, 0), 61), "description has 60 bytes and announces 61"},
        // A bomb: a thousand times what it announces.
        {deflated(Bytes(60000, 0), 60), "description doesn't end with the 60 bytes that it announces"},
    };
    const struct
    {
        std::size_t place; // of the one byte that is another
        std::uint8_t byte;
        const char* error;
    } items[] = {
        {15, 1, "0: field R is the root, but not a single structure at offset 0"},
        {20, 0, "0: field R has type 0xFE of 0 bytes"},
        {21, 0x96, "21: tag 0x96 where root extent (0x68) is due"},
        {30, 3, "31: the root is no structure"},
        {34, 2, "36: name of 513 bytes, must be 1 to 255"},
        {35, 200, "36: the description ends in the middle of an item"},
        {36, '.', "37: name with a character that a name can't have"},
        {41, 9, "42: 9 dimensions, must be at most 8"},
        {77, 3, "57: field x has type 0x01 of 3 bytes"},
        {87, 1, "88: a type stands where a name or the end of a structure is due"},
        {99, 0xFF, "88: field y has dimensions that don't fit its structure"},
        {102, 0, "88: field y has dimensions that don't fit its structure"},
        {107, 15, "88: field y overlaps the field before it, or lies before its structure"},
        {encoder.description().size(), 0, "123: bytes behind the end of the root structure"},
    };
    for (const auto& item : items) {
        Bytes broken = encoder.description();
        broken.resize(std::max(broken.size(), item.place + 1));
        broken[item.place] = item.byte;
        cases.emplace_back(deflated(broken, broken.size()),
                           std::string("inflated description, byte ") + item.error);
    }
    for (const auto& [payload, error] : cases) {
        EXPECT_EQ(errorBehindACycle(StreamBytes().cycle(8, 1).whole(10999, payload)),
                  "stream broken at byte 49, cycle 8: channel 10999: " + error);
    }
}

TEST(TapOptions, CommandLinesAreReadOrRefused)
{
    const TapOptions options = TapOptions::parse({"watch", "--json", "--interval", "0.25", "dev-7.lan:7000",
                                                  "--seconds", "90", "--memory", "2", "--timeout", "5"});
    EXPECT_EQ(options.endpoint(), "dev-7.lan:7000");
    EXPECT_TRUE(options.json && !options.once && options.memoryBytes == 2U << 20);
    EXPECT_TRUE(options.interval.count() == 250 && options.duration->count() == 90000 &&
                options.timeout.count() == 5000);
    EXPECT_EQ(TapOptions::parse({"watch", "--help"}).command, TapOptions::Command::HELP);

    const std::string noEndpoint = " is no HOST:PORT with a name or IPv4 address and a port of 1 to 65535";
    const std::string noSeconds = " needs a number of seconds from 0.05 to 1000000, got ";
    const std::pair<std::vector<std::string>, std::string> refused[] = {
        {{"look", "h:1"}, "unknown command 'look'"},
        {{"watch"}, "watch needs HOST:PORT"},
        {{"watch", "h:0"}, "'h:0'" + noEndpoint},
        {{"watch", "[::1]:7000"}, "'[::1]:7000'" + noEndpoint},
        {{"watch", "h:1", "--fast"}, "unknown option '--fast'"},
        {{"watch", "h:1", "--interval"}, "--interval needs a value"},
        {{"watch", "h:1", "--interval", "0"}, "--interval" + noSeconds + "'0'"},
        {{"watch", "h:1", "--timeout", "1s"}, "--timeout" + noSeconds + "'1s'"},
        {{"watch", "h:1", "--memory", "-1"}, "--memory needs a number of MiB from 1 to 1048576, got '-1'"},
        {{"watch", "h:1", "--once", "--seconds", "1"}, "--once and --seconds exclude each other"},
    };
    for (const auto& [arguments, error] : refused) {
        EXPECT_EQ(errorOf([&arguments = arguments] { TapOptions::parse(arguments); }), error);
    }
}
