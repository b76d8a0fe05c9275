#ifndef LODESTONE_TEST_STREAMPLAN_H
#define LODESTONE_TEST_STREAMPLAN_H

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

/// A configuration as a test knows it. Uses nothing of the library.
struct StreamPlan
{
    int splitCount = 1;
    int intermittentCount = 1;
    int queueLength = 1;
    std::map<int, char> channels; ///< Id to 'n', 's', 'i' or 'o'.
    /// Each slice of a buffer has at least four bytes, by which a reader knows whose it is. Needed wherever a
    /// cycle may be missing.
    bool tagged = true;

    /// What follows the port in the configuration string.
    std::string text() const;
    /// '-' for a channel that isn't configured.
    char kindOf(int channelID) const;
    int partsOf(int channelID) const;
    /// The once channels, or all others, in ascending order.
    std::vector<std::int32_t> channelsOf(bool once) const;

    /// Up to a dozen channels of all kinds. With `unlimited` there may be a channel 0, which is never
    /// skipped.
    static StreamPlan random(std::mt19937& random, bool unlimited);
};

/// The bytes of a buffer follow from its channel and the number of its delivery, which is also their first
/// four. This is the slice of `byteSize` bytes at `offset`. Buffers have up to LARGEST_CONTENT bytes.
const std::uint32_t LARGEST_CONTENT = 1U << 16;
std::string contentOf(int channelID, std::uint32_t number, std::uint32_t offset, std::uint32_t byteSize);

#endif
