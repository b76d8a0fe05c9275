#include "ChannelTable.h"

namespace Lodestone
{

ChannelTable::ChannelTable(const ConfigStringParser::Config& config)
    : m_intermittentCount(config.intermittentCount)
{
    add(config.nonSplitChannels, ChannelKind::NON_SPLIT);
    add(config.splitChannels, ChannelKind::SPLIT);
    add(config.intermittentChannels, ChannelKind::INTERMITTENT);
    add(config.onceChannels, ChannelKind::ONCE);
    m_parts.resize(m_channels.size());
    m_sentCycles = std::make_unique<std::atomic<std::uint32_t>[]>(m_channels.size());
    buildSlots();
    reset();
}

void ChannelTable::add(const std::set<int>& channels, ChannelKind kind)
{
    for (const int channelID : channels) {
        Channel channel;
        channel.channelID = channelID;
        channel.kind = kind;
        m_channels.push_back(channel);
    }
}

void ChannelTable::buildSlots()
{
    unsigned bits = 1;
    while ((std::size_t{1} << bits) < 2 * m_channels.size()) {
        ++bits;
    }
    m_shift = 32 - bits;
    m_slots.resize(std::size_t{1} << bits);
    for (const Channel& channel : m_channels) {
        std::size_t slot = slotOf(channel.channelID);
        while (m_slots[slot].channelID >= 0) {
            slot = (slot + 1) & (m_slots.size() - 1);
        }
        m_slots[slot].channelID = channel.channelID;
        m_slots[slot].index = indexOf(channel);
    }
}

std::size_t ChannelTable::slotOf(std::int32_t channelID) const noexcept
{
    // Multiplicative hashing: ids in a row, as hosts number them, spread without a collision.
    return (static_cast<std::uint32_t>(channelID) * 2654435769U) >> m_shift;
}

Channel* ChannelTable::find(std::int32_t channelID) noexcept
{
    if (channelID < 0) {
        return nullptr;
    }
    std::size_t slot = slotOf(channelID);
    while (m_slots[slot].channelID != channelID) {
        if (m_slots[slot].channelID < 0) {
            return nullptr;
        }
        slot = (slot + 1) & (m_slots.size() - 1);
    }
    return &m_channels[m_slots[slot].index];
}

void ChannelTable::reset() noexcept
{
    for (std::size_t index = 0; index < m_channels.size(); ++index) {
        m_channels[index].queuedCycles = 0;
        m_parts[index] = PartsState{m_intermittentCount - 1, 0, 0};
        m_sentCycles[index].store(0, std::memory_order_relaxed);
    }
}

} // namespace Lodestone
