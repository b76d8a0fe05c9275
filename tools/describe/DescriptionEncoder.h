#ifndef LODESTONE_TOOLS_DESCRIPTIONENCODER_H
#define LODESTONE_TOOLS_DESCRIPTIONENCODER_H

#include "RecordLayout.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Lodestone
{

/// Turns a layout into the bytes that travel on the channel behind the record's own. docs/protocol.md tells
/// both forms for the author of a reader.
///
/// The description is one node after the other, each a row of items: a tag byte, a 4-byte big-endian operand,
/// and for names and dimensions further bytes. A structure's nodes stand between it and a closing type item.
///
/// The array is a fixed preamble, the description's length, the description as a zlib stream (level 9), and
/// zeros.
class DescriptionEncoder
{
public:
    typedef std::vector<std::uint8_t> Bytes;

    /// `layout` is as LayoutParser accepts it; it isn't checked again. Throws std::bad_alloc.
    explicit DescriptionEncoder(const RecordLayout& layout);

    /// The description before compression.
    const Bytes& description() const { return m_description; }

    /// The array without its zeros.
    const Bytes& packed() const { return m_packed; }

    /// The array with zeros up to `arraySize` bytes; 0 means the next multiple of 64. Throws
    /// std::runtime_error if it has no room for the content.
    Bytes array(std::size_t arraySize) const;

private:
    void addNode(const LayoutNode& node, std::uint32_t base, const std::uint32_t* rootExtent);
    void addItem(std::uint8_t tag, std::uint32_t operand);
    void pack();

    Bytes m_description;
    Bytes m_packed;
};

} // namespace Lodestone

#endif
