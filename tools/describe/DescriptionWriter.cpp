#include "DescriptionWriter.h"

#include <iomanip>
#include <string>

namespace Lodestone
{

namespace
{

const std::size_t BYTES_PER_LINE = 16;

std::string dimensionText(const LayoutNode& node)
{
    std::string text;
    for (const std::uint32_t extent : node.dimensions) {
        text += "[" + std::to_string(extent) + "]";
    }
    return text;
}

std::string typeText(const LayoutNode& node)
{
    const std::string bits = std::to_string(node.size * 8U);
    switch (node.type) {
    case FieldType::SIGNED_INTEGER:
        return "int" + bits;
    case FieldType::UNSIGNED_INTEGER:
        return "uint" + bits;
    case FieldType::FLOATING_POINT:
        return "float" + bits;
    case FieldType::STRUCTURE:
        break;
    }
    return "struct";
}

const char* typeCondition(FieldType type)
{
    switch (type) {
    case FieldType::SIGNED_INTEGER:
        return "std::is_integral<T>::value && std::is_signed<T>::value";
    case FieldType::UNSIGNED_INTEGER:
        return "std::is_integral<T>::value && std::is_unsigned<T>::value";
    case FieldType::FLOATING_POINT:
        return "std::is_floating_point<T>::value";
    case FieldType::STRUCTURE:
        break;
    }
    return "std::is_class<T>::value";
}

/// `prefix` leads to the fields of `parent`, for example "diags[0].profiling.".
void writeChecks(std::ostream& out, const LayoutNode& parent, std::uint32_t base, const std::string& prefix)
{
    for (const LayoutNode& field : parent.fields) {
        const std::string path = prefix + field.name;
        const std::uint32_t offset = base + field.offset;
        std::string element = path;
        for (std::size_t i = 0; i < field.dimensions.size(); ++i) {
            element += "[0]";
        }
        out << "    static_assert(offsetof(Record, " << path << ") == " << offset << ", \"offset of " << path
            << "\");\n    static_assert(sizeof(static_cast<Record*>(nullptr)->" << path
            << ") == " << field.byteSize() << ", \"size of " << path << "\");\n    {\n        using T = "
            << "std::remove_reference_t<decltype((static_cast<Record*>(nullptr)->" << element
            << "))>;\n        static_assert(sizeof(T) == " << field.size << " && "
            << typeCondition(field.type) << ", \"type of " << path << "\");\n    }\n";
        writeChecks(out, field, offset, element + ".");
    }
}

void dumpNode(std::ostream& out, const LayoutNode& node, std::uint32_t base, int depth)
{
    const std::uint32_t offset = base + node.offset;
    const std::string label =
        std::string(static_cast<std::size_t>(depth) * 2, ' ') + node.name + dimensionText(node);
    out << std::setw(8) << std::right << offset << std::setw(10) << node.byteSize() << "  " << std::setw(8)
        << std::left << typeText(node) << label << '\n';
    for (const LayoutNode& field : node.fields) {
        dumpNode(out, field, offset, depth + 1);
    }
}

} // namespace

void writeSource(std::ostream& out, const std::string& name, const std::string& header,
                 const DescriptionEncoder::Bytes& array)
{
    const std::string arrayName = "g_desc_" + name;
    const std::string sizeName = "g_size_" + name;
    out << "/* Written by: lodestone-describe LAYOUT --source " << name << " --include " << header
        << " --size " << array.size()
        << "\n   Don't edit: change the layout and run it again. */\n#include \"" << header
        << "\"\n\nvoid sondeGet_" << name
        << "(const void** dataDescriptionBuffer, sonde_size_t* bufferSize)\n{\n"
        << "    /* clang-format off */\n    static const sonde_uint8_t " << arrayName << "[" << array.size()
        << "] = {";
    out << std::hex << std::uppercase << std::setfill('0');
    for (std::size_t i = 0; i < array.size(); ++i) {
        out << (i % BYTES_PER_LINE == 0 ? "\n        " : " ") << "0x" << std::setw(2)
            << static_cast<unsigned>(array[i]) << (i + 1 < array.size() ? "," : "");
    }
    out << std::dec << std::nouppercase << std::setfill(' ');
    out << "\n    };\n    /* clang-format on */\n    static const sonde_size_t " << sizeName << " = "
        << array.size() << ";\n    *dataDescriptionBuffer = " << arrayName
        << ";\n    *bufferSize = " << sizeName << ";\n}\n";
}

void writeHeader(std::ostream& out, const std::string& name, const RecordLayout& layout)
{
    const std::string guard = "SONDE_DESCRIPTION_" + name + "_H";
    out << "/* Written by lodestone-describe; don't edit. */\n#ifndef " << guard << "\n#define " << guard
        << "\n\n#include <stddef.h>\n#include <stdint.h>\n\ntypedef uint8_t sonde_uint8_t;\n"
        << "typedef uint32_t sonde_size_t;\n\n/* The description of the record " << layout.root.name
        << ": a constant array and its size in bytes. */\nvoid sondeGet_" << name
        << "(const void** dataDescriptionBuffer, sonde_size_t* bufferSize);\n\n#ifdef __cplusplus\n"
        << "#include <type_traits>\n\n/* True if Record lies in memory as described; else it doesn't "
           "compile. */\n"
        << "template<typename Record>\nconstexpr bool describes_" << name
        << "()\n{\n    static_assert(sizeof(Record) == " << layout.root.size
        << ", \"size of the record\");\n";
    writeChecks(out, layout.root, 0, "");
    out << "    return true;\n}\n#endif\n\n#endif\n";
}

void writeDump(std::ostream& out, const RecordLayout& layout, const DescriptionEncoder& encoder,
               std::size_t arraySize)
{
    out << "  offset     bytes  type    name\n";
    dumpNode(out, layout.root, 0, 0);
    out << "root extent " << layout.rootExtent << "; description " << encoder.description().size()
        << " bytes, packed " << encoder.packed().size() << ", array " << arraySize << "\n";
}

} // namespace Lodestone
