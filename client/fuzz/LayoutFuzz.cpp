#include "DescriptionEncoder.h"
#include "DescriptionWriter.h"
#include "FuzzTarget.h"
#include "LayoutParser.h"
#include "ReaderError.h"
#include "RecordDescription.h"

#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

// Any text as the layout of a record: what the tool accepts and describes, the reader understands.

using Lodestone::DescriptionEncoder;
using Lodestone::LayoutNode;
using Lodestone::RecordLayout;
using LodestoneTap::RecordDescription;
using LodestoneTap::RecordField;

namespace
{

std::optional<RecordLayout> parse(const std::string& text)
{
    std::istringstream stream(text);
    try {
        return Lodestone::LayoutParser(stream, "layout").parse();
    } catch (const std::runtime_error& error) {
        fuzzCheck(std::string(error.what()).find('\n') == std::string::npos, "the reason is one line");
        return std::nullopt;
    }
}

bool isType(LodestoneTap::FieldType read, Lodestone::FieldType meant)
{
    switch (meant) {
    case Lodestone::FieldType::SIGNED_INTEGER:
        return read == LodestoneTap::FieldType::SIGNED;
    case Lodestone::FieldType::UNSIGNED_INTEGER:
        return read == LodestoneTap::FieldType::UNSIGNED;
    case Lodestone::FieldType::FLOATING_POINT:
        return read == LodestoneTap::FieldType::FLOAT;
    default:
        return read == LodestoneTap::FieldType::STRUCTURE;
    }
}

void compare(const LayoutNode& meant, std::uint32_t base, const RecordField& read)
{
    fuzzCheck(read.name == meant.name, "name " + meant.name);
    fuzzCheck(read.extents == meant.dimensions, "dimensions of " + meant.name);
    fuzzCheck(read.offset == base + meant.offset, "offset of " + meant.name);
    fuzzCheck(read.size == meant.size, "size of " + meant.name);
    fuzzCheck(isType(read.type, meant.type), "type of " + meant.name);
    fuzzCheck(read.children.size() == meant.fields.size(), "fields of " + meant.name);
    for (std::size_t i = 0; i < meant.fields.size(); ++i) {
        compare(meant.fields[i], read.offset, read.children[i]);
    }
}

void write(const RecordLayout& layout, const DescriptionEncoder& encoder,
           const DescriptionEncoder::Bytes& array)
{
    std::ostringstream out;
    writeDump(out, layout, encoder, array.size());
    writeHeader(out, "name", layout);
    Lodestone::writeSource(out, "name", "name.h", array);
    fuzzCheck(out.good(), "the texts are written");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::optional<RecordLayout> layout = parse(std::string(data, data + size));
    if (!layout) {
        return 0;
    }
    const DescriptionEncoder encoder(*layout);
    const DescriptionEncoder::Bytes array = encoder.array(0);
    try {
        compare(layout->root, 0, RecordDescription::decode(array).root());
    } catch (const LodestoneTap::ReaderError& error) {
        fuzzCheck(false, std::string("the reader refuses it: ") + error.what());
    }
    write(*layout, encoder, array);
    return 0;
}
