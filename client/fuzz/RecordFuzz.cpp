#include "FuzzTarget.h"
#include "JsonCheck.h"
#include "JsonPicture.h"
#include "RecordText.h"
#include "RecordView.h"
#include "support/DescriptionBytes.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>
#include <set>
#include <string>

// Any bytes as a description, and any as the record that it describes. The first byte's low bit says whether
// the description is the payload as it comes or the items inside it, the next two its length; the record is
// the rest, brought to the size that the description asks for.

using namespace LodestoneTap;
using LodestoneTapTest::Bytes;

namespace
{

constexpr std::size_t INFLATED_LIMIT = 64U << 10;
constexpr std::uint32_t RECORD_LIMIT = 512; // of those that are looked into: nested arrays make long texts

/// The number of `size` bytes at `bytes`, least significant first.
std::uint64_t plainNumber(const std::uint8_t* bytes, std::uint32_t size)
{
    std::uint64_t number = 0;
    for (std::uint32_t i = 0; i < size; ++i) {
        number |= std::uint64_t{bytes[i]} << (8 * i);
    }
    return number;
}

template<typename Float, typename Bits>
bool isFloatOf(double value, Bits bits)
{
    Float number = 0;
    static_assert(sizeof number == sizeof bits, "the same bytes");
    std::memcpy(&number, &bits, sizeof bits);
    return value == static_cast<double>(number) || (std::isnan(value) && std::isnan(number));
}

/// Looks at every field by what a description promises, and reads the last element of each by its path.
class RecordWalk
{
public:
    RecordWalk(const RecordView& view, const Bytes& record) : m_view(view), m_record(record) {}

    void walk() const { walkStructure(m_view.root(), "", 0, 1); }

private:
    void walkStructure(const RecordField& structure, const std::string& prefix, std::uint64_t displacement,
                       std::size_t depth) const
    {
        fuzzCheck(depth <= 32, "depth");
        std::set<std::string> names;
        std::uint64_t free = structure.offset;
        for (const RecordField& field : structure.children) {
            const std::uint64_t count = field.elementCount();
            fuzzCheck(field.size > 0 && count > 0, "no field is empty");
            fuzzCheck(field.offset >= free, "fields don't overlap");
            fuzzCheck(names.insert(field.name).second, "names are unique");
            free = field.offset + count * field.size;
            fuzzCheck(free <= std::uint64_t{structure.offset} + structure.size,
                      "fields lie in their structure");
            walkField(field, prefix + lastOf(field), displacement + (count - 1) * field.size, depth);
        }
    }

    void walkField(const RecordField& field, const std::string& path, std::uint64_t displacement,
                   std::size_t depth) const
    {
        const std::string array = path.substr(0, path.size() - (lastOf(field).size() - field.name.size()));
        checkRefusals(field, path, array);
        if (field.type == FieldType::STRUCTURE) {
            walkStructure(field, path + ".", displacement, depth + 1);
            return;
        }
        fuzzCheck(field.offset + displacement + field.size <= m_record.size(),
                  "the value lies in the record");
        const std::uint64_t bits = plainNumber(m_record.data() + field.offset + displacement, field.size);
        fuzzCheck(isRead(field, path, bits), "value of " + path);
        fuzzCheck(m_view.readArray<double>(array).size() == field.elementCount(), "elements of " + array);
        const double number = m_view.read<double>(path);
        const bool isByte = field.type != FieldType::FLOAT && number >= 0 && number <= UINT8_MAX;
        fuzzCheck(isReadAs<std::uint8_t>(path) == isByte, "range of " + path);
    }

    /// Paths that are nearly right. `array` is `path` without its last indexes.
    void checkRefusals(const RecordField& field, const std::string& path, const std::string& array) const
    {
        const bool isStructure = field.type == FieldType::STRUCTURE;
        fuzzCheck(isReadAs<double>(path) != isStructure, "one number: " + path);
        fuzzCheck(!isReadAs<double>(path + "[0]"), "an index too many: " + path);
        fuzzCheck(!isReadAs<double>(path + "."), "nothing behind the dot: " + path);
        if (field.extents.empty()) {
            return;
        }
        const std::string child =
            isStructure && !field.children.empty() ? "." + lastOf(field.children[0]) : "";
        fuzzCheck(!isReadAs<double>(array + child), "no index: " + array);
        for (std::size_t i = 0; i < field.extents.size(); ++i) {
            RecordField longer = field;
            ++longer.extents[i];
            const std::string outside = array + lastOf(longer).substr(field.name.size());
            fuzzCheck(!isReadAs<double>(outside + child), "outside: " + outside);
        }
    }

    template<typename T>
    bool isReadAs(const std::string& path) const
    {
        try {
            m_view.read<T>(path);
            return true;
        } catch (const ReaderError&) {
            return false;
        }
    }

    bool isRead(const RecordField& field, const std::string& path, std::uint64_t bits) const
    {
        const unsigned unused = 64 - 8 * field.size;
        switch (field.type) {
        case FieldType::SIGNED: // the shift down brings copies of the sign
            return m_view.read<std::int64_t>(path) == static_cast<std::int64_t>(bits << unused) >> unused;
        case FieldType::UNSIGNED:
            return m_view.read<std::uint64_t>(path) == bits;
        default:
            return field.size == 4
                       ? isFloatOf<float>(m_view.read<double>(path), static_cast<std::uint32_t>(bits))
                       : isFloatOf<double>(m_view.read<double>(path), bits);
        }
    }

    /// "name[1][4]" for name[2][5].
    static std::string lastOf(const RecordField& field)
    {
        std::string text = field.name;
        for (const std::uint32_t extent : field.extents) {
            text += "[" + std::to_string(extent - 1) + "]";
        }
        return text;
    }

    const RecordView& m_view;
    const Bytes& m_record;
};

std::optional<RecordDescription> decode(const Bytes& payload)
{
    try {
        return RecordDescription::decode(payload, INFLATED_LIMIT);
    } catch (const ReaderError&) {
        return std::nullopt;
    }
}

void checkTexts(const RecordDescription& description, const Bytes& record, const RecordView& view)
{
    StreamPicture picture;
    picture.records.push_back({7, 1, &description, &record});
    picture.host = HostDiagnostics::read(view);
    const std::string json = jsonPicture(picture, "host", "");
    fuzzCheck(isJson(json), "no JSON: " + json);
    for (const std::string& line : recordText(view)) {
        fuzzCheck(std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; }),
                  "a line of plain text: " + line);
    }
}

/// A path that may be anything gives a number or a ReaderError.
void checkAnyPath(const RecordView& view, const Bytes& bytes)
{
    try {
        view.readArray<int>(std::string(bytes.begin(), bytes.end()));
    } catch (const ReaderError&) {
        return;
    }
}

bool isRecordOf(const RecordDescription& description, const Bytes& record)
{
    try {
        static_cast<void>(RecordView(description, record));
        return true;
    } catch (const ReaderError&) {
        return false;
    }
}

void checkRecord(const RecordDescription& description, const Bytes& bytes)
{
    Bytes record = bytes;
    const std::uint32_t size = description.root().size;
    if (size > RECORD_LIMIT) {
        return;
    }
    record.resize(size);
    fuzzCheck(!isRecordOf(description, Bytes(size - 1)), "a record that is too short");
    const RecordView view(description, record);
    RecordWalk(view, record).walk();
    checkTexts(description, record, view);
    checkAnyPath(view, bytes);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 3) {
        return 0;
    }
    const std::size_t length = std::min<std::size_t>(data[1] + 256U * data[2], size - 3);
    const Bytes text(data + 3, data + 3 + length);
    const bool isPayload = (data[0] & 1) != 0;
    const auto description = decode(isPayload ? text : LodestoneTapTest::deflated(text, text.size()));
    if (description) {
        checkRecord(*description, Bytes(data + 3 + length, data + size));
    }
    return 0;
}
