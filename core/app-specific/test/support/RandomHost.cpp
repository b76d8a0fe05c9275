#include "RandomHost.h"

#include <algorithm>

void RandomHost::begin()
{
    m_array.clear();
    m_delivery.buffers.clear();
    ++m_delivery.number;
}

void RandomHost::add(int channelID)
{
    const std::uint32_t largest = dice(40) == 0 ? m_largest * 20 : m_largest;
    const auto size = static_cast<std::uint32_t>(dice(static_cast<int>(largest) + 1));
    AlgoMeasBuffer buffer = {};
    buffer.channelID = channelID;
    buffer.sizeTotal = std::min(std::max(size, m_plan.smallestSize(channelID)), LARGEST_CONTENT);
    m_array.push_back(buffer);
    const char kind = m_plan.kindOf(channelID);
    if (kind != '-' && kind != 'o') {
        m_delivery.buffers.push_back({channelID, buffer.sizeTotal});
    }
}

const OfferedDelivery& RandomHost::finish()
{
    m_bytes.resize(std::max(m_bytes.size(), m_array.size() * LARGEST_CONTENT));
    char* next = m_bytes.data();
    for (AlgoMeasBuffer& buffer : m_array) {
        fillContent(next, buffer.sizeTotal, buffer.channelID, m_delivery.number);
        buffer.buffer = next;
        next += buffer.sizeTotal;
    }
    m_delivery.firstChannel = m_array.empty() ? 0 : m_array[0].channelID;
    return m_delivery;
}

const OfferedDelivery& RandomHost::someChannels(std::size_t most, bool twice)
{
    begin();
    std::vector<int> ids = {10001}; // no plan has it
    for (const auto& channel : m_plan.channels) {
        ids.push_back(channel.first);
    }
    const int sides = 1 + dice(4);
    std::shuffle(ids.begin(), ids.end(), m_random);
    if (twice) {
        ids.push_back(ids[0]);
    }
    for (const int channelID : ids) {
        if (m_delivery.buffers.size() < most && dice(sides) == 0) {
            add(channelID);
        }
    }
    return finish();
}

const OfferedDelivery& RandomHost::all(bool once)
{
    begin();
    for (const auto& channel : m_plan.channels) {
        if ((channel.second == 'o') == once) {
            add(channel.first);
        }
    }
    return finish();
}
