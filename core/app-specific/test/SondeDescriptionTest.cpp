#include "sonde_ld_data.h"

#include "DescribeCommand.h"
#include "DescriptionEncoder.h"
#include "LayoutParser.h"
#include "LodestoneDiag.h"

#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <type_traits>
#include <zlib.h>

using namespace Lodestone;

namespace
{

typedef DescriptionEncoder::Bytes Bytes;

Bytes arrayInTheLibrary()
{
    const void* address = nullptr;
    sonde_size_t size = 0;
    sondeGet_LodestoneDiag(&address, &size);
    const auto* bytes = static_cast<const std::uint8_t*>(address);
    return Bytes(bytes, bytes + size);
}

template<typename T>
FieldType scalarType()
{
    if (std::is_floating_point<T>::value) {
        return FieldType::FLOATING_POINT;
    }
    return std::is_signed<T>::value ? FieldType::SIGNED_INTEGER : FieldType::UNSIGNED_INTEGER;
}

// Nodes from the compiler's own idea of the records.
#define NODE(record, field) #field, {}, offsetof(record, field), sizeof(record::field)
#define SCALAR(record, field) LayoutNode({NODE(record, field), scalarType<decltype(record::field)>(), {}})
#define STRUCT(record, field, ...) LayoutNode({NODE(record, field), FieldType::STRUCTURE, {__VA_ARGS__}})

RecordLayout layoutOfTheRecord()
{
    typedef PerPackageDiag Package;
    typedef ALProfilingItem Item;
    const LayoutNode profiling =
        STRUCT(Package, profiling, SCALAR(Item, runtimeMsecs), SCALAR(Item, maxRuntimeMsecs),
               SCALAR(Item, cumRuntimeMsecs), SCALAR(Item, numCalls), SCALAR(Item, avgRuntimeMsecs));
    LayoutNode diags =
        STRUCT(LodestoneDiag, diags, SCALAR(Package, queue_ptr), SCALAR(Package, firstChannelID),
               SCALAR(Package, waitedForQueue), SCALAR(Package, skipped), profiling);
    diags.dimensions = {std::extent<decltype(LodestoneDiag::diags)>::value};
    diags.size = sizeof(Package);
    LayoutNode root{"LodestoneDiag", {}, 0, sizeof(LodestoneDiag), FieldType::STRUCTURE, {}};
    root.fields = {SCALAR(LodestoneDiag, queueLength), SCALAR(LodestoneDiag, numSkipped), diags};
    return {root, sizeof(LodestoneDiag::diags)};
}

RecordLayout parse(const std::string& text)
{
    std::istringstream stream(text);
    return LayoutParser(stream, "x.layout").parse();
}

std::string refusal(const std::string& text)
{
    try {
        parse(text);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "accepted";
}

TEST(SondeDescription, ArrayIsHeaderStreamAndZerosAndDescribesTheRecordAsCompiled)
{
    const Bytes array = arrayInTheLibrary();
    ASSERT_EQ(256U, array.size());
    const Bytes header = {0xDA, 0xDE, 3, 0, 1, 0, 0, 0, 0, 0, 0x02, 0x13, 2, 0x78, 0xDA};
    EXPECT_EQ(header, Bytes(array.begin(), array.begin() + 15));
    Bytes inflated(532); // as a reader does it: with the size of the array, not that of the stream
    uLong size = 532;
    uLong used = 256 - 13;
    ASSERT_EQ(Z_OK, uncompress2(inflated.data(), &size, array.data() + 13, &used));
    ASSERT_EQ(531U, size);
    inflated.resize(size);
    EXPECT_EQ(DescriptionEncoder(layoutOfTheRecord()).description(), inflated);
    EXPECT_EQ(Bytes(256 - 13 - used, 0),
              Bytes(array.end() - static_cast<std::ptrdiff_t>(256 - 13 - used), array.end()));
}

TEST(DescriptionEncoder, OffsetsCountFromTheRecordAndDimensionsFollowTheirNumber)
{
    const DescriptionEncoder encoder(parse("record R size 0x20 extent 7\n"
                                           "struct s[2] at 4 size 12 # element 0 begins at 4\n"
                                           "int16 m[2][3] at 0\n"
                                           "end\nend\n"));
    const Bytes expected = {0x64, 0,    0, 0, 1,    'R',  0x65, 0, 0, 0,    0,    0x66, 0, 0, 0,
                            0,    0x67, 0, 0, 0,    32,   0x68, 0, 0, 0,    7,    0x96, 0, 0, 0,
                            0xFE, //
                            0x64, 0,    0, 0, 1,    's',  0x65, 0, 0, 0,    1,    0,    0, 0, 2,
                            0x66, 0,    0, 0, 4,    0x67, 0,    0, 0, 12,   0x96, 0,    0, 0, 0xFE,
                            0x64, 0,    0, 0, 1,    'm',  0x65, 0, 0, 0,    2,    0,    0, 0, 2,
                            0,    0,    0, 3, 0x66, 0,    0,    0, 4, 0x67, 0,    0,    0, 2, 0x96,
                            0,    0,    0, 1, //
                            0x96, 0,    0, 0, 0xFF, 0x96, 0,    0, 0, 0xFF};
    EXPECT_EQ(expected, encoder.description());
}

TEST(LayoutParser, RefusedLayoutsNameFileLineAndReason)
{
    const std::string head = "record R size 8\n";
    const struct
    {
        std::string text;
        const char* message;
    } cases[] = {
        {"", "x.layout:0: there is no record"},
        {"# only a comment\n\nint32 a at 0\n", "x.layout:3: expected 'record NAME size BYTES'"},
        {"record R\n", "x.layout:1: expected 'size N' after 'R'"},
        {"record R size -8\n", "x.layout:1: size '-8' is no number from 0 to 2147483647"},
        {"record R size 99999999999999999999999\n",
         "x.layout:1: size '99999999999999999999999' is no number from 0 to 2147483647"},
        {"record R size 0x\n", "x.layout:1: size '0x' is no number from 0 to 2147483647"},
        {head + "int31 a at 0\n", "x.layout:2: unknown type 'int31'"},
        {head + "int32\n", "x.layout:2: the field's name is missing"},
        {head + "int32 a-b at 0\n", "x.layout:2: 'a-b' is no name"},
        {head + "int32 a at 0 size 4\n", "x.layout:2: unexpected 'size'"},
        {head + "int32 a[2 at 0\n", "x.layout:2: 'a[2' isn't of the form NAME[N][N]"},
        {head + "int8 a[1][1][1][1][1][1][1][1][1] at 0\n", "x.layout:2: 'a' has more than 8 dimensions"},
        {head + "int32 a[0] at 0\n", "x.layout:2: a dimension is at least 1"},
        {head + "int32 a[65536][65536] at 0\n", "x.layout:2: 'a' is larger than 2147483647 bytes"},
        {head + "int32 a[3] at 0\n", "x.layout:2: 'a' ends at 12, but 'R' has 8 bytes"},
        {head + "int32 a at 0\nint32 a at 4\n", "x.layout:3: 'R' already has a field 'a'"},
        {head + "int32 a at 0\n\nint32 b at 2\n", "x.layout:4: 'b' at 2 begins before the end of 'a' at 4"},
        {head + "struct s at 0 size 4\nend\n", "x.layout:3: 's' has no fields"},
        {head + "struct s at 0 size 4\nint32 a at 0\n", "x.layout:3: 'end' is missing for 's'"},
        {head + "int32 a at 0\nend\nend\n", "x.layout:4: nothing may follow the record's 'end'"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.message, refusal(c.text)) << c.text;
    }
    std::string deep = head;
    for (int i = 0; i < 32; ++i) {
        deep += "struct s at 0 size 8\n";
    }
    EXPECT_EQ("x.layout:33: structures are nested more than 32 deep", refusal(deep));
}

TEST(DescribeCommand, ShippedLayoutGivesTheLibrarysArrayAsBytesAndAsSource)
{
    const Bytes array = arrayInTheLibrary();
    std::ostringstream out;
    std::ostringstream source;
    const std::string layout = LODESTONE_DIAG_LAYOUT;
    ASSERT_EQ(0, DescribeCommand(out, out).run({layout, "--binary", "--size", "256"})) << out.str();
    EXPECT_EQ(std::string(array.begin(), array.end()), out.str());
    ASSERT_EQ(0, DescribeCommand(source, source).run({layout, "--source", "Other"})) << source.str();
    const std::string begin = "g_desc_Other[256] = {";
    const std::size_t at = source.str().find(begin);
    ASSERT_NE(std::string::npos, at);
    std::istringstream numbers(source.str().substr(at + begin.size()));
    Bytes bytes;
    for (std::string word; numbers >> word && word.compare(0, 2, "0x") == 0;) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
    }
    EXPECT_EQ(array, bytes);
}

TEST(DescribeCommand, RefusesWithExitCode2AndWritesNothing)
{
    const std::string good = LODESTONE_DIAG_LAYOUT;
    const std::string output = "refused.output";
    std::remove(output.c_str());
    const struct
    {
        std::vector<std::string> arguments;
        std::string message;
    } cases[] = {
        {{good + "x", "--binary"}, good + "x: can't be read"},
        {{good, "--binary", "--size", "248", "--output", output},
         "the description takes 249 bytes, more than 248"},
        {{good, "--binary", "--size", "0"}, "--size: '0' is no number from 1 to 16777216"},
        {{good, "--binary", "--size"}, "--size needs a value"},
        {{good, "--source", "a b"}, "'a b' is no name"},
        {{good, "--binary", "--dump"}, "only one of --binary, --source, --header and --dump at a time"},
        {{good, "--binary", good}, "unexpected argument '" + good + "'; --help tells more"},
        {{good}, "a layout and one of --binary, --source, --header, --dump are needed; --help tells more"},
    };
    for (const auto& c : cases) {
        std::ostringstream out;
        std::ostringstream err;
        EXPECT_EQ(2, DescribeCommand(out, err).run(c.arguments)) << c.message;
        EXPECT_EQ("lodestone-describe: " + c.message + "\n", err.str());
        EXPECT_EQ("", out.str());
    }
    EXPECT_FALSE(std::ifstream(output).good());
    std::ostringstream out;
    EXPECT_EQ(1, DescribeCommand(out, out).run({good, "--binary", "--output", output + "/nowhere"}));
}

} // namespace
