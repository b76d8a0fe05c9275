#include "ConfigStringParser.h"

#include "Lodestone.h"

#include <gtest/gtest.h>
#include <locale>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Lodestone;

namespace
{

typedef ConfigStringParser::Config Config;
typedef std::set<int> Channels;

void expectConfig(const Config& expected, const Config& actual, const std::string& text)
{
    EXPECT_EQ(expected.port, actual.port) << text;
    EXPECT_EQ(expected.splitCount, actual.splitCount) << text;
    EXPECT_EQ(expected.intermittentCount, actual.intermittentCount) << text;
    EXPECT_EQ(expected.queueLength, actual.queueLength) << text;
    EXPECT_EQ(expected.intermittentChannels, actual.intermittentChannels) << text;
    EXPECT_EQ(expected.splitChannels, actual.splitChannels) << text;
    EXPECT_EQ(expected.nonSplitChannels, actual.nonSplitChannels) << text;
    EXPECT_EQ(expected.onceChannels, actual.onceChannels) << text;
}

struct Refusal
{
    std::string text;
    std::string message;
};

const std::vector<Refusal> REFUSALS = {
    {"", "Command string with no content"},
    {":::", "Command string with no content"},
    {",,,", "Expected 5 elements in basic config"},
    {"0,5000,4,10", "Expected 5 elements in basic config"},
    {"0,5000,4,10,20,1:1,n", "Expected 5 elements in basic config"},
    {"1,2:3", "Expected 5 elements in basic config"},
    {"1,5000,4,10,20:1,n", "Expected version 0, got 1"},
    {"00,5000,4,10,20:1,n", "Expected version 0, got 00"},
    {"+0,abc,4,10,20:1,n", "Expected version 0, got +0"},
    {" 0,5000,4,10,20:1,n", "Expected version 0, got  0"},
    {"0,abc,def,10,20:1,n", "abc cannot be converted to an int (port)"},
    {"0, ,4,10,20:1,n", "  cannot be converted to an int (port)"},
    {"0,2147483648,4,10,20:1,n", "2147483648 cannot be converted to an int (port)"},
    {"0,-2147483649,4,10,20:1,n", "-2147483649 cannot be converted to an int (port)"},
    {"0,- 5000,4,10,20:1,n", "- 5000 cannot be converted to an int (port)"},
    {"0,0x1388,4,10,20:1,n", "Value of port exceeds boundary (1000)"},
    {"0,999,abc,10,20:1,n", "Value of port exceeds boundary (1000)"},
    {"0,-5000,4,10,20:1,n", "Value of port exceeds boundary (1000)"},
    {"0,5000,x,0,20:1,n", "x cannot be converted to an int (splitcount)"},
    {"0,5000,0,x,20:1,n", "Value of splitcount exceeds boundary (1)"},
    {"0,5000,4,x,0:1,n", "x cannot be converted to an int (intermittent count)"},
    {"0,5000,4,0,x:1,n", "Value of intermittent count exceeds boundary (1)"},
    {"0,5000,4,10,x:1", "x cannot be converted to an int (queue length)"},
    {"0,5000,4,10,-201:1,n", "Value of queue length exceeds boundary (-200)"},
    {"0,5000,4,10,0:1", "Invalid queue length (0)."},
    {"0,5000,4,10,-0:1,n", "Invalid queue length (0)."},
    {"0,5000,4,10,20:1", "Invalid channel config item: 1"},
    {"0,5000,4,10,20:1,n,x", "Invalid channel config item: 1,n,x"},
    {"0,5000,4,10,20:,,", "Invalid channel config item: ,,"},
    {"0,5000,4,10,20: :1,n", "Invalid channel config item:  "},
    {"0,5000,4,10,20:n,1", "n cannot be converted to an int (channel ID)"},
    {"0,5000,4,10,20:-1,x", "Value of channel ID exceeds boundary (0)"},
    {"0,5000,4,10,20:1,n:1,s", "Channel ID 1 already registered"},
    {"0,5000,4,10,20:1,o:1,n", "Channel ID 1 already registered"},
    {"0,5000,4,10,20:1,s:1,o", "Channel ID 1 already registered"},
    {"0,5000,4,10,20:1,n:1,n", "Channel ID 1 already registered"},
    {"0,5000,4,10,20:007,i:7,x", "Channel ID 7 already registered"},
    {"0,5000,4,10,20:1,I", "Channel type must be i|s|n|o, got I"},
    {"0,5000,4,10,20:1, i", "Channel type must be i|s|n|o, got  i"},
    {"0,5000,4,10,20:1,n\n", "Channel type must be i|s|n|o, got n\n"},
    {"0,5000,4,10,20:1,nn", "Channel type must be i|s|n|o, got nn"},
    {"0,5000,4,10,20", "No channels configured"},
    {"0,5000,4,10,20:", "No channels configured"},
};

TEST(ConfigStringParser, AcceptedStringsGiveTheirRecord)
{
    const struct
    {
        std::string text;
        Config config;
    } cases[] = {
        {"0,5000,4,10,20:100,n:101,s:102,i:103,o", {5000, 4, 10, 20, {102}, {101}, {100}, {103}}},
        {"0,1000,1,1,-200:0,n", {1000, 1, 1, -200, {}, {}, {0}, {}}},
        {"0,5000,4,10,-1:300,s:200,s:100,s", {5000, 4, 10, -1, {}, {100, 200, 300}, {}, {}}},
        {":0,,7000x,+2, 3 ,5.9::12,n,:, 7 ,i:", {7000, 2, 3, 5, {7}, {}, {12}, {}}},
        {"0,2147483647,010,12 34,\t\n\v\f\r7:2147483647,o: 1,i",
         {2147483647, 10, 12, 7, {1}, {}, {}, {2147483647}}},
        {"0,5000,4,10,1:0x10,n", {5000, 4, 10, 1, {}, {}, {0}, {}}},
    };
    ConfigStringParser parser;
    EXPECT_TRUE(parser.getConfig().nonSplitChannels.empty());
    for (const auto& c : cases) {
        EXPECT_NO_THROW(parser.parseString(c.text)) << c.text;
        expectConfig(c.config, parser.getConfig(), c.text);
    }
    std::string text = "0,5000,4,10,20";
    for (int channelID = 0; channelID < 3000; ++channelID) {
        text += ":" + std::to_string(channelID) + ",s";
    }
    parser.parseString(text);
    EXPECT_EQ(3000U, parser.getConfig().splitChannels.size());
}

TEST(ConfigStringParser, RefusedStringsGiveTheirMessageThroughThePublicFunctions)
{
    for (const Refusal& c : REFUSALS) {
        EXPECT_EQ(1, Lodestone_Init(1, c.text)) << c.text;
        EXPECT_EQ(c.message, GetLastErrorString());

        Lodestone_QueryVersion(nullptr); // another text in between
        EXPECT_EQ(1, CLodestone_Lodestone_Init(-1, reinterpret_cast<const alif_int8_t*>(c.text.c_str())));
        std::string text(c.message.size() + 1, '?');
        EXPECT_EQ(0, CLodestone_GetLastErrorString(reinterpret_cast<alif_int8_t*>(&text[0]),
                                                   static_cast<alif_uint32_t>(text.size())));
        EXPECT_EQ(c.message + '\0', text);
    }
}

TEST(ConfigStringParser, RefusedStringKeepsTheLastConfig)
{
    const Config config = {7000, 5, 11, 21, {102}, {101}, {100}, {103}}; // no number of the refused ones
    const std::string accepted = "0,7000,5,11,21:100,n:101,s:102,i:103,o";
    ConfigStringParser parser;
    parser.parseString(accepted);
    // The set's own nodes: a commit would bring others, even for an equal record.
    const int* const node = &*parser.getConfig().nonSplitChannels.begin();
    for (const Refusal& c : REFUSALS) {
        EXPECT_THROW(parser.parseString(c.text), std::runtime_error) << c.text;
        expectConfig(config, parser.getConfig(), c.text);
        EXPECT_EQ(node, &*parser.getConfig().nonSplitChannels.begin()) << c.text;
    }
    parser.parseString(accepted);
    EXPECT_EQ(node, &*parser.getConfig().nonSplitChannels.begin()) << "an equal string commits nothing";
    parser.parseString(accepted + ":");
    EXPECT_NE(node, &*parser.getConfig().nonSplitChannels.begin())
        << "another string for the same record does";
    expectConfig(config, parser.getConfig(), accepted + ":");
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
    EXPECT_NO_THROW(parser.parseString("0,5000,4,10,5.9:1234,n:2.000,n"));
    expectConfig({5000, 4, 10, 5, {}, {}, {2, 1234}, {}}, parser.getConfig(), "grouped");
    EXPECT_EQ(1, Lodestone_Init(1, "0,999,4,10,20:1,n"));
    EXPECT_EQ("Value of port exceeds boundary (1000)", GetLastErrorString());
    EXPECT_EQ(1, Lodestone_Init(1, "0,5000,4,10,20:1234567,n:1234567,s"));
    EXPECT_EQ("Channel ID 1234567 already registered", GetLastErrorString());
    std::locale::global(before);
}

} // namespace
