#include "ConfigStringParser.h"

#include <locale>
#include <sstream>
#include <stdexcept>

namespace Lodestone
{

namespace
{

bool isRegistered(const ConfigStringParser::Config& config, int channelID)
{
    return inSet(config.intermittentChannels, channelID) || inSet(config.splitChannels, channelID) ||
           inSet(config.nonSplitChannels, channelID) || inSet(config.onceChannels, channelID);
}

bool hasChannels(const ConfigStringParser::Config& config)
{
    return !(config.intermittentChannels.empty() && config.splitChannels.empty() &&
             config.nonSplitChannels.empty() && config.onceChannels.empty());
}

} // namespace

ConfigStringParser::ConfigStringParser() {
} // NOLINT: the record's integers stay unset until a string is accepted

void ConfigStringParser::parseString(std::string configStr)
{
    Config newConfig;
    StringList commandItems;
    string_split(configStr, ':', commandItems);
    if (commandItems.empty()) {
        throw std::runtime_error("Command string with no content");
    }

    parseBasicConfig(commandItems.front(), newConfig);
    commandItems.pop_front();
    while (!commandItems.empty()) {
        parseChannelConfig(commandItems.front(), newConfig);
        commandItems.pop_front();
    }
    if (!hasChannels(newConfig)) {
        throw std::runtime_error("No channels configured");
    }

    if (m_lastConfigStr != configStr) {
        // Everything that can fail is behind us: both steps only hand memory over.
        m_lastConfigStr.swap(configStr);
        m_currentConfig = std::move(newConfig);
    }
}

const ConfigStringParser::Config& ConfigStringParser::getConfig() const
{
    return m_currentConfig;
}

int ConfigStringParser::firstToIntegerPop(StringList& strList, const std::string& itemName, int thresh)
{
    int retVal = 0;
    std::istringstream stream(strList.front());
    // A host may have set a global locale that groups digits; the configuration is read the same everywhere.
    stream.imbue(std::locale::classic());
    if (!(stream >> retVal)) {
        throw std::runtime_error(strList.front() + " cannot be converted to an int (" + itemName + ")");
    }
    if (retVal < thresh) {
        throw std::runtime_error(Formatter()
                                 << "Value of " << itemName << " exceeds boundary (" << thresh << ")");
    }
    strList.pop_front();
    return retVal;
}

void ConfigStringParser::parseBasicConfig(const std::string& item, Config& newConfig)
{
    StringList basicConfig;
    string_split(item, ',', basicConfig);
    if (basicConfig.size() != 5) {
        throw std::runtime_error("Expected 5 elements in basic config");
    }
    if (basicConfig.front() != "0") {
        throw std::runtime_error("Expected version 0, got " + basicConfig.front());
    }
    basicConfig.pop_front();
    newConfig.port = firstToIntegerPop(basicConfig, "port", 1000);
    newConfig.splitCount = firstToIntegerPop(basicConfig, "splitcount", 1);
    newConfig.intermittentCount = firstToIntegerPop(basicConfig, "intermittent count", 1);
    newConfig.queueLength = firstToIntegerPop(basicConfig, "queue length", -200);
    if (newConfig.queueLength == 0) {
        throw std::runtime_error("Invalid queue length (0).");
    }
}

void ConfigStringParser::parseChannelConfig(const std::string& item, Config& newConfig)
{
    StringList channelConfig;
    string_split(item, ',', channelConfig);
    if (channelConfig.size() != 2) {
        throw std::runtime_error("Invalid channel config item: " + item);
    }
    const int channelID = firstToIntegerPop(channelConfig, "channel ID", 0);
    if (isRegistered(newConfig, channelID)) {
        throw std::runtime_error(Formatter() << "Channel ID " << channelID << " already registered");
    }

    const std::string& type = channelConfig.front();
    if (type == "i") {
        newConfig.intermittentChannels.insert(channelID);
    } else if (type == "s") {
        newConfig.splitChannels.insert(channelID);
    } else if (type == "n") {
        newConfig.nonSplitChannels.insert(channelID);
    } else if (type == "o") {
        newConfig.onceChannels.insert(channelID);
    } else {
        throw std::runtime_error("Channel type must be i|s|n|o, got " + type);
    }
}

} // namespace Lodestone
