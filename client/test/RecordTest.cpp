#include "RecordDescription.h"
#include "RecordView.h"

#include "support/DescriptionBytes.h"

#include <functional>
#include <gtest/gtest.h>

using namespace LodestoneTap;
using namespace LodestoneTapTest;

namespace
{

void print(const RecordField& field, std::size_t depth, std::string& text)
{
    text += std::string(depth, ' ') + field.name;
    for (const std::uint32_t extent : field.extents) {
        text += "[" + std::to_string(extent) + "]";
    }
    text += " " + std::to_string(field.offset) + "+" + std::to_string(field.size) +
            "iufs"[static_cast<int>(field.type)] + "\n";
    for (const RecordField& child : field.children) {
        print(child, depth + 1, text);
    }
}

std::string errorOf(const std::function<void()>& step)
{
    try {
        step();
    } catch (const ReaderError& error) {
        return error.what();
    }
    return "no error";
}

/// A description of a record of 64 bytes with these fields.
DescriptionBytes record64(const std::function<void(DescriptionBytes&)>& fields)
{
    DescriptionBytes description;
    description.root("R", 64);
    fields(description);
    return description.end();
}

} // namespace

TEST(RecordDescription, DescriptionOfTheDiagnosticsIsReadInFull)
{
    const DescriptionBytes description = diagnosticsDescription();
    ASSERT_EQ(description.inflated().size(), 531U);
    const Bytes payload = diagnosticsDescriptionPayload();
    ASSERT_EQ(payload.size(), 256U);
    ASSERT_EQ(payload[13], 0x78);
    ASSERT_EQ(payload[14], 0xDA);

    std::string text;
    print(RecordDescription::decode(payload).root(), 0, text);
    EXPECT_EQ(text, "LodestoneDiag 0+208s\n"
                    " queueLength 0+4i\n"
                    " numSkipped 4+4i\n"
                    " diags[5] 8+40s\n"
                    "  queue_ptr 8+4u\n"
                    "  firstChannelID 12+4i\n"
                    "  waitedForQueue 16+4i\n"
                    "  skipped 20+4i\n"
                    "  profiling 24+24s\n"
                    "   runtimeMsecs 24+4f\n"
                    "   maxRuntimeMsecs 28+4f\n"
                    "   cumRuntimeMsecs 32+8f\n"
                    "   numCalls 40+4u\n"
                    "   avgRuntimeMsecs 44+4f\n");
}

TEST(RecordDescription, BrokenPayloadIsRefused)
{
    const Bytes good = diagnosticsDescription().payload();
    const Bytes inflated = diagnosticsDescription().inflated();
    const auto changed = [&good](std::size_t at, std::uint8_t byte) {
        Bytes payload = good;
        payload[at] = byte;
        return payload;
    };
    const struct
    {
        Bytes payload;
        const char* error;
    } cases[] = {
        {changed(0, 0xDB), "description doesn't begin with a description's header"},
        {Bytes(good.begin(), good.begin() + 13), "description doesn't begin with a description's header"},
        {changed(12, 3), "description has the mark 0x03, must be 0x02"},
        {changed(13, 0x79), "description's zlib stream is damaged or cut short"},
        {Bytes(good.begin(), good.end() - 30), "description's zlib stream is damaged or cut short"},
        {changed(8, 0x7F), "description of 2130706963 bytes, must be 1 to 1048576"},
        {DescriptionBytes::deflated(inflated, 0), "description of 0 bytes, must be 1 to 1048576"},
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
    typedef DescriptionBytes& D;
    DescriptionBytes deep;
    deep.root("R", 64);
    for (int i = 0; i < 32; ++i) {
        deep.node("s", {}, 0, 64, STRUCTURE);
    }
    const struct
    {
        DescriptionBytes description;
        const char* error;
    } cases[] = {
        {DescriptionBytes().node("x", {}, 0, 4, SIGNED), "byte 21: tag 0x96 where root extent (0x68) is due"},
        {DescriptionBytes().root("R", 64), "byte 31: the description ends in the middle of an item"},
        {DescriptionBytes().root("R", 0).end(), "byte 0: field R has type 0xFE of 0 bytes"},
        {record64([](D d) { d.item(0x70, 0); }), "byte 31: tag 0x70 where name (0x64) is due"},
        {record64([](D d) { d.item(0x64, 4000000000U); }),
         "byte 36: name of 4000000000 bytes, must be 1 to 255"},
        {record64([](D d) { d.item(0x64, 200); }), "byte 36: the description ends in the middle of an item"},
        {record64([](D d) { d.node("a.b", {}, 0, 4, SIGNED); }),
         "byte 39: name with a character that a name can't have"},
        {record64([](D d) { d.node("\x1b[2J", {}, 0, 4, SIGNED); }),
         "byte 40: name with a character that a name can't have"},
        {record64([](D d) { d.node("x", std::vector<std::uint32_t>(9, 1), 0, 4, SIGNED); }),
         "byte 42: 9 dimensions, must be at most 8"},
        {record64([](D d) { d.node("x", {}, 0, 3, SIGNED); }), "byte 31: field x has type 0x01 of 3 bytes"},
        {record64([](D d) { d.node("x", {}, 0, 2, FLOAT); }), "byte 31: field x has type 0x03 of 2 bytes"},
        {record64([](D d) { d.node("x", {}, 0, 4, 9); }), "byte 31: field x has type 0x09 of 4 bytes"},
        {record64([](D d) { d.node("x", {}, 61, 4, SIGNED); }),
         "byte 31: field x reaches beyond the end of its structure"},
        {record64([](D d) { d.node("x", {}, 0xFFFFFFFFU, 8, SIGNED); }),
         "byte 31: field x reaches beyond the end of its structure"},
        {record64([](D d) { d.node("x", {17}, 0, 4, SIGNED); }),
         "byte 31: field x has dimensions that don't fit its structure"},
        {record64([](D d) {
             d.node("x", {0xFFFFFFFFU, 0xFFFFFFFFU, 0xFFFFFFFFU}, 0, 8, SIGNED);
         }),
         "byte 31: field x has dimensions that don't fit its structure"},
        {record64([](D d) {
             d.node("x", {4, 0}, 0, 4, SIGNED);
         }),
         "byte 31: field x has dimensions that don't fit its structure"},
        {record64([](D d) { d.node("x", {4}, 0, 4, SIGNED).node("y", {}, 12, 4, SIGNED); }),
         "byte 61: field y overlaps the field before it, or lies before its structure"},
        {record64([](D d) { d.node("s", {}, 8, 8, STRUCTURE).node("y", {}, 4, 4, SIGNED).end(); }),
         "byte 57: field y overlaps the field before it, or lies before its structure"},
        {record64([](D d) { d.node("x", {}, 0, 4, SIGNED).node("x", {}, 4, 4, SIGNED); }),
         "byte 57: field x stands twice in its structure"},
        {record64([](D d) { d.end(); }), "byte 36: bytes behind the end of the root structure"},
        {record64([](D d) { d.item(0x96, SIGNED); }),
         "byte 36: a type stands where a name or the end of a structure is due"},
        {deep, "byte 863: structures are nested deeper than 32"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(errorOf([&] { RecordDescription::decode(item.description.payload()); }),
                  std::string("inflated description, ") + item.error);
    }
}

TEST(RecordView, FieldsAreReadByName)
{
    const RecordDescription description = RecordDescription::decode(diagnosticsDescriptionPayload());
    const Bytes bytes = diagnosticsRecord();
    const RecordView record(description, bytes);
    EXPECT_EQ(record.read<int>("queueLength"), 3);
    EXPECT_EQ(record.read<unsigned char>("numSkipped"), 12);
    EXPECT_EQ(record.read<std::uint32_t>("diags[2].queue_ptr"), 0xB0F01234U);
    EXPECT_EQ(record.read<std::int64_t>("diags[2].firstChannelID"), 7);
    EXPECT_EQ(record.read<float>("diags[2].profiling.runtimeMsecs"), 0.125F);
    EXPECT_EQ(record.read<double>("diags[0].profiling.cumRuntimeMsecs"), 12.75);
    EXPECT_EQ(record.read<double>("diags[2].profiling.numCalls"), 52.0);
    EXPECT_TRUE(record.isZero(record.root().children[2], 40));
    EXPECT_FALSE(record.isZero(record.root().children[2], 80));
    EXPECT_THROW(RecordView(description, Bytes(207)), ReaderError);
}

TEST(RecordView, ArraysAndSignsAreRead)
{
    const RecordDescription description = RecordDescription::decode(
        record64([](DescriptionBytes& d) {
            d.node("matrix", {2, 3}, 0, 2, SIGNED)
                .node("byte", {}, 12, 1, SIGNED)
                .node("wide", {}, 16, 8, UNSIGNED);
            d.node("s", {2, 2}, 32, 8, STRUCTURE).node("a", {2}, 34, 1, UNSIGNED).end();
        }).payload());
    Bytes bytes(64, 0);
    for (std::size_t i = 0; i < 64; ++i) {
        bytes[i] = static_cast<std::uint8_t>(0xF0 + i);
    }
    const RecordView record(description, bytes);
    typedef std::vector<int> Ints;
    EXPECT_EQ(record.readArray<int>("matrix"), (Ints{-3600, -3086, -2572, -2058, -1544, -1030}));
    EXPECT_EQ(record.readArray<int>("matrix[1]"), (Ints{-2058, -1544, -1030}));
    EXPECT_EQ(record.read<int>("matrix[1][2]"), -1030);
    EXPECT_EQ(record.read<int>("byte"), -4);
    EXPECT_EQ(record.read<std::uint64_t>("wide"), 0x0706050403020100U);
    EXPECT_EQ(record.readArray<int>("s[1][0].a"), (Ints{0x22, 0x23}));

    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { record.read<unsigned>("byte"); }, "byte can't be read as an integer of the type asked for"},
        {[&] { record.read<std::int32_t>("wide"); },
         "wide can't be read as an integer of the type asked for"},
        {[&] { record.read<int>("matrix"); }, "matrix is an array, an index is missing"},
        {[&] { record.read<int>("matrix[1]"); }, "matrix[1] is an array, an index is missing"},
        {[&] { record.read<int>("matrix[2][0]"); }, "matrix[2][0]: index 2 is outside matrix"},
        {[&] { record.read<int>("byte[0]"); }, "byte[0]: index 0 is outside byte"},
        {[&] { record.read<int>("matrix[-1]"); }, "matrix[-1] has a bad index"},
        {[&] { record.read<int>("matrix[1"); }, "matrix[1 has a bad index"},
        {[&] { record.read<int>("s[0][0]"); }, "s[0][0] is a structure"},
        {[&] { record.read<int>("s.a"); }, "s.a: s is an array, an index is missing"},
        {[&] { record.read<int>("s[0][1]a"); }, "s[0][1]a isn't a path of names and indexes"},
        {[&] { record.read<int>("byte."); }, "byte. isn't a path of names and indexes"},
        {[&] { record.read<int>("byte.x"); }, "byte.x: byte has no field 'x'"},
        {[&] { record.read<int>(""); }, ": R has no field ''"},
    };
    for (const auto& [step, error] : cases) {
        EXPECT_EQ(errorOf(step), error);
    }
}
