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
#include <unistd.h>
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

/// Inflates as a reader does: it knows the size of the array, not that of the stream. `used` receives the
/// latter.
Bytes inflateFrom(const Bytes& array, std::size_t begin, std::size_t expectedSize, std::size_t& used)
{
    Bytes inflated(expectedSize + 1);
    z_stream stream = {};
    inflateInit(&stream);
    stream.next_in = const_cast<Bytef*>(array.data() + begin);
    stream.avail_in = static_cast<uInt>(array.size() - begin);
    stream.next_out = inflated.data();
    stream.avail_out = static_cast<uInt>(inflated.size());
    EXPECT_EQ(Z_STREAM_END, inflate(&stream, Z_FINISH));
    inflated.resize(stream.total_out);
    used = stream.total_in;
    inflateEnd(&stream);
    return inflated;
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
#define SCALAR(record, field)                                                                                \
    LayoutNode                                                                                               \
    {                                                                                                        \
#field, {}, offsetof(record, field), sizeof(record::field), scalarType < decltype(record::field)>(), \
        {}                                                                                                   \
    }

RecordLayout layoutOfTheRecord()
{
    LayoutNode profiling{
        "profiling",          {}, offsetof(PerPackageDiag, profiling), sizeof(PerPackageDiag::profiling),
        FieldType::STRUCTURE, {}};
    profiling.fields = {SCALAR(ALProfilingItem, runtimeMsecs), SCALAR(ALProfilingItem, maxRuntimeMsecs),
                        SCALAR(ALProfilingItem, cumRuntimeMsecs), SCALAR(ALProfilingItem, numCalls),
                        SCALAR(ALProfilingItem, avgRuntimeMsecs)};
    LayoutNode diags{"diags",
                     {std::extent<decltype(LodestoneDiag::diags)>::value},
                     offsetof(LodestoneDiag, diags),
                     sizeof(PerPackageDiag),
                     FieldType::STRUCTURE,
                     {}};
    diags.fields = {SCALAR(PerPackageDiag, queue_ptr), SCALAR(PerPackageDiag, firstChannelID),
                    SCALAR(PerPackageDiag, waitedForQueue), SCALAR(PerPackageDiag, skipped), profiling};
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

/// A run of the tool; its own files go into a folder that vanishes with it.
class DescribeRun : public testing::Test
{
protected:
    DescribeRun() { EXPECT_NE(nullptr, mkdtemp(m_folder)); }
    ~DescribeRun() override
    {
        for (const std::string& file : m_files) {
            std::remove(file.c_str());
        }
        rmdir(m_folder);
    }

    std::string path(const std::string& name)
    {
        m_files.push_back(m_folder + ("/" + name));
        return m_files.back();
    }
    std::string write(const std::string& name, const std::string& text)
    {
        const std::string file = path(name);
        std::ofstream(file) << text;
        return file;
    }
    int run(const std::vector<std::string>& arguments)
    {
        m_out.str("");
        m_err.str("");
        return DescribeCommand(m_out, m_err).run(arguments);
    }

    std::ostringstream m_out;
    std::ostringstream m_err;

private:
    char m_folder[32] = "/tmp/lodestone-describe.XXXXXX";
    std::vector<std::string> m_files;
};

TEST(SondeDescription, ArrayHasHeaderThenStreamThenZeros)
{
    const Bytes array = arrayInTheLibrary();
    ASSERT_EQ(256U, array.size());
    const Bytes header = {0xDA, 0xDE, 3, 0, 1, 0, 0, 0, 0, 0, 0x02, 0x13, 2, 0x78, 0xDA};
    EXPECT_EQ(header, Bytes(array.begin(), array.begin() + 15));
    std::size_t used = 0;
    EXPECT_EQ(531U, inflateFrom(array, 13, 531, used).size());
    const Bytes fill(array.begin() + static_cast<std::ptrdiff_t>(13 + used), array.end());
    EXPECT_EQ(Bytes(256 - 13 - used, 0), fill);
}

TEST(SondeDescription, ArrayDescribesTheRecordAsCompiled)
{
    std::size_t used = 0;
    const Bytes inflated = inflateFrom(arrayInTheLibrary(), 13, 531, used);
    EXPECT_EQ(DescriptionEncoder(layoutOfTheRecord()).description(), inflated);
}

TEST(SondeDescription, NodesStandWhereReadersExpectThem)
{
    std::size_t used = 0;
    const Bytes inflated = inflateFrom(arrayInTheLibrary(), 13, 531, used);
    ASSERT_EQ(531U, inflated.size());
    const struct
    {
        std::size_t start;
        std::string name;
    } nodes[] = {
        {0, "LodestoneDiag"}, {43, "queueLength"},      {79, "numSkipped"},       {114, "diags"},
        {148, "queue_ptr"},   {182, "firstChannelID"},  {221, "waitedForQueue"},  {260, "skipped"},
        {292, "profiling"},   {326, "runtimeMsecs"},    {363, "maxRuntimeMsecs"}, {403, "cumRuntimeMsecs"},
        {443, "numCalls"},    {476, "avgRuntimeMsecs"},
    };
    for (const auto& node : nodes) {
        const std::string text(inflated.begin() + static_cast<std::ptrdiff_t>(node.start), inflated.end());
        const std::string expected =
            std::string("\x64\0\0\0", 4) + static_cast<char>(node.name.size()) + node.name + '\x65';
        EXPECT_EQ(expected, text.substr(0, expected.size())) << node.name;
    }
    const Bytes queueLength = {0x64, 0,   0,    0,   11,   'q', 'u', 'e',  'u', 'e',  'L', 'e',
                               'n',  'g', 't',  'h', 0x65, 0,   0,   0,    0,   0x66, 0,   0,
                               0,    0,   0x67, 0,   0,    0,   4,   0x96, 0,   0,    0,   1};
    EXPECT_EQ(queueLength, Bytes(inflated.begin() + 43, inflated.begin() + 79));
    const Bytes closing = {0x96, 0, 0, 0, 0xFF, 0x96, 0, 0, 0, 0xFF, 0x96, 0, 0, 0, 0xFF};
    EXPECT_EQ(closing, Bytes(inflated.begin() + 516, inflated.end()));
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

TEST(DescriptionEncoder, ArrayIsFilledToTheSizeAskedForOrTheNextMultipleOf64)
{
    const DescriptionEncoder encoder(parse("record R size 4\nint32 a at 0\nend\n"));
    const std::size_t needed = encoder.packed().size();
    EXPECT_EQ((needed + 63) / 64 * 64, encoder.array(0).size());
    EXPECT_EQ(needed, encoder.array(needed).size());
    EXPECT_EQ(1000U, encoder.array(1000).size());
    EXPECT_THROW(encoder.array(needed - 1), std::runtime_error);
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
        {"record 2R size 8\n", "x.layout:1: '2R' is no name"},
        {"record R\n", "x.layout:1: expected 'size N' after 'R'"},
        {"record R size -8\n", "x.layout:1: size '-8' is no number from 0 to 2147483647"},
        {"record R size 2147483648\n", "x.layout:1: size '2147483648' is no number from 0 to 2147483647"},
        {"record R size 99999999999999999999999\n",
         "x.layout:1: size '99999999999999999999999' is no number from 0 to 2147483647"},
        {"record R size 0x\n", "x.layout:1: size '0x' is no number from 0 to 2147483647"},
        {"record R size 8 extent 2 3\n", "x.layout:1: unexpected '3'"},
        {head + "int31 a at 0\n", "x.layout:2: unknown type 'int31'"},
        {head + "int32\n", "x.layout:2: the field's name is missing"},
        {head + "int32 a-b at 0\n", "x.layout:2: 'a-b' is no name"},
        {head + "int32 a\n", "x.layout:2: expected 'at N' after 'a'"},
        {head + "int32 a at 4x\n", "x.layout:2: at '4x' is no number from 0 to 2147483647"},
        {head + "int32 a at 0 size 4\n", "x.layout:2: unexpected 'size'"},
        {head + "int32 a[2 at 0\n", "x.layout:2: 'a[2' isn't of the form NAME[N][N]"},
        {head + "int32 a[2]b at 0\n", "x.layout:2: 'a[2]b' isn't of the form NAME[N][N]"},
        {head + "int32 a[] at 0\n", "x.layout:2: dimension '' is no number from 0 to 2147483647"},
        {head + "int32 a[0] at 0\n", "x.layout:2: a dimension is at least 1"},
        {head + "int32 a[65536][65536] at 0\n", "x.layout:2: 'a' is larger than 2147483647 bytes"},
        {head + "int32 a[3] at 0\n", "x.layout:2: 'a' ends at 12, but 'R' has 8 bytes"},
        {head + "int32 a at 0\nint32 a at 4\n", "x.layout:3: 'R' already has a field 'a'"},
        {head + "int32 a at 0\n\nint32 b at 2\n", "x.layout:4: 'b' at 2 begins before the end of 'a' at 4"},
        {head + "int32 b at 4\nint32 a at 0\n", "x.layout:3: 'a' at 0 begins before the end of 'b' at 8"},
        {head + "struct s at 0\n", "x.layout:2: expected 'size N' after '0'"},
        {head + "struct s at 0 size 4\nend\n", "x.layout:3: 's' has no fields"},
        {head + "struct s[3] at 0 size 4\nint32 a at 0\nend\n",
         "x.layout:4: 's' ends at 12, but 'R' has 8 bytes"},
        {head + "struct s at 0 size 4\nint32 a at 0\n", "x.layout:3: 'end' is missing for 's'"},
        {head + "end\n", "x.layout:2: 'R' has no fields"},
        {head + "int32 a at 0\nend now\n", "x.layout:3: unexpected 'now'"},
        {head + "int32 a at 0\nend\nend\n", "x.layout:4: nothing may follow the record's 'end'"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.message, refusal(c.text)) << c.text;
    }
    std::string deep = "record R size 8\n";
    for (int i = 0; i < 32; ++i) {
        deep += "struct s at 0 size 8\n";
    }
    EXPECT_EQ("x.layout:33: structures are nested more than 32 deep", refusal(deep));
}

TEST_F(DescribeRun, ShippedLayoutGivesTheLibrarysArrayByteForByte)
{
    ASSERT_EQ(0, run({LODESTONE_DIAG_LAYOUT, "--binary", "--size", "256"})) << m_err.str();
    const Bytes array = arrayInTheLibrary();
    EXPECT_EQ(std::string(array.begin(), array.end()), m_out.str());
}

TEST_F(DescribeRun, SourceHoldsEveryByteOfTheArray)
{
    const std::string output = path("out.cpp");
    ASSERT_EQ(0, run({LODESTONE_DIAG_LAYOUT, "--source", "Other", "--output", output})) << m_err.str();
    std::ostringstream text;
    text << std::ifstream(output).rdbuf();
    EXPECT_NE(std::string::npos, text.str().find("#include \"sonde_Other.h\"\n"));
    const std::string begin = "g_desc_Other[256] = {";
    ASSERT_NE(std::string::npos, text.str().find(begin));
    std::istringstream numbers(text.str().substr(text.str().find(begin) + begin.size()));
    Bytes bytes;
    for (std::string word; numbers >> word && word.compare(0, 2, "0x") == 0;) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
    }
    EXPECT_EQ(arrayInTheLibrary(), bytes);
}

TEST_F(DescribeRun, RefusesWithExitCode2AndWritesNothing)
{
    const std::string good = LODESTONE_DIAG_LAYOUT;
    const std::string bad = write("bad.layout", "record R size 8\nint9 a at 0\n");
    const std::string output = path("out");
    const struct
    {
        std::vector<std::string> arguments;
        std::string message;
    } cases[] = {
        {{bad, "--binary", "--output", output}, bad + ":2: unknown type 'int9'"},
        {{bad + "x", "--binary"}, bad + "x: can't be read"},
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
        EXPECT_EQ(2, run(c.arguments)) << c.message;
        EXPECT_EQ("lodestone-describe: " + c.message + "\n", m_err.str());
        EXPECT_EQ("", m_out.str());
    }
    EXPECT_FALSE(std::ifstream(output).good());
    EXPECT_EQ(1, run({good, "--binary", "--output", output + "/nowhere"}));
}

TEST_F(DescribeRun, HelpAndDumpAreForPeople)
{
    EXPECT_EQ(0, run({"--help"}));
    EXPECT_EQ(0U, m_out.str().find("usage: lodestone-describe LAYOUT"));
    ASSERT_EQ(0, run({LODESTONE_DIAG_LAYOUT, "--dump"}));
    EXPECT_NE(std::string::npos, m_out.str().find("\n      32         8  float64       cumRuntimeMsecs\n"));
    EXPECT_NE(std::string::npos,
              m_out.str().find("root extent 200; description 531 bytes, packed 249, array 256\n"));
}

} // namespace
