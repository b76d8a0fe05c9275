#include "LiteralQueue.h"

#include <algorithm>

namespace
{

bool holds(const LiteralQueue::Cycle& cycle, int channelID)
{
    return std::any_of(cycle.jobs.begin(), cycle.jobs.end(),
                       [=](const LiteralQueue::Job& job) { return job.channelID == channelID; });
}

bool allSplitted(const LiteralQueue::Cycle& cycle)
{
    return std::none_of(cycle.jobs.begin(), cycle.jobs.end(),
                        [](const LiteralQueue::Job& job) { return job.noParts == 1; });
}

} // namespace

bool LiteralQueue::deliver(const Frame& frame, int maxAppearance)
{
    std::list<Cycle> newList;
    const auto ensureListLength = [&](int size) {
        while (static_cast<int>(newList.size()) < size) {
            newList.emplace_back();
        }
    };
    bool skippedChannel = false;
    for (const auto& buffer : frame) {
        const int channelID = buffer.first;
        const bool whole = Lodestone::inSet(m_config.nonSplitChannels, channelID);
        const bool due = Lodestone::inSet(m_config.intermittentChannels, channelID) && isDue(channelID);
        if (!whole && !due && !Lodestone::inSet(m_config.splitChannels, channelID)) {
            continue;
        }
        if (!spaceLeft(channelID, maxAppearance, !whole)) {
            skippedChannel = true;
            ++m_numSkipped;
            continue;
        }
        const int parts = whole ? 1 : m_config.splitCount;
        ensureListLength(parts);
        auto cycle = newList.begin();
        for (int part = 0; part < parts; ++part, ++cycle) {
            cycle->jobs.push_back(Job{channelID, buffer.second, parts, part});
        }
    }
    merge(newList);
    return skippedChannel;
}

void LiteralQueue::merge(std::list<Cycle>& newList)
{
    auto target = m_cycles.begin();
    if (m_frontTaken) {
        ++target; // its jobs are on the wire already
    }
    while (target != m_cycles.end() && !allSplitted(*target)) {
        ++target;
    }
    for (Cycle& fresh : newList) {
        if (target == m_cycles.end()) {
            Cycle cycle;
            cycle.counter = m_cycleCounter++;
            cycle.numSkipped = m_numSkipped;
            target = m_cycles.insert(target, cycle);
        }
        target->jobs.splice(target->jobs.begin(), fresh.jobs);
        ++target;
    }
}

bool LiteralQueue::isDue(int channelID)
{
    const auto entry = m_intermittentMap.emplace(channelID, m_config.intermittentCount - 1).first;
    if (++entry->second < m_config.intermittentCount) {
        return false;
    }
    entry->second = 0;
    return true;
}

bool LiteralQueue::spaceLeft(int channelID, int maxAppearance, bool splitted) const
{
    if (channelID <= 0) {
        return true;
    }
    const auto noFound = std::count_if(m_cycles.begin(), m_cycles.end(),
                                       [=](const Cycle& cycle) { return holds(cycle, channelID); });
    return splitted ? noFound == 0 : noFound < maxAppearance;
}

LiteralQueue::Cycle LiteralQueue::take()
{
    Cycle cycle = m_cycles.front();
    if (m_config.queueLength < 0) {
        m_frontTaken = true;
    } else {
        m_cycles.pop_front();
    }
    return cycle;
}

void LiteralQueue::done()
{
    if (m_frontTaken) {
        m_cycles.pop_front();
        m_frontTaken = false;
    }
}

void LiteralQueue::reset()
{
    m_cycles.clear();
    m_intermittentMap.clear();
    m_frontTaken = false;
}
