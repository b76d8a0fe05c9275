#include "StreamPlan.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{

const std::uint32_t NUMBER_SIZE = 4;
const std::uint32_t PLACES = 1U << 16;

// One block of noise; every buffer shows a piece of it from a place of its own.
const std::vector<char>& noise()
{
    static const std::vector<char> bytes = [] {
        std::vector<char> made(PLACES + LARGEST_CONTENT);
        std::mt19937 random(1);
        std::generate(made.begin(), made.end(), [&] { return static_cast<char>(random()); });
        return made;
    }();
    return bytes;
}

const char* pieceOf(int channelID, std::uint32_t number)
{
    std::uint32_t hash = number * 2654435761U + static_cast<std::uint32_t>(channelID) * 2246822519U;
    hash ^= hash >> 15;
    return noise().data() + (hash * 3266489917U >> 16);
}

// The first bytes of a buffer.
std::string bytesOf(std::uint32_t number)
{
    std::string bytes(NUMBER_SIZE, '\0');
    for (std::uint32_t k = 0; k < NUMBER_SIZE; ++k) {
        bytes[k] = static_cast<char>(number >> (8 * k));
    }
    return bytes;
}

} // namespace

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

bool StreamPlan::hasOnce() const
{
    return std::any_of(channels.begin(), channels.end(), [](const auto& c) { return c.second == 'o'; });
}

std::uint32_t StreamPlan::smallestSize(int channelID) const
{
    if (kindOf(channelID) == 'o') {
        return NUMBER_SIZE;
    }
    return tagged ? NUMBER_SIZE * static_cast<std::uint32_t>(partsOf(channelID)) : 0;
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

void fillContent(char* bytes, std::uint32_t byteSize, int channelID, std::uint32_t number)
{
    if (byteSize != 0) {
        std::memcpy(bytes, pieceOf(channelID, number), byteSize);
        bytesOf(number).copy(bytes, byteSize);
    }
}

bool isContent(const std::string& slice, std::uint32_t offset, int channelID, std::uint32_t number)
{
    const std::uint32_t inNumber = std::min(offset, NUMBER_SIZE);
    const std::size_t head = std::min<std::size_t>(slice.size(), NUMBER_SIZE - inNumber);
    const char* const rest = pieceOf(channelID, number) + offset + head;
    return slice.compare(0, head, bytesOf(number), inNumber, head) == 0 &&
           slice.compare(head, std::string::npos, rest, slice.size() - head) == 0;
}

std::uint32_t numberIn(const std::string& bytes)
{
    std::uint32_t number = 0;
    if (bytes.size() < NUMBER_SIZE) {
        return ~number;
    }
    for (std::uint32_t k = 0; k < NUMBER_SIZE; ++k) {
        number |= static_cast<std::uint32_t>(static_cast<std::uint8_t>(bytes[k])) << (8 * k);
    }
    return number;
}
