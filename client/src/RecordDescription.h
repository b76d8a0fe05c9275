#ifndef LODESTONE_CLIENT_RECORDDESCRIPTION_H
#define LODESTONE_CLIENT_RECORDDESCRIPTION_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace LodestoneTap
{

enum class FieldType
{
    SIGNED,
    UNSIGNED,
    FLOAT, ///< IEEE 754, single or double by the field's size.
    STRUCTURE
};

/// One field of a described record, with the fields inside it.
struct RecordField
{
    std::string name;                   ///< Printable ASCII without blanks, dots and brackets.
    std::vector<std::uint32_t> extents; ///< Array dimensions, first one outermost; empty for a single value.
    std::uint32_t offset = 0;           ///< Bytes from the start of the record; in an array, of element 0.
    std::uint32_t size = 0;             ///< Bytes of one element, and so the stride of an array. Never 0.
    FieldType type = FieldType::STRUCTURE;
    std::vector<RecordField> children; ///< Of a structure, in rising order of their offsets.

    /// Number of elements over all dimensions; 1 for a single value.
    std::uint64_t elementCount() const;
};

/// The layout of a record as the stream describes it on the channel behind the record's own
/// (docs/protocol.md).
///
/// A decoded description can be relied on: all fields lie inside their structure, none overlaps another,
/// names are unique among neighbours, and a number's size is one that its type can have. So the values of a
/// record are never more than its bytes, whatever the description says.
class RecordDescription
{
public:
    static constexpr std::size_t DEFAULT_MAX_INFLATED = std::size_t{1} << 20;

    /// Whether the payload of a channel is meant as a description: it begins with the fixed preamble.
    static bool isDescription(const std::vector<std::uint8_t>& payload);

    /// Reads the payload of a description channel. Throws ReaderError; a description that says it inflates to
    /// more than `maxInflatedBytes` is refused before anything is inflated.
    static RecordDescription decode(const std::vector<std::uint8_t>& payload,
                                    std::size_t maxInflatedBytes = DEFAULT_MAX_INFLATED);

    /// The whole record: a structure at offset 0, its name that of the record.
    const RecordField& root() const { return m_root; }

    /// Length of the inflated description, a measure of what the decoded one takes.
    std::size_t inflatedBytes() const { return m_inflatedBytes; }

private:
    RecordField m_root;
    std::size_t m_inflatedBytes = 0;
};

} // namespace LodestoneTap

#endif
