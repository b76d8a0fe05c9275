#include "RandomHost.h"

#include <algorithm>
#include <utility>

namespace
{

const int UNCONFIGURED = 10001; // no plan has it

} // namespace

RandomHost::RandomHost(const StreamPlan& plan, unsigned seed, std::uint32_t largest)
    : m_plan(plan), m_largest(largest), m_random(seed)
{
    for (const auto& channel : plan.channels) {
        m_ids.push_back(channel.first);
    }
}

void RandomHost::begin()
{
    m_array.clear();
    m_bytes.clear();
    m_delivery.buffers.clear();
    ++m_delivery.number;
}

std::uint32_t RandomHost::randomSize(int channelID)
{
    const std::uint32_t largest = dice(40) == 0 ? m_largest * 20 : m_largest;
    const auto size = static_cast<std::uint32_t>(dice(static_cast<int>(largest) + 1));
    return std::min(std::max(size, m_plan.smallestSize(channelID)), LARGEST_CONTENT);
}

void RandomHost::add(int channelID)
{
    AlgoMeasBuffer buffer = {};
    buffer.channelID = channelID;
    buffer.sizeTotal = randomSize(channelID);
    m_array.push_back(buffer);
    const char kind = m_plan.kindOf(channelID);
    if (kind != '-' && kind != 'o') {
        m_delivery.buffers.push_back({channelID, buffer.sizeTotal});
    }
}

const OfferedDelivery& RandomHost::finish()
{
    std::size_t total = 0;
    for (const AlgoMeasBuffer& buffer : m_array) {
        total += buffer.sizeTotal;
    }
    m_bytes.resize(total);
    char* next = m_bytes.data();
    for (AlgoMeasBuffer& buffer : m_array) {
        fillContent(next, buffer.sizeTotal, buffer.channelID, m_delivery.number);
        buffer.buffer = next;
        next += buffer.sizeTotal;
    }
    m_delivery.firstChannel = m_array.empty() ? 0 : m_array[0].channelID;
    return m_delivery;
}

const OfferedDelivery& RandomHost::someChannels(std::size_t most)
{
    begin();
    const int sides = 1 + dice(4);
    std::shuffle(m_ids.begin(), m_ids.end(), m_random);
    for (const int channelID : m_ids) {
        if (m_delivery.buffers.size() < most && dice(sides) == 0) {
            add(channelID);
        }
    }
    if (dice(10) == 0) {
        add(UNCONFIGURED);
    }
    return finish();
}

const OfferedDelivery& RandomHost::allChannels()
{
    begin();
    for (const auto& channel : m_plan.channels) {
        if (channel.second != 'o') {
            add(channel.first);
        }
    }
    return finish();
}

const OfferedDelivery& RandomHost::onceChannels()
{
    begin();
    for (const auto& channel : m_plan.channels) {
        if (channel.second == 'o') {
            add(channel.first);
        }
    }
    return finish();
}
