#include "RecordDescription.h"
#include "RecordView.h"

#include "support/DescriptionBytes.h"

#include <functional>
#include <gtest/gtest.h>

using namespace LodestoneTap;
using namespace LodestoneTapTest;

namespace
{

std::string errorOf(const std::function<void()>& step)
{
    try {
        step();
    } catch (const ReaderError& error) {
        return error.what();
    }
    return "no error";
}

/// The beginning of a description of 64 bytes; its fields and an end follow.
DescriptionBytes root64()
{
    return DescriptionBytes().root("R", 64);
}

} // namespace

TEST(RecordDescription, BrokenPayloadIsRefused)
{
    const Bytes good = diagnosticsDescription().payload();
    const Bytes inflated = diagnosticsDescription().inflated();
    Bytes marked = good;
    marked[12] = 3;
    const struct
    {
        Bytes payload;
        const char* error;
    } cases[] = {
        {Bytes(good.begin(), good.begin() + 13), "description doesn't begin with a description's header"},
        {marked, "description has the mark 0x03, must be 0x02"},
        {Bytes(good.begin(), good.end() - 30), "description's zlib stream is damaged or cut short"},
        {DescriptionBytes::deflated(inflated, 2130706963U),
         "description of 2130706963 bytes, must be 1 to 1048576"},
        {DescriptionBytes::deflated(inflated, 532), "description has 531 bytes and announces 532"},
        // A bomb: a thousand times what it announces.
        {DescriptionBytes::deflated(Bytes(531000, 0), 531),
         "description doesn't end with the 531 bytes that it announces"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(errorOf([&] { RecordDescription::decode(item.payload); }), item.error);
    }
}

TEST(RecordDescription, BrokenItemsAreRefusedWithTheirPlace)
{
    DescriptionBytes deep = root64();
    for (int i = 0; i < 32; ++i) {
        deep.node("s", {}, 0, 64, STRUCTURE);
    }
    const std::vector<std::uint32_t> huge(3, 0xFFFFFFFFU);
    const struct
    {
        DescriptionBytes description; // but for its end
        const char* error;
    } cases[] = {
        {DescriptionBytes().node("x", {}, 0, 4, SIGNED), "21: tag 0x96 where root extent (0x68) is due"},
        {DescriptionBytes().root("R", 0), "0: field R has type 0xFE of 0 bytes"},
        {root64().item(0x70, 0), "31: tag 0x70 where name (0x64) is due"},
        {root64().item(0x64, 4000000000U), "36: name of 4000000000 bytes, must be 1 to 255"},
        {root64().item(0x64, 200), "36: the description ends in the middle of an item"},
        {root64().node("a.b", {}, 0, 4, SIGNED), "39: name with a character that a name can't have"},
        {root64().node("x", {1, 1, 1, 1, 1, 1, 1, 1, 1}, 0, 4, SIGNED),
         "42: 9 dimensions, must be at most 8"},
        {root64().node("x", {}, 0, 3, SIGNED), "31: field x has type 0x01 of 3 bytes"},
        {root64().node("x", {0}, 0, 4, SIGNED), "31: field x has dimensions that don't fit its structure"},
        {root64().node("x", huge, 0, 8, SIGNED), "31: field x has dimensions that don't fit its structure"},
        {root64().node("x", {}, 0xFFFFFFFFU, 8, SIGNED),
         "31: field x reaches beyond the end of its structure"},
        {root64().node("s", {}, 8, 8, STRUCTURE).node("y", {}, 4, 4, SIGNED).end(),
         "57: field y overlaps the field before it, or lies before its structure"},
        {root64().node("x", {}, 0, 4, SIGNED).node("x", {}, 4, 4, SIGNED),
         "57: field x stands twice in its structure"},
        {root64().end(), "36: bytes behind the end of the root structure"},
        {root64().item(0x96, SIGNED), "36: a type stands where a name or the end of a structure is due"},
        {deep, "863: structures are nested deeper than 32"},
    };
    for (const auto& item : cases) {
        const Bytes payload = DescriptionBytes(item.description).end().payload();
        EXPECT_EQ(errorOf([&] { RecordDescription::decode(payload); }),
                  std::string("inflated description, byte ") + item.error);
    }
}

TEST(RecordView, FieldsAreReadByName)
{
    const RecordDescription description = RecordDescription::decode(diagnosticsDescriptionPayload());
    const Bytes bytes = diagnosticsRecord();
    const RecordView record(description, bytes);
    EXPECT_EQ(record.read<std::int64_t>("diags[2].firstChannelID"), 7);
    EXPECT_EQ(record.read<std::uint32_t>("diags[2].queue_ptr"), 0xB0F01234U);
    EXPECT_EQ(record.read<float>("diags[2].profiling.runtimeMsecs"), 0.125F);
    EXPECT_EQ(record.read<double>("diags[2].profiling.numCalls"), 52.0);
    EXPECT_THROW(RecordView(description, Bytes(207)), ReaderError);
}

TEST(RecordView, ArraysAndSignsAreReadAndBadPathsAreNamed)
{
    DescriptionBytes fields = root64();
    fields.node("matrix", {2, 3}, 0, 2, SIGNED)
        .node("byte", {}, 12, 1, SIGNED)
        .node("wide", {}, 16, 8, UNSIGNED);
    fields.node("s", {2, 2}, 32, 8, STRUCTURE).node("a", {2}, 34, 1, UNSIGNED).end();
    const RecordDescription description = RecordDescription::decode(fields.end().payload());
    Bytes bytes(64, 0);
    for (std::size_t i = 0; i < 64; ++i) {
        bytes[i] = static_cast<std::uint8_t>(0xF0 + i);
    }
    const RecordView record(description, bytes);
    typedef std::vector<int> Ints;
    EXPECT_EQ(record.readArray<int>("matrix[1]"), (Ints{-2058, -1544, -1030}));
    EXPECT_EQ(record.read<int>("matrix[1][2]"), -1030);
    EXPECT_EQ(record.read<int>("byte"), -4);
    EXPECT_EQ(record.read<std::uint64_t>("wide"), 0x0706050403020100U);
    EXPECT_EQ(record.readArray<int>("s[1][0].a"), (Ints{0x22, 0x23}));
    EXPECT_EQ(errorOf([&] { record.read<unsigned>("byte"); }),
              "byte can't be read as an integer of the type asked for");

    const std::pair<const char*, const char*> cases[] = {
        {"wide", "wide can't be read as an integer of the type asked for"},
        {"matrix[1]", "matrix[1] is an array, an index is missing"},
        {"matrix[2][0]", "matrix[2][0]: index 2 is outside matrix"},
        {"matrix[-1]", "matrix[-1] has a bad index"},
        {"matrix[1", "matrix[1 has a bad index"},
        {"s[0][0]", "s[0][0] is a structure"},
        {"s.a", "s.a: s is an array, an index is missing"},
        {"s[0][1]a", "s[0][1]a isn't a path of names and indexes"},
        {"byte.x", "byte.x: byte has no field 'x'"},
    };
    for (const auto& [path, error] : cases) {
        EXPECT_EQ(errorOf([&record, path = path] { record.read<int>(path); }), error);
    }
}
