#ifndef LODESTONE_CLIENT_BUFFERASSEMBLER_H
#define LODESTONE_CLIENT_BUFFERASSEMBLER_H

#include "StreamEvents.h"

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace LodestoneTap
{

/// Puts buffers together from their parts.
///
/// Part k of a buffer stands in the k-th cycle behind that of its part 0, so a part belongs to the buffer
/// that began `partNumber` cycles ago. That tells apart several buffers of one channel under way at once, and
/// it shows a loss at the end of the very cycle in which the part is missing. Buffers of one channel that
/// began in the same cycle keep their order in all later cycles.
///
/// A client that takes over from another one begins in mid-stream: parts whose part 0 it never saw are
/// dropped.
class BufferAssembler
{
public:
    enum class Result
    {
        COMPLETE, ///< The buffer is whole and handed out.
        PARTIAL,  ///< Kept until its other parts are there.
        ORPHAN    ///< Belongs to no buffer that is under way; dropped.
    };

    /// `budget` is borrowed for the whole life; a buffer is claimed in full with its part 0.
    explicit BufferAssembler(MemoryBudget& budget) : m_budget(budget) {}

    /// Takes over the entry's payload, and sets `buffer` if the result is COMPLETE. A whole buffer passes
    /// through without a copy. Throws ReaderError if the part contradicts the buffer's first one, or over the
    /// budget.
    Result add(const Cycle& cycle, ChannelEntry& entry, Payload& buffer);

    /// Drops the buffers that got no part in this cycle and gives their channels, one entry a buffer.
    std::vector<std::int32_t> cycleEnd(const Cycle& cycle);

private:
    struct Assembly
    {
        Payload payload;
        std::int32_t totalSize = 0;
        std::int32_t numberOfParts = 0;
        std::int32_t nextPart = 0;
    };
    typedef std::pair<std::int32_t, std::uint32_t> Key; // channelID, cycle of part 0
    typedef std::multimap<Key, Assembly> Assemblies;    // equal keys stay in the order of their part 0

    Assemblies::iterator begin(const Key& key, const ChannelEntry& entry);
    Assemblies::iterator find(const Key& key, std::int32_t partNumber);

    MemoryBudget& m_budget;
    Assemblies m_assemblies;
};

} // namespace LodestoneTap

#endif
