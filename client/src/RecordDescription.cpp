#include "RecordDescription.h"

#include "ReaderError.h"
#include "WireBytes.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <new>
#include <set>
#include <zlib.h>

namespace LodestoneTap
{

namespace
{

constexpr std::array<std::uint8_t, 8> PREAMBLE = {0xDA, 0xDE, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00};
constexpr std::size_t LENGTH_POSITION = 8;
constexpr std::size_t MARK_POSITION = 12;
constexpr std::uint8_t MARK = 0x02;
constexpr std::size_t STREAM_POSITION = 13;

constexpr std::uint8_t TAG_NAME = 0x64;
constexpr std::uint8_t TAG_DIMENSIONS = 0x65;
constexpr std::uint8_t TAG_OFFSET = 0x66;
constexpr std::uint8_t TAG_SIZE = 0x67;
constexpr std::uint8_t TAG_ROOT_EXTENT = 0x68;
constexpr std::uint8_t TAG_TYPE = 0x96;

constexpr std::uint32_t TYPE_SIGNED = 1;
constexpr std::uint32_t TYPE_UNSIGNED = 2;
constexpr std::uint32_t TYPE_FLOAT = 3;
constexpr std::uint32_t TYPE_STRUCTURE = 0xFE;
constexpr std::uint32_t TYPE_END = 0xFF;

constexpr std::uint32_t MAX_NAME = 255;
constexpr std::uint32_t MAX_DIMENSIONS = 8;
constexpr std::size_t MAX_DEPTH = 32; // the record itself is the first

std::string hex(std::uint32_t number)
{
    std::array<char, 16> buffer = {};
    std::snprintf(buffer.data(), buffer.size(), "0x%02X", number);
    return buffer.data();
}

/// The inflated text, exactly as long as the header says. `payload` begins with a complete header.
std::vector<std::uint8_t> inflateStream(const std::vector<std::uint8_t>& payload,
                                        std::size_t maxInflatedBytes)
{
    const std::uint32_t length = loadBigEndian32(&payload[LENGTH_POSITION]);
    if (length == 0 || length > maxInflatedBytes) {
        throw ReaderError("description of " + std::to_string(length) + " bytes, must be 1 to " +
                          std::to_string(maxInflatedBytes));
    }
    std::vector<std::uint8_t> inflated(length);
    uLongf inflatedSize = length;
    uLong consumed = static_cast<uLong>(payload.size() - STREAM_POSITION);
    // The source's own end lies before the end of the payload: what follows it is fill.
    const int result = uncompress2(inflated.data(), &inflatedSize, &payload[STREAM_POSITION], &consumed);
    if (result == Z_MEM_ERROR) {
        throw std::bad_alloc();
    }
    if (result == Z_BUF_ERROR && inflatedSize == length) {
        throw ReaderError("description doesn't end with the " + std::to_string(length) +
                          " bytes that it announces");
    }
    if (result != Z_OK) {
        throw ReaderError("description's zlib stream is damaged or cut short");
    }
    if (inflatedSize != length) {
        throw ReaderError("description has " + std::to_string(inflatedSize) + " bytes and announces " +
                          std::to_string(length));
    }
    return inflated;
}

/// Reads the items of an inflated description. Every error names the position in the inflated bytes. Depth is
/// bounded by MAX_DEPTH and the number of nodes by the length, for a node takes 26 bytes at least.
class ItemReader
{
public:
    explicit ItemReader(const std::vector<std::uint8_t>& bytes) : m_bytes(bytes) {}

    RecordField readRoot()
    {
        RecordField root = readNode(nullptr, 0);
        if (m_position != m_bytes.size()) {
            fail("bytes behind the end of the root structure");
        }
        return root;
    }

private:
    RecordField readNode(const RecordField* parent, std::size_t depth)
    {
        RecordField field;
        m_nodeStart = m_position;
        field.name = readName();
        field.extents = readExtents();
        field.offset = readItem(TAG_OFFSET, "offset");
        field.size = readItem(TAG_SIZE, "size");
        if (parent == nullptr) {
            readItem(TAG_ROOT_EXTENT, "root extent");
        }
        field.type = readType(field, parent == nullptr);
        checkPlace(field, parent);
        if (field.type == FieldType::STRUCTURE) {
            readChildren(field, depth + 1);
        }
        return field;
    }

    void readChildren(RecordField& structure, std::size_t depth)
    {
        if (depth > MAX_DEPTH) {
            fail("structures are nested deeper than " + std::to_string(MAX_DEPTH));
        }
        std::set<std::string> names;
        while (m_position < m_bytes.size() && m_bytes[m_position] != TAG_TYPE) {
            const std::size_t start = m_position;
            structure.children.push_back(readNode(&structure, depth));
            if (!names.insert(structure.children.back().name).second) {
                m_nodeStart = start;
                failInNode(structure.children.back(), "stands twice in its structure");
            }
        }
        if (readItem(TAG_TYPE, "name or end of structure") != TYPE_END) {
            fail("a type stands where a name or the end of a structure is due");
        }
    }

    std::string readName()
    {
        const std::uint32_t length = readItem(TAG_NAME, "name");
        if (length == 0 || length > MAX_NAME) {
            fail("name of " + std::to_string(length) + " bytes, must be 1 to " + std::to_string(MAX_NAME));
        }
        const std::uint8_t* const begin = take(length);
        std::string name(begin, begin + length);
        // Names become parts of paths and reach the terminal: nothing that either would take for more.
        const bool plain = std::all_of(name.begin(), name.end(), [](char c) {
            return c > ' ' && c <= '~' && c != '.' && c != '[' && c != ']';
        });
        if (!plain) {
            fail("name with a character that a name can't have");
        }
        return name;
    }

    std::vector<std::uint32_t> readExtents()
    {
        const std::uint32_t dimensions = readItem(TAG_DIMENSIONS, "dimensions");
        if (dimensions > MAX_DIMENSIONS) {
            fail(std::to_string(dimensions) + " dimensions, must be at most " +
                 std::to_string(MAX_DIMENSIONS));
        }
        std::vector<std::uint32_t> extents;
        for (std::uint32_t i = 0; i < dimensions; ++i) {
            extents.push_back(loadBigEndian32(take(4)));
        }
        return extents;
    }

    FieldType readType(const RecordField& field, bool isRoot)
    {
        const std::uint32_t code = readItem(TAG_TYPE, "type");
        if (isRoot && code != TYPE_STRUCTURE) {
            fail("the root is no structure");
        }
        const std::uint32_t size = field.size;
        const bool sizeOfInteger = size == 1 || size == 2 || size == 4 || size == 8;
        const bool sizeOfFloat = size == 4 || size == 8;
        if (code == TYPE_STRUCTURE && size > 0) {
            return FieldType::STRUCTURE;
        }
        if ((code == TYPE_SIGNED || code == TYPE_UNSIGNED) && sizeOfInteger) {
            return code == TYPE_SIGNED ? FieldType::SIGNED : FieldType::UNSIGNED;
        }
        if (code == TYPE_FLOAT && sizeOfFloat) {
            return FieldType::FLOAT;
        }
        failInNode(field, "has type " + hex(code) + " of " + std::to_string(size) + " bytes");
    }

    // Within the parent's element 0 and behind the field before it. All in 64 bits, and each product is
    // bounded before the next factor comes: the extents are any numbers.
    void checkPlace(const RecordField& field, const RecordField* parent) const
    {
        if (parent == nullptr) {
            if (field.offset != 0 || !field.extents.empty()) {
                failInNode(field, "is the root, but not a single structure at offset 0");
            }
            return;
        }
        const std::uint64_t parentEnd = std::uint64_t{parent->offset} + parent->size;
        const RecordField* const before = parent->children.empty() ? nullptr : &parent->children.back();
        const std::uint64_t lowest =
            before == nullptr ? parent->offset
                              : before->offset + std::uint64_t{before->size} * before->elementCount();
        if (field.offset < lowest) {
            failInNode(field, "overlaps the field before it, or lies before its structure");
        }
        std::uint64_t bytes = field.size;
        for (const std::uint32_t extent : field.extents) {
            bytes *= extent;
            if (extent == 0 || bytes > parent->size) {
                failInNode(field, "has dimensions that don't fit its structure");
            }
        }
        if (field.offset + bytes > parentEnd) {
            failInNode(field, "reaches beyond the end of its structure");
        }
    }

    /// The operand of the next item, which must have this tag.
    std::uint32_t readItem(std::uint8_t tag, const char* what)
    {
        const std::uint8_t* const item = take(5);
        if (item[0] != tag) {
            m_position -= 5;
            fail("tag " + hex(item[0]) + " where " + what + " (" + hex(tag) + ") is due");
        }
        return loadBigEndian32(item + 1);
    }

    const std::uint8_t* take(std::size_t size)
    {
        if (size > m_bytes.size() - m_position) {
            fail("the description ends in the middle of an item");
        }
        m_position += size;
        return m_bytes.data() + (m_position - size);
    }

    [[noreturn]] void fail(const std::string& reason) const
    {
        throw ReaderError("inflated description, byte " + std::to_string(m_position) + ": " + reason);
    }

    [[noreturn]] void failInNode(const RecordField& field, const std::string& reason) const
    {
        throw ReaderError("inflated description, byte " + std::to_string(m_nodeStart) + ": field " +
                          field.name + " " + reason);
    }

    const std::vector<std::uint8_t>& m_bytes;
    std::size_t m_position = 0;
    std::size_t m_nodeStart = 0; // of the node that was begun last
};

} // namespace

std::uint64_t RecordField::elementCount() const
{
    std::uint64_t count = 1;
    for (const std::uint32_t extent : extents) {
        count *= extent;
    }
    return count;
}

bool RecordDescription::isDescription(const std::vector<std::uint8_t>& payload)
{
    return payload.size() >= PREAMBLE.size() && std::equal(PREAMBLE.begin(), PREAMBLE.end(), payload.begin());
}

RecordDescription RecordDescription::decode(const std::vector<std::uint8_t>& payload,
                                            std::size_t maxInflatedBytes)
{
    if (!isDescription(payload) || payload.size() <= STREAM_POSITION) {
        throw ReaderError("description doesn't begin with a description's header");
    }
    if (payload[MARK_POSITION] != MARK) {
        throw ReaderError("description has the mark " + hex(payload[MARK_POSITION]) + ", must be " +
                          hex(MARK));
    }
    const std::vector<std::uint8_t> inflated = inflateStream(payload, maxInflatedBytes);
    RecordDescription description;
    description.m_root = ItemReader(inflated).readRoot();
    description.m_inflatedBytes = inflated.size();
    return description;
}

} // namespace LodestoneTap
