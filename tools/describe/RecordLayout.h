#ifndef LODESTONE_TOOLS_RECORDLAYOUT_H
#define LODESTONE_TOOLS_RECORDLAYOUT_H

#include <cstdint>
#include <string>
#include <vector>

namespace Lodestone
{

/// The codes are those of the description's type item.
enum class FieldType : std::uint32_t
{
    SIGNED_INTEGER = 0x01,
    UNSIGNED_INTEGER = 0x02,
    FLOATING_POINT = 0x03,
    STRUCTURE = 0xFE
};

/// A field of a record: a scalar, a structure, or an array of either.
struct LayoutNode
{
    std::string name;
    std::vector<std::uint32_t> dimensions; ///< Extents, outermost first; empty for a single element.
    std::uint32_t offset = 0; ///< Bytes from the start of the enclosing structure, as offsetof tells.
    std::uint32_t size = 0;   ///< Bytes of one element.
    FieldType type = FieldType::STRUCTURE;
    std::vector<LayoutNode> fields; ///< Of a structure, in ascending order of their offsets.

    /// Bytes of all elements together.
    std::uint64_t byteSize() const
    {
        std::uint64_t total = size;
        for (const std::uint32_t extent : dimensions) {
            total *= extent;
        }
        return total;
    }
};

/// A whole record. The root is a single structure at offset 0.
struct RecordLayout
{
    LayoutNode root;
    std::uint32_t rootExtent =
        0; ///< Carried for the reader, who has no use for it; nothing is derived from it.
};

} // namespace Lodestone

#endif
