#ifndef LODESTONE_TEST_RANDOMHOST_H
#define LODESTONE_TEST_RANDOMHOST_H

#include "ALStructs_extif.h"
#include "StreamOracle.h"
#include "StreamPlan.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

/// Makes a host's frames at random: which channels, in which order, of which sizes. Deliveries are numbered
/// from 1.
class RandomHost
{
public:
    /// No buffer is larger than `largest` bytes, apart from one in forty and what the plan asks for at least.
    RandomHost(const StreamPlan& plan, unsigned seed, std::uint32_t largest = 300)
        : m_plan(plan), m_largest(largest), m_random(seed)
    {}

    /// Some of the channels, once channels among them and perhaps one that isn't configured; at most `most`
    /// buffers that count. No channel stands twice in the frame, unless that is wanted: then the host can
    /// tell their fate only if the sender stands still.
    const OfferedDelivery& someChannels(std::size_t most, bool twice = false);
    /// All channels but the once channels, in ascending order.
    const OfferedDelivery& allChannels() { return all(false); }
    /// All once channels.
    const OfferedDelivery& onceChannels() { return all(true); }

    /// The host's array for the last delivery made; its bytes live until the next one is.
    std::vector<AlgoMeasBuffer>& array() { return m_array; }
    std::uint32_t number() const { return m_delivery.number; }

private:
    int dice(int sides) { return static_cast<int>(m_random() % static_cast<unsigned>(sides)); }
    const OfferedDelivery& all(bool once);
    void begin();
    void add(int channelID);
    const OfferedDelivery& finish();

    const StreamPlan m_plan;
    const std::uint32_t m_largest;
    std::mt19937 m_random;
    std::vector<AlgoMeasBuffer> m_array;
    std::vector<char> m_bytes;
    OfferedDelivery m_delivery;
};

#endif
