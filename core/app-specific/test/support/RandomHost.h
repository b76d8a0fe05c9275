#ifndef LODESTONE_TEST_RANDOMHOST_H
#define LODESTONE_TEST_RANDOMHOST_H

#include "HostFrame.h"
#include "StreamOracle.h"
#include "StreamPlan.h"

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

    /// Some of the channels, once channels among them and perhaps one that isn't configured. No channel
    /// stands twice in the frame, unless that is wanted: then the host can tell their fate only if the sender
    /// stands still.
    const OfferedDelivery& someChannels(bool twice = false);
    /// All channels but the once channels.
    const OfferedDelivery& allChannels() { return make(m_plan.channelsOf(false)); }
    const OfferedDelivery& onceChannels() { return make(m_plan.channelsOf(true)); }

    /// What stands in the last delivery made.
    const Frame& frame() const { return m_frame; }
    std::uint32_t number() const { return m_delivery.number; }

private:
    unsigned dice(std::size_t sides) { return static_cast<unsigned>(m_random() % sides); }
    const OfferedDelivery& make(const std::vector<int>& channels);

    const StreamPlan m_plan;
    const std::uint32_t m_largest;
    std::mt19937 m_random;
    Frame m_frame;
    OfferedDelivery m_delivery;
};

#endif
