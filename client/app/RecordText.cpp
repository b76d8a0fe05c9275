#include "RecordText.h"

#include "TextTable.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace LodestoneTap
{

namespace
{

constexpr std::size_t MAX_COLUMNS = 5;         // elements of an array of structures
constexpr std::uint64_t MAX_ELEMENTS = 8;      // of an array of numbers, on a line of its own
constexpr std::uint64_t MAX_CELL_ELEMENTS = 4; // of one that shares its line with others

constexpr std::size_t MAX_TEXT = 70; // characters of a text, likewise
constexpr std::size_t MAX_CELL_TEXT = 20;

// Of a record, each counted as often as it is shown: arrays nested in arrays could make a line of every byte.
constexpr std::size_t MAX_FIELDS = 10000;

typedef std::vector<std::uint64_t> Displacements; // of the structures that stand side by side

std::string valueText(const RecordValue& value)
{
    switch (value.type) {
    case FieldType::SIGNED:
        return std::to_string(value.asSigned);
    case FieldType::UNSIGNED:
        return std::to_string(value.asUnsigned);
    default:
        std::array<char, 40> buffer = {};
        std::snprintf(buffer.data(), buffer.size(), "%.6g", value.asFloat);
        return buffer.data();
    }
}

/// "diags[5]", "matrix[3][4]"
std::string declaration(const RecordField& field)
{
    std::string text = field.name;
    for (const std::uint32_t extent : field.extents) {
        text += "[" + std::to_string(extent) + "]";
    }
    return text;
}

/// "[2]", or "[1][0]" with two dimensions: where the element with this number stands.
std::string indexText(const RecordField& field, std::uint64_t element)
{
    std::string text;
    for (auto extent = field.extents.rbegin(); extent != field.extents.rend(); ++extent) {
        text.insert(0, "[" + std::to_string(element % *extent) + "]");
        element /= *extent;
    }
    return text;
}

/// Lays a record out. A field is a row, and a row has one cell for each of the structures that stand side by
/// side:
///
///     diags[5]                   [0]        [2]
///       firstChannelID           100          7
///       profiling
///         runtimeMsecs         0.125      0.125
///
/// Side by side stands the outermost array of structures only; arrays within it are taken apart row by row.
class RecordLayout
{
public:
    explicit RecordLayout(const RecordView& record)
        : m_record(record), m_table("l" + std::string(MAX_COLUMNS, 'r') + "l")
    {}

    std::vector<std::string> lines()
    {
        addFields(m_record.root(), 0, {0});
        if (m_fields > MAX_FIELDS) {
            m_table.add({"  the rest is left out"});
        }
        return m_table.lines();
    }

private:
    void addFields(const RecordField& structure, std::size_t depth, const Displacements& columns)
    {
        for (const RecordField& field : structure.children) {
            if (m_fields > MAX_FIELDS || ++m_fields > MAX_FIELDS) {
                return;
            }
            if (field.type != FieldType::STRUCTURE) {
                addNumbers(field, depth, columns);
            } else if (field.extents.empty()) {
                m_table.add({indented(field.name, depth)});
                addFields(field, depth + 1, columns);
            } else if (columns.size() == 1) {
                addSideBySide(field, depth, columns[0]);
            } else {
                addOneByOne(field, depth, columns);
            }
        }
    }

    void addNumbers(const RecordField& field, std::size_t depth, const Displacements& columns)
    {
        const std::string name = indented(declaration(field), depth);
        if (!field.extents.empty() && columns.size() == 1) {
            m_table.addText(name, arrayText(field, columns[0], MAX_ELEMENTS, MAX_TEXT));
            return;
        }
        std::vector<std::string> row = {name};
        for (const std::uint64_t displacement : columns) {
            row.push_back(arrayText(field, displacement, MAX_CELL_ELEMENTS, MAX_CELL_TEXT));
        }
        m_table.add(row);
    }

    /// "1 2 3 4 +12": so many more are there. An array of bytes that holds a terminated text is shown as
    /// that.
    std::string arrayText(const RecordField& field, std::uint64_t displacement, std::uint64_t mostElements,
                          std::size_t mostText) const
    {
        const std::string content = byteText(field, displacement);
        if (!content.empty()) {
            return content.size() <= mostText ? content : content.substr(0, mostText - 3) + "...";
        }
        const std::uint64_t count = field.elementCount();
        std::string text;
        for (std::uint64_t i = 0; i < std::min(count, mostElements); ++i) {
            text += (i == 0 ? "" : " ") + valueText(m_record.valueAt(field, displacement + i * field.size));
        }
        return count <= mostElements ? text : text + " +" + std::to_string(count - mostElements);
    }

    /// The text in an array of bytes, if it is one: printable ASCII, then nothing but zeros. Descriptions
    /// have no type for characters, so their content has to tell.
    std::string byteText(const RecordField& field, std::uint64_t displacement) const
    {
        std::string text;
        if (field.extents.size() != 1 || field.size != 1) {
            return text;
        }
        bool terminated = false;
        for (std::uint64_t i = 0; i < field.elementCount(); ++i) {
            const std::uint64_t byte = m_record.valueAt(field, displacement + i).asUnsigned;
            const bool printable = byte >= ' ' && byte <= '~';
            if (byte != 0 && (terminated || !printable)) {
                return "";
            }
            terminated = terminated || byte == 0;
            if (!terminated) {
                text += static_cast<char>(byte);
            }
        }
        return terminated ? text : "";
    }

    void addSideBySide(const RecordField& field, std::size_t depth, std::uint64_t displacement)
    {
        std::vector<std::string> header = {indented(declaration(field), depth)};
        Displacements columns;
        std::uint64_t zero = 0;
        const std::uint64_t count = field.elementCount();
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint64_t element = displacement + i * field.size;
            if (m_record.isZero(field, element)) {
                ++zero;
            } else if (columns.size() < MAX_COLUMNS) {
                columns.push_back(element);
                header.push_back(indexText(field, i));
            }
        }
        if (columns.empty()) {
            header.push_back("all zero");
        } else if (count - zero > columns.size()) {
            header.resize(MAX_COLUMNS + 1);
            header.push_back(std::to_string(count - zero - columns.size()) + " more");
        }
        m_table.add(header);
        if (!columns.empty()) {
            addFields(field, depth + 1, columns);
        }
    }

    // Within columns there is no room for more columns: the elements come one below the other.
    void addOneByOne(const RecordField& field, std::size_t depth, const Displacements& columns)
    {
        const std::uint64_t count = field.elementCount();
        for (std::uint64_t i = 0; i < std::min(count, MAX_CELL_ELEMENTS); ++i) {
            Displacements elements = columns;
            for (std::uint64_t& displacement : elements) {
                displacement += i * field.size;
            }
            m_table.add({indented(field.name + indexText(field, i), depth)});
            addFields(field, depth + 1, elements);
        }
        if (count > MAX_CELL_ELEMENTS) {
            m_table.add(
                {indented(field.name + ": " + std::to_string(count - MAX_CELL_ELEMENTS) + " more", depth)});
        }
    }

    static std::string indented(const std::string& text, std::size_t depth)
    {
        return std::string(2 * depth + 2, ' ') + text;
    }

    const RecordView& m_record;
    TextTable m_table;
    std::size_t m_fields = 0;
};

} // namespace

std::vector<std::string> recordText(const RecordView& record)
{
    return RecordLayout(record).lines();
}

} // namespace LodestoneTap
