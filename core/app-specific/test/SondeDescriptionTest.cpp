#include "sonde_ld_data.h"

#include "DescribeCommand.h"
#include "LayoutParser.h"
#include "LodestoneDiag.h"
#include "sonde_Shipped.h" // made from the layout that is shipped

#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace Lodestone;

static_assert(describes_Shipped<LodestoneDiag>(), "the layout is that of the record as compiled");

namespace
{

std::string arrayOf(void (*getter)(const void**, sonde_size_t*))
{
    const void* address = nullptr;
    sonde_size_t size = 0;
    getter(&address, &size);
    return std::string(static_cast<const char*>(address), size);
}

std::string refusal(const std::string& text)
{
    try {
        std::istringstream stream(text);
        LayoutParser(stream, "x.layout").parse();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "accepted";
}

TEST(SondeDescription, ShippedLayoutGivesTheLibrarysArrayAsBytesAndAsSource)
{
    const std::string array = arrayOf(sondeGet_LodestoneDiag);
    EXPECT_EQ(256U, array.size());
    EXPECT_EQ(array, arrayOf(sondeGet_Shipped));
    std::ostringstream out;
    EXPECT_EQ(0, DescribeCommand(out, out).run({LODESTONE_DIAG_LAYOUT, "--binary"}));
    EXPECT_EQ(array, out.str());
}

TEST(LayoutParser, RefusedLayoutsNameFileLineAndReason)
{
    const std::string head = "record R size 8\n";
    const std::pair<std::string, const char*> cases[] = {
        {"", "x.layout:0: there is no record"},
        {"# only a comment\n\nint32 a at 0\n", "x.layout:3: expected 'record NAME size BYTES'"},
        {"record R\n", "x.layout:1: expected 'size N' after 'R'"},
        {"record R size +8\n", "x.layout:1: size '+8' is no number from 0 to 2147483647"},
        {"record R size 99999999999999999999999\n",
         "x.layout:1: size '99999999999999999999999' is no number from 0 to 2147483647"},
        {"record R size 0x\n", "x.layout:1: size '0x' is no number from 0 to 2147483647"},
        {head + "int31 a at 0\n", "x.layout:2: unknown type 'int31'"},
        {head + "int32 a-b at 0\n", "x.layout:2: 'a-b' is no name"},
        {head + "int32 a at 0 size 4\n", "x.layout:2: unexpected 'size'"},
        {head + "int32 a[2 at 0\n", "x.layout:2: 'a[2' isn't of the form NAME[N][N]"},
        {head + "int32 a[0] at 0\n", "x.layout:2: a dimension is at least 1"},
        {head + "int32 a[65536][65536] at 0\n", "x.layout:2: 'a' is larger than 2147483647 bytes"},
        {head + "int32 a[3] at 0\n", "x.layout:2: 'a' ends at 12, but 'R' has 8 bytes"},
        {head + "int32 a at 0\nint32 a at 4\n", "x.layout:3: 'R' already has a field 'a'"},
        {head + "struct s at 0 size 4\nend\n", "x.layout:3: 's' has no fields"},
        {head + "struct s at 0 size 4\nint32 a at 0\n", "x.layout:3: 'end' is missing for 's'"},
        {head + "int32 a at 0\nend\nend\n", "x.layout:4: nothing may follow the record's 'end'"},
    };
    for (const auto& [text, message] : cases) {
        EXPECT_EQ(message, refusal(text)) << text;
    }
}

TEST(DescribeCommand, RefusesWithExitCode2AndWritesNothing)
{
    const std::string good = LODESTONE_DIAG_LAYOUT;
    const std::string output = "refused.output";
    std::remove(output.c_str());
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{good + "x", "--binary"}, good + "x: can't be read"},
        {{good, "--binary", "--size", "248", "--output", output},
         "the description takes 249 bytes, more than 248"},
        {{good, "--binary", "--size", "0"}, "--size: '0' is no number from 1 to 16777216"},
        {{good, "--source", "a b"}, "'a b' is no name"},
        {{good, "--binary", "--dump"}, "only one of --binary, --source, --header and --dump at a time"},
        {{good, "--binary", good}, "unexpected argument '" + good + "'; --help tells more"},
        {{good}, "a layout and one of --binary, --source, --header, --dump are needed; --help tells more"},
    };
    for (const auto& [arguments, message] : cases) {
        std::ostringstream out;
        std::ostringstream err;
        EXPECT_EQ(2, DescribeCommand(out, err).run(arguments)) << message;
        EXPECT_EQ("lodestone-describe: " + message + "\n", err.str());
        EXPECT_EQ("", out.str());
    }
    EXPECT_FALSE(std::ifstream(output).good());
    std::ostringstream out;
    EXPECT_EQ(1, DescribeCommand(out, out).run({good, "--binary", "--output", output + "/nowhere"}));
}

} // namespace
