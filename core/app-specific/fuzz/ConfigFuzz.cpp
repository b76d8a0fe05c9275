#include "FuzzTarget.h"
#include "Lodestone.h"
#include "NaiveConfig.h"

#include <stdexcept>
#include <string>

// Any text as a configuration string: the library's parser and a plain one agree on it.

using Lodestone::ConfigStringParser;

namespace
{

const char* const BEFORE = "0,7000,5,11,21:2147483647,n:2147483646,s:2147483645,i:2147483644,o";

/// An exception's text ends with its first 0, whatever the word that it quotes.
std::string errorText(const NaiveConfig& naive)
{
    return naive.error.c_str();
}

/// Has the parser do what the plain one says.
void parse(ConfigStringParser& parser, const std::string& text, const NaiveConfig& naive)
{
    bool accepted = true;
    std::string error;
    try {
        parser.parseString(text);
    } catch (const std::runtime_error& thrown) {
        accepted = false;
        error = thrown.what();
    }
    fuzzCheck(accepted == naive.accepted(), accepted ? "accepted, not refused" : "refused, not accepted");
    fuzzCheck(error == errorText(naive), "'" + error + "' instead of '" + naive.error + "'");
}

void checkConfig(const ConfigStringParser::Config& expected, const ConfigStringParser::Config& actual)
{
    fuzzCheck(expected.port == actual.port, "port");
    fuzzCheck(expected.splitCount == actual.splitCount, "splitCount");
    fuzzCheck(expected.intermittentCount == actual.intermittentCount, "intermittentCount");
    fuzzCheck(expected.queueLength == actual.queueLength, "queueLength");
    fuzzCheck(expected.intermittentChannels == actual.intermittentChannels, "intermittentChannels");
    fuzzCheck(expected.splitChannels == actual.splitChannels, "splitChannels");
    fuzzCheck(expected.nonSplitChannels == actual.nonSplitChannels, "nonSplitChannels");
    fuzzCheck(expected.onceChannels == actual.onceChannels, "onceChannels");
}

void checkParser(const std::string& text, const NaiveConfig& naive)
{
    static const NaiveConfig before = naiveConfig(BEFORE);
    ConfigStringParser parser;
    parse(parser, BEFORE, before);
    for (int i = 0; i < 2; ++i) { // a second time it is the last string
        parse(parser, text, naive);
        checkConfig(naive.accepted() ? naive.config : before.config, parser.getConfig());
    }
    parse(parser, BEFORE, before);
    checkConfig(before.config, parser.getConfig());
}

/// Only with what is refused: an accepted string would listen on the port that it names.
void checkPublicFaces(const std::string& text, const NaiveConfig& naive)
{
    if (!naive.accepted()) {
        fuzzCheck(Lodestone::Lodestone_Init(1, text) == 1, "Lodestone_Init refuses it");
        fuzzCheck(Lodestone::GetLastErrorString() == errorText(naive), "and tells why");
    }
    const NaiveConfig inC = naiveConfig(text.c_str()); // in C it ends with the first 0
    if (!inC.accepted()) {
        const auto* const bytes = reinterpret_cast<const alif_int8_t*>(text.c_str());
        fuzzCheck(CLodestone_Lodestone_Init(1, bytes) == 1, "CLodestone_Lodestone_Init refuses it");
        std::string error(inC.error.size() + 1, '?');
        const auto size = static_cast<alif_uint32_t>(error.size());
        fuzzCheck(CLodestone_GetLastErrorString(reinterpret_cast<alif_int8_t*>(&error[0]), size) == 0,
                  "the error fits its own size");
        fuzzCheck(error == inC.error + '\0', "and is the same in C");
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(data, data + size);
    const NaiveConfig naive = naiveConfig(text);
    checkParser(text, naive);
    checkPublicFaces(text, naive);
    return 0;
}
