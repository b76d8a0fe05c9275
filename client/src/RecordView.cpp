#include "RecordView.h"

#include "WireBytes.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace LodestoneTap
{

namespace
{

/// Hands out a path step by step: names first, then their indexes.
class PathReader
{
public:
    explicit PathReader(const std::string& path) : m_path(path) {}

    bool atEnd() const { return m_position == m_path.size(); }

    std::string name()
    {
        const std::size_t end = std::min(m_path.find_first_of(".[", m_position), m_path.size());
        std::string name = m_path.substr(m_position, end - m_position);
        m_position = end;
        return name;
    }

    bool atIndex() const { return !atEnd() && m_path[m_position] == '['; }

    std::uint32_t index()
    {
        const char* const begin = m_path.data() + m_position + 1;
        std::uint32_t index = 0;
        const std::from_chars_result result = std::from_chars(begin, m_path.data() + m_path.size(), index);
        if (result.ec != std::errc() || *result.ptr != ']') { // a string's data ends with a 0
            throw ReaderError(m_path + " has a bad index");
        }
        m_position = static_cast<std::size_t>(result.ptr - m_path.data()) + 1;
        return index;
    }

    /// Behind a name and its indexes stands a dot and another name, or nothing.
    void separator()
    {
        if (!atEnd() && (m_path[m_position] != '.' || ++m_position == m_path.size())) {
            throw ReaderError(m_path + " isn't a path of names and indexes");
        }
    }

private:
    const std::string& m_path;
    std::size_t m_position = 0;
};

const RecordField& childOf(const RecordField& structure, const std::string& name, const std::string& path)
{
    const auto found = std::find_if(structure.children.begin(), structure.children.end(),
                                    [&name](const RecordField& child) { return child.name == name; });
    if (found == structure.children.end()) {
        throw ReaderError(path + ": " + structure.name + " has no field '" + name + "'");
    }
    return *found;
}

/// The integer of `size` bytes, 1, 2, 4 or 8, whose bits are the low ones of `bits`.
std::int64_t signExtended(std::uint64_t bits, std::uint32_t size)
{
    switch (size) {
    case 1:
        return static_cast<std::int8_t>(bits);
    case 2:
        return static_cast<std::int16_t>(bits);
    case 4:
        return static_cast<std::int32_t>(bits);
    default:
        return static_cast<std::int64_t>(bits);
    }
}

double loadFloat(const std::uint8_t* bytes, std::uint32_t size)
{
    const std::uint64_t bits = loadLittleEndian(bytes, size);
    if (size == sizeof(double)) {
        double number = 0.0;
        std::memcpy(&number, &bits, sizeof number);
        return number;
    }
    const std::uint32_t bits32 = static_cast<std::uint32_t>(bits);
    float number = 0.0F;
    std::memcpy(&number, &bits32, sizeof number);
    return static_cast<double>(number);
}

} // namespace

RecordView::RecordView(const RecordDescription& description, const std::vector<std::uint8_t>& record)
    : m_root(description.root()), m_record(record)
{
    if (record.size() != m_root.size) {
        throw ReaderError("record of " + std::to_string(record.size()) + " bytes, " + m_root.name + " has " +
                          std::to_string(m_root.size));
    }
}

RecordValue RecordView::valueAt(const RecordField& field, std::uint64_t displacement) const
{
    const std::uint8_t* const bytes = m_record.data() + field.offset + displacement;
    RecordValue value;
    value.type = field.type;
    value.size = field.size;
    if (field.type == FieldType::FLOAT) {
        value.asFloat = loadFloat(bytes, field.size);
        return value;
    }
    value.asUnsigned = loadLittleEndian(bytes, field.size);
    value.asSigned = signExtended(value.asUnsigned, field.size);
    return value;
}

bool RecordView::isZero(const RecordField& field, std::uint64_t displacement) const
{
    const std::uint8_t* const begin = m_record.data() + field.offset + displacement;
    return std::all_of(begin, begin + field.size, [](std::uint8_t byte) { return byte == 0; });
}

RecordView::Target RecordView::resolve(const std::string& path) const
{
    PathReader reader(path);
    Target target = {&m_root, 0, 1, true};
    do {
        if (!target.single) {
            throw ReaderError(path + ": " + target.field->name + " is an array, an index is missing");
        }
        const RecordField& field = childOf(*target.field, reader.name(), path);
        target = {&field, target.displacement, field.elementCount(), field.extents.empty()};
        std::size_t dimension = 0;
        for (; reader.atIndex(); ++dimension) {
            const std::uint32_t index = reader.index();
            if (dimension == field.extents.size() || index >= field.extents[dimension]) {
                throw ReaderError(path + ": index " + std::to_string(index) + " is outside " + field.name);
            }
            target.count /= field.extents[dimension];
            target.displacement += index * target.count * field.size;
        }
        target.single = dimension == field.extents.size();
        reader.separator();
    } while (!reader.atEnd());
    if (target.field->type == FieldType::STRUCTURE) {
        throw ReaderError(path + " is a structure");
    }
    return target;
}

std::vector<RecordValue> RecordView::values(const std::string& path) const
{
    const Target target = resolve(path);
    std::vector<RecordValue> found;
    for (std::uint64_t i = 0; i < target.count; ++i) {
        found.push_back(valueAt(*target.field, target.displacement + i * target.field->size));
    }
    return found;
}

RecordValue RecordView::value(const std::string& path) const
{
    const Target target = resolve(path);
    if (!target.single) {
        throw ReaderError(path + " is an array, an index is missing");
    }
    return valueAt(*target.field, target.displacement);
}

} // namespace LodestoneTap
