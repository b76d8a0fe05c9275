#ifndef LODESTONE_APP_CONFIGSTRINGPARSER_H
#define LODESTONE_APP_CONFIGSTRINGPARSER_H

#include "LodestoneCommon.h"

#include <set>
#include <string>

namespace Lodestone
{

/// Turns the configuration string into a record, or refuses it with one line of text.
///
/// "0,<port>,<split count>,<intermittent count>,<queue length>:<channel>,<i|s|n|o>:..." - items stand between
/// colons, fields between commas, empty pieces are dropped. docs/integration.md tells users what the fields
/// mean.
///
/// Used by one thread at a time: the host's, inside Lodestone_Init.
class ConfigStringParser
{
public:
    /// After an accepted string: port >= 1000, splitCount and intermittentCount >= 1, queueLength >= -200 and
    /// not 0, ids >= 0, the four sets disjoint and not all empty.
    struct Config
    {
        int port;              ///< TCP port of the listener. Its low 16 bits are bound.
        int splitCount;        ///< Parts of a buffer that is sent split.
        int intermittentCount; ///< An intermittent channel is due in every so many deliveries of it.
        int queueLength; ///< Limit on queued cycles that hold one channel; negative: the host waits for room.
        std::set<int> intermittentChannels;
        std::set<int> splitChannels;
        std::set<int> nonSplitChannels;
        std::set<int> onceChannels;
    };

    /// No string yet: four empty sets, and the integers of the record unset until the first accepted string.
    ConfigStringParser();

    /// Throws std::runtime_error with the reason if the string is refused; nothing has changed then.
    void parseString(std::string configStr);

    /// The record of the last accepted string. The reference lives as long as the parser; the next accepted
    /// string changes what it shows.
    const Config& getConfig() const;

private:
    static int firstToIntegerPop(StringList& strList, const std::string& itemName, int thresh);
    static void parseBasicConfig(const std::string& item, Config& newConfig);
    static void parseChannelConfig(const std::string& item, Config& newConfig);

    std::string m_lastConfigStr;
    Config m_currentConfig;
};

} // namespace Lodestone

#endif
