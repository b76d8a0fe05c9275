#ifndef LODESTONE_TEST_STREAMPLAN_H
#define LODESTONE_TEST_STREAMPLAN_H

#include <cstdint>
#include <map>
#include <random>
#include <string>

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
    char kindOf(int channelID) const;
    bool isSplit(int channelID) const { return kindOf(channelID) == 's' || kindOf(channelID) == 'i'; }
    int partsOf(int channelID) const { return isSplit(channelID) ? splitCount : 1; }
    bool hasOnce() const;
    std::uint32_t smallestSize(int channelID) const;

    /// Up to a dozen channels of all kinds. With `unlimited` there may be a channel 0, which is never
    /// skipped.
    static StreamPlan random(std::mt19937& random, bool unlimited);
};

/// The bytes of a buffer follow from its channel and the number of its delivery, which is also their first
/// four. Sizes of up to LARGEST_CONTENT.
const std::uint32_t LARGEST_CONTENT = 1U << 16;
void fillContent(char* bytes, std::uint32_t byteSize, int channelID, std::uint32_t number);
/// Whether `slice` is what stands at `offset` of the buffer.
bool isContent(const std::string& slice, std::uint32_t offset, int channelID, std::uint32_t number);
/// The number that a buffer of four bytes or more begins with; the largest one for fewer.
std::uint32_t numberIn(const std::string& bytes);

#endif
