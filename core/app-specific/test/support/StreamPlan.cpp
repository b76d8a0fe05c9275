#include "StreamPlan.h"

#include <algorithm>

std::string StreamPlan::text() const
{
    std::string result = std::to_string(splitCount) + "," + std::to_string(intermittentCount) + "," +
                         std::to_string(queueLength);
    for (const auto& channel : channels) {
        result += ":" + std::to_string(channel.first) + "," + channel.second;
    }
    return result;
}

char StreamPlan::kindOf(int channelID) const
{
    const auto it = channels.find(channelID);
    return it == channels.end() ? '-' : it->second;
}

int StreamPlan::partsOf(int channelID) const
{
    const char kind = kindOf(channelID);
    return kind == 's' || kind == 'i' ? splitCount : 1;
}

std::vector<std::int32_t> StreamPlan::channelsOf(bool once) const
{
    std::vector<std::int32_t> result;
    for (const auto& channel : channels) {
        if ((channel.second == 'o') == once) {
            result.push_back(channel.first);
        }
    }
    return result;
}

StreamPlan StreamPlan::random(std::mt19937& random, bool unlimited)
{
    const auto oneOf = [&](std::initializer_list<int> values) {
        return values.begin()[random() % values.size()];
    };
    StreamPlan plan;
    plan.splitCount = oneOf({1, 2, 3, 4, 7, 50});
    plan.intermittentCount = oneOf({1, 2, 3, 5});
    plan.queueLength = oneOf({1, 1, 2, 3, 20, 200, -1, -2, -3, -20});
    plan.tagged = random() % 2 == 0;
    const auto noChannels = 1 + random() % 12;
    for (unsigned k = 0; k < noChannels; ++k) {
        const int channelID = 1 + static_cast<int>(random() % 10000);
        plan.channels[channelID] = "nnnssiio"[random() % 8];
    }
    plan.channels[1 + static_cast<int>(random() % 100)] = "nsi"[random() % 3]; // something must flow
    if (unlimited && random() % 4 == 0) {
        plan.channels[0] = "nsi"[random() % 3];
    }
    return plan;
}

std::string contentOf(int channelID, std::uint32_t number, std::uint32_t offset, std::uint32_t byteSize)
{
    // One block of noise; every buffer shows a piece of it from a place of its own.
    static const std::string noise = [] {
        std::string made(2 * LARGEST_CONTENT, '\0');
        std::mt19937 random(1);
        std::generate(made.begin(), made.end(), [&] { return static_cast<char>(random()); });
        return made;
    }();
    std::uint32_t hash = number * 2654435761U + static_cast<std::uint32_t>(channelID) * 2246822519U;
    hash ^= hash >> 15U;
    std::string bytes = noise.substr((hash * 3266489917U) % LARGEST_CONTENT + offset, byteSize);
    for (std::uint32_t k = offset; k < sizeof number && k - offset < byteSize; ++k) {
        bytes[k - offset] = static_cast<char>(number >> (8 * k));
    }
    return bytes;
}
