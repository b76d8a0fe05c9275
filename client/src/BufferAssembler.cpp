#include "BufferAssembler.h"

#include "ReaderError.h"

#include <algorithm>
#include <string>

namespace LodestoneTap
{

namespace
{

// What a buffer under way costs beside its bytes; without it empty buffers would be free.
constexpr std::uint64_t ASSEMBLY_OVERHEAD = 256;

void checkSameBuffer(const char* field, std::int32_t now, std::int32_t before, std::int32_t part)
{
    if (now != before) {
        throw ReaderError(std::string(field) + " is " + std::to_string(now) + " in part " +
                          std::to_string(part) + " and was " + std::to_string(before) + " in part 0");
    }
}

} // namespace

BufferAssembler::Result BufferAssembler::add(const Cycle& cycle, ChannelEntry& entry, Payload& buffer)
{
    const Lodestone::IOT_ChannelHeader& header = entry.header;
    if (header.numberOfParts == 1) {
        buffer = std::move(entry.payload);
        return Result::COMPLETE;
    }
    const Key key(header.channelID, cycle.cycleCounter - static_cast<std::uint32_t>(header.partNumber));
    const Assemblies::iterator found =
        header.partNumber == 0 ? begin(key, entry) : find(key, header.partNumber);
    if (found == m_assemblies.end()) {
        return Result::ORPHAN;
    }
    Assembly& assembly = found->second;
    checkSameBuffer("totalSize", header.totalSize, assembly.totalSize, header.partNumber);
    checkSameBuffer("numberOfParts", header.numberOfParts, assembly.numberOfParts, header.partNumber);
    // In rising order and each of the size that the slicing rule gives: appending puts every part in its
    // place.
    const std::vector<std::uint8_t>& part = entry.payload.bytes;
    const std::int32_t finalSize = std::max(assembly.totalSize, 0);
    assembly.payload.append(part.data(), part.size(), static_cast<std::size_t>(finalSize));
    ++assembly.nextPart;
    if (assembly.nextPart < assembly.numberOfParts) {
        return Result::PARTIAL;
    }
    buffer = std::move(assembly.payload);
    m_assemblies.erase(found);
    return Result::COMPLETE;
}

std::vector<std::int32_t> BufferAssembler::cycleEnd(const Cycle& cycle)
{
    std::vector<std::int32_t> lost;
    for (Assemblies::iterator it = m_assemblies.begin(); it != m_assemblies.end();) {
        // One part a cycle from the first one on; modulo 2^32, as the counter.
        const std::uint32_t partsDue = cycle.cycleCounter - it->first.second + 1;
        if (static_cast<std::uint32_t>(it->second.nextPart) == partsDue) {
            ++it;
        } else {
            lost.push_back(it->first.first);
            it = m_assemblies.erase(it);
        }
    }
    return lost;
}

BufferAssembler::Assemblies::iterator BufferAssembler::begin(const Key& key, const ChannelEntry& entry)
{
    Assembly assembly;
    assembly.totalSize = entry.header.totalSize;
    assembly.numberOfParts = entry.header.numberOfParts;
    const std::uint32_t bytes = static_cast<std::uint32_t>(std::max(assembly.totalSize, 0));
    assembly.payload.claim = MemoryClaim(m_budget, bytes + ASSEMBLY_OVERHEAD);
    return m_assemblies.emplace(key, std::move(assembly));
}

// Of several buffers that began together, the first one that has no part in this cycle yet.
BufferAssembler::Assemblies::iterator BufferAssembler::find(const Key& key, std::int32_t partNumber)
{
    const auto range = m_assemblies.equal_range(key);
    const auto found =
        std::find_if(range.first, range.second, [partNumber](const Assemblies::value_type& item) {
            return item.second.nextPart == partNumber;
        });
    return found == range.second ? m_assemblies.end() : found;
}

} // namespace LodestoneTap
