#include "ConfigStringParser.h"

#include "Lodestone.h"

#include <gtest/gtest.h>
#include <locale>
#include <sstream>
#include <string>

// What is accepted and refused, and with which text, is told by the inputs of ../fuzz and the plain parser
// there.

using namespace Lodestone;

namespace
{

TEST(ConfigStringParser, OnlyAnotherStringCommits)
{
    const std::string accepted = "0,7000,5,11,21:100,n";
    ConfigStringParser parser;
    parser.parseString(accepted);
    // The set's own node: a commit would bring another, even for an equal record.
    const int* const node = &*parser.getConfig().nonSplitChannels.begin();
    parser.parseString(accepted);
    EXPECT_EQ(node, &*parser.getConfig().nonSplitChannels.begin());
    parser.parseString(accepted + ":");
    EXPECT_NE(node, &*parser.getConfig().nonSplitChannels.begin()) << "another string for the same record";
}

/// Groups digits, 1.000.000, as a host in many countries would.
class Grouping : public std::numpunct<char>
{
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(ConfigStringParser, LocaleOfTheHostChangesNeitherNumbersNorTexts)
{
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    std::ostringstream grouped;
    grouped << 1000;
    EXPECT_EQ("1.000", grouped.str()) << "the locale isn't in force";

    ConfigStringParser parser;
    parser.parseString("0,5000,4,10,5.9:1234,n:2.000,n");
    EXPECT_EQ((std::set<int>{2, 1234}), parser.getConfig().nonSplitChannels);
    EXPECT_EQ(1, Lodestone_Init(1, "0,999,4,10,20:1,n"));
    EXPECT_EQ("Value of port exceeds boundary (1000)", GetLastErrorString());
    std::locale::global(before);
}

} // namespace
