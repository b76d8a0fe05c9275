#ifndef LODESTONE_CLIENT_TEST_DESCRIPTIONBYTES_H
#define LODESTONE_CLIENT_TEST_DESCRIPTIONBYTES_H

#include "StreamBytes.h"

#include <string>
#include <vector>

namespace LodestoneTapTest
{

/// Writes a description the way the library does: items, big-endian, then deflated behind the fixed header.
class DescriptionBytes
{
public:
    DescriptionBytes& item(std::uint8_t tag, std::uint32_t operand);
    DescriptionBytes& node(const std::string& name, const std::vector<std::uint32_t>& extents,
                           std::uint32_t offset, std::uint32_t size, std::uint32_t type)
    {
        return begin(name, extents, offset, size).item(0x96, type);
    }
    DescriptionBytes& root(const std::string& name, std::uint32_t size)
    {
        return begin(name, {}, 0, size).item(0x68, 200).item(0x96, 0xFE);
    }
    DescriptionBytes& end() { return item(0x96, 0xFF); }

    const Bytes& inflated() const { return m_bytes; }

    /// The payload of the description channel.
    Bytes payload() const { return deflated(m_bytes, m_bytes.size()); }

    /// Any bytes behind the header of a description that announces `announced` bytes.
    static Bytes deflated(const Bytes& inflated, std::size_t announced);

private:
    DescriptionBytes& begin(const std::string& name, const std::vector<std::uint32_t>& extents,
                            std::uint32_t offset, std::uint32_t size);
    DescriptionBytes& big(std::uint32_t value);

    Bytes m_bytes;
};

constexpr std::uint32_t SIGNED = 1;
constexpr std::uint32_t UNSIGNED = 2;
constexpr std::uint32_t FLOAT = 3;
constexpr std::uint32_t STRUCTURE = 0xFE;

/// The description of the library's own record: 531 bytes.
DescriptionBytes diagnosticsDescription();

/// Its payload as the library sends it: filled up with zeros to 256 bytes.
Bytes diagnosticsDescriptionPayload();

/// A record of 208 bytes: queue length 3, 12 skipped, packages of channel 100 in slot 0 and 7 in slot 2.
Bytes diagnosticsRecord();

} // namespace LodestoneTapTest

#endif
