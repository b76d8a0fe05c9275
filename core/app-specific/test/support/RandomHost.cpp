#include "RandomHost.h"

#include <algorithm>
#include <utility>

const OfferedDelivery& RandomHost::someChannels(bool twice)
{
    std::vector<int> channels = {10001, -1}; // no plan has them
    for (const auto& channel : m_plan.channels) {
        channels.push_back(channel.first);
    }
    std::shuffle(channels.begin(), channels.end(), m_random);
    if (twice) {
        channels.push_back(channels[0]);
    }
    const auto leftOut = [this, sides = 1 + dice(4)](int) { return dice(sides) != 0; };
    channels.erase(std::remove_if(channels.begin(), channels.end(), leftOut), channels.end());
    if (channels.size() > 1 && channels[0] == 0) {
        std::swap(channels[0], channels[1]); // the record of a package 0 looks like that of none
    }
    return make(channels);
}

const OfferedDelivery& RandomHost::make(const std::vector<int>& channels)
{
    ++m_delivery.number;
    m_delivery.firstChannel = channels.empty() ? 0 : channels[0];
    m_delivery.buffers.clear();
    m_frame.clear();
    for (const int channelID : channels) {
        const char kind = m_plan.kindOf(channelID);
        const int smallest = m_plan.tagged || kind == 'o' ? 4 * m_plan.partsOf(channelID) : 0;
        const std::uint32_t largest = dice(40) == 0 ? m_largest * 20 : m_largest;
        const std::uint32_t byteSize =
            std::min(std::max(dice(largest + 1), static_cast<std::uint32_t>(smallest)), LARGEST_CONTENT);
        m_frame.emplace_back(channelID, contentOf(channelID, m_delivery.number, 0, byteSize));
        if (kind != '-' && kind != 'o') {
            m_delivery.buffers.push_back({channelID, byteSize});
        }
    }
    return m_delivery;
}
