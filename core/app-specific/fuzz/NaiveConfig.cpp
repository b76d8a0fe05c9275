#include "NaiveConfig.h"

#include <cstddef>
#include <vector>

namespace
{

typedef std::vector<std::string> Words;

/// What stands between the delimiters, but for what is empty.
Words split(const std::string& text, char delimiter)
{
    Words words(1);
    for (const char c : text) {
        if (c == delimiter) {
            words.emplace_back();
        } else {
            words.back() += c;
        }
    }
    Words filled;
    for (const std::string& word : words) {
        if (!word.empty()) {
            filled.push_back(word);
        }
    }
    return filled;
}

bool isOneOf(char c, const std::string& characters)
{
    return characters.find(c) != std::string::npos;
}

/// Blanks, a sign, digits, and then whatever. False without a digit, or if it is no int.
bool readNumber(const std::string& word, int& number)
{
    std::size_t at = 0;
    while (at < word.size() && isOneOf(word[at], " \t\n\v\f\r")) {
        ++at;
    }
    const bool negative = at < word.size() && word[at] == '-';
    if (at < word.size() && isOneOf(word[at], "+-")) {
        ++at;
    }
    const std::size_t firstDigit = at;
    long long magnitude = 0;
    while (at < word.size() && isOneOf(word[at], "0123456789")) {
        if (magnitude < 10000000000) { // else it is far too large, and may stay as it is
            magnitude = 10 * magnitude + (word[at] - '0');
        }
        ++at;
    }
    if (at == firstDigit || magnitude > (negative ? 2147483648 : 2147483647)) {
        return false;
    }
    number = static_cast<int>(negative ? -magnitude : magnitude);
    return true;
}

/// Reads one number; gives the error, or nothing.
std::string take(const std::string& word, const std::string& name, int lowest, int& number)
{
    if (!readNumber(word, number)) {
        return word + " cannot be converted to an int (" + name + ")";
    }
    if (number < lowest) {
        return "Value of " + name + " exceeds boundary (" + std::to_string(lowest) + ")";
    }
    return "";
}

std::string takeBasics(const std::string& item, Lodestone::ConfigStringParser::Config& config)
{
    const Words words = split(item, ',');
    if (words.size() != 5) {
        return "Expected 5 elements in basic config";
    }
    if (words[0] != "0") {
        return "Expected version 0, got " + words[0];
    }
    std::string error = take(words[1], "port", 1000, config.port);
    if (error.empty()) {
        error = take(words[2], "splitcount", 1, config.splitCount);
    }
    if (error.empty()) {
        error = take(words[3], "intermittent count", 1, config.intermittentCount);
    }
    if (error.empty()) {
        error = take(words[4], "queue length", -200, config.queueLength);
    }
    return error.empty() && config.queueLength == 0 ? "Invalid queue length (0)." : error;
}

std::string takeChannel(const std::string& item, std::set<int>& taken,
                        Lodestone::ConfigStringParser::Config& config)
{
    const Words words = split(item, ',');
    if (words.size() != 2) {
        return "Invalid channel config item: " + item;
    }
    int id = 0;
    std::string error = take(words[0], "channel ID", 0, id);
    if (!error.empty()) {
        return error;
    }
    if (!taken.insert(id).second) {
        return "Channel ID " + std::to_string(id) + " already registered";
    }
    std::set<int>* const channels = words[1] == "i"   ? &config.intermittentChannels
                                    : words[1] == "s" ? &config.splitChannels
                                    : words[1] == "n" ? &config.nonSplitChannels
                                    : words[1] == "o" ? &config.onceChannels
                                                      : nullptr;
    if (channels == nullptr) {
        return "Channel type must be i|s|n|o, got " + words[1];
    }
    channels->insert(id);
    return "";
}

} // namespace

NaiveConfig naiveConfig(const std::string& text)
{
    NaiveConfig naive;
    const Words items = split(text, ':');
    if (items.empty()) {
        naive.error = "Command string with no content";
        return naive;
    }
    naive.error = takeBasics(items[0], naive.config);
    std::set<int> taken;
    for (std::size_t i = 1; i < items.size() && naive.accepted(); ++i) {
        naive.error = takeChannel(items[i], taken, naive.config);
    }
    if (naive.accepted() && taken.empty()) {
        naive.error = "No channels configured";
    }
    return naive;
}
