#include "StreamModel.h"

#include "JsonPicture.h"
#include "ReaderError.h"
#include "TextPicture.h"
#include "support/DescriptionBytes.h"

#include <gtest/gtest.h>

using namespace LodestoneTap;
using namespace LodestoneTapTest;
using std::chrono::milliseconds;

namespace
{

/// A model on a clock of its own.
class Tap
{
public:
    explicit Tap(const StreamLimits& limits = StreamLimits()) : m_model(m_now, limits) {}

    Tap& feed(const StreamBytes& stream)
    {
        m_model.feed(stream.bytes().data(), stream.bytes().size(), m_now);
        return *this;
    }
    Tap& wait(milliseconds time)
    {
        m_now += time;
        return *this;
    }
    StreamPicture picture() const { return m_model.picture(m_now); }
    std::string text() const
    {
        std::string text;
        for (const std::string& line : textPicture(picture(), "host:7000")) {
            text += line + "\n";
        }
        return text;
    }
    std::string json() const { return jsonPicture(picture(), "host:7000", ""); }

private:
    StreamModel::TimePoint m_now = StreamModel::TimePoint(std::chrono::hours(1));
    StreamModel m_model;
};

StreamBytes& diagnosticsPair(StreamBytes& stream)
{
    return stream.whole(10998, diagnosticsRecord()).whole(10999, diagnosticsDescriptionPayload());
}

const ChannelPicture& channelOf(const StreamPicture& picture, std::int32_t channelID)
{
    for (const ChannelPicture& channel : picture.channels) {
        if (channel.channelID == channelID) {
            return channel;
        }
    }
    throw std::out_of_range("channel " + std::to_string(channelID));
}

} // namespace

TEST(StreamModel, ChannelsAreCountedByTheirKind)
{
    Tap tap;
    const Bytes split = pattern(10, 3);
    // Taken over in mid-stream: what the client before had queued comes ahead of the ONCE cycle.
    tap.feed(StreamBytes().cycle(20, 2).part(12, 3, split, 2, 6, 4).whole(13, pattern(2000, 0)));
    tap.feed(StreamBytes().cycle(21, 1).header(300, 1, 5, -3, 5).raw(pattern(5, 0)));
    for (unsigned i = 0; i < 9; ++i) {
        StreamBytes stream;
        stream.cycle(24 + i, 2).whole(13, pattern(2000, 0));
        stream.part(12, 3, split, i % 3, i % 3 * 3, i % 3 == 2 ? 4 : 3);
        tap.wait(milliseconds(100)).feed(stream);
    }
    tap.wait(milliseconds(100));
    const StreamPicture picture = tap.picture();
    EXPECT_TRUE(picture.normalCycles == 10 && picture.onceCycles == 1 && picture.newestCycle == 32);
    EXPECT_EQ(picture.missedCycles, 2U);
    const ChannelPicture& whole = channelOf(picture, 13);
    EXPECT_EQ(whole.kind, ChannelKind::WHOLE);
    EXPECT_NEAR(whole.buffersPerSecond, 10.0, 1e-9);
    EXPECT_NEAR(whole.bytesPerSecond, 20000.0, 1e-6);
    EXPECT_NEAR(whole.age_s.value(), 0.1, 1e-9);
    const ChannelPicture& cut = channelOf(picture, 12);
    EXPECT_TRUE(cut.kind == ChannelKind::SPLIT && cut.buffers == 3 && cut.orphanParts == 1 && cut.lost == 0);

    tap.wait(milliseconds(5000));
    EXPECT_EQ(channelOf(tap.picture(), 13).buffersPerSecond, 0.0);
    tap.feed(StreamBytes().cycle(33, 1).whole(13, {}));
    EXPECT_NEAR(channelOf(tap.picture(), 13).buffersPerSecond, 1.0 / 4.5, 1e-9) << "old buffers are back";
}

TEST(StreamModel, NewDescriptionMakesTheOldRecordUnreadable)
{
    Tap tap;
    StreamBytes cycle;
    // The newest record of a cycle is the one that is shown.
    EXPECT_TRUE(tap.feed(diagnosticsPair(cycle.cycle(8, 3).whole(10998, pattern(50, 0)))).picture().host);
    DescriptionBytes other;
    other.root("Other", 8).node("x", {2}, 0, 4, SIGNED).end();
    tap.feed(StreamBytes().cycle(9, 1).whole(10999, other.payload()));
    EXPECT_TRUE(tap.picture().records.empty());
    tap.feed(StreamBytes().cycle(10, 1).whole(10998, pattern(8, 1)));
    ASSERT_EQ(tap.picture().records.size(), 1U);
    EXPECT_FALSE(tap.picture().host);
}

TEST(StreamModel, BrokenDescriptionsAndTooManyChannelsAreErrors)
{
    Bytes payload = diagnosticsDescriptionPayload();
    payload[12] = 9;
    try {
        Tap().feed(StreamBytes().cycle(8, 2).whole(10998, diagnosticsRecord()).whole(10999, payload));
        ADD_FAILURE() << "accepted";
    } catch (const StreamError& error) {
        EXPECT_STREQ(error.what(),
                     "stream broken at byte 240, cycle 8: channel 10999: description has the mark "
                     "0x09, must be 0x02");
    }
    StreamLimits limits;
    limits.memoryBytes = 64 * 1024;
    Tap tap(limits);
    StreamBytes channels;
    for (int i = 0; i < 65; ++i) {
        channels.cycle(i, 1).whole(i, {});
    }
    EXPECT_THROW(tap.feed(channels), StreamError);
    EXPECT_EQ(tap.picture().channels.size(), 64U);
}

TEST(StreamModel, DamagedStreamsEndInAnErrorAtWorst)
{
    StreamBytes good;
    good.cycle(7, 1).header(300, 1, 5, -3, 5).raw(pattern(5, 0));
    diagnosticsPair(good.cycle(8, 3).part(12, 2, pattern(9, 1), 0, 0, 4));
    diagnosticsPair(good.cycle(9, 3).part(12, 2, pattern(9, 1), 1, 4, 5));
    const auto survives = [](const Bytes& bytes) {
        StreamLimits limits;
        limits.memoryBytes = 1 << 20;
        Tap tap(limits);
        try {
            tap.feed(StreamBytes().raw(bytes));
        } catch (const StreamError&) {
            tap.wait(milliseconds(1)); // refused; what was read before it is still shown
        }
        EXPECT_FALSE(tap.text().empty());
        EXPECT_EQ(tap.json().back(), '}');
    };
    const auto eachByteDamaged = [](Bytes bytes, const auto& check) {
        for (std::uint8_t& byte : bytes) {
            const std::uint8_t undamaged = byte;
            for (const std::uint8_t damage : Bytes{0x00, 0x02, 0x7F, 0x96, 0xFF}) {
                byte = damage;
                check(bytes);
            }
            byte = undamaged;
        }
    };
    eachByteDamaged(good.bytes(), survives);
    // The same inside the description, which deflated would only fail its checksum.
    eachByteDamaged(diagnosticsDescription().inflated(), [&](const Bytes& damaged) {
        const Bytes payload = DescriptionBytes::deflated(damaged, damaged.size());
        survives(StreamBytes().cycle(1, 2).whole(10998, diagnosticsRecord()).whole(10999, payload).bytes());
    });
}

TEST(StreamModel, TextsOfAHostileRecordStayBounded)
{
    const std::uint32_t size = 1U << 20;
    DescriptionBytes wide; // a name of 200 characters for every byte
    wide.root("Wide", size).node("s", {size}, 0, 1, STRUCTURE).node(std::string(200, 'x'), {}, 0, 1, SIGNED);
    DescriptionBytes nested; // a line for every byte
    nested.root("Nested", 4U << 16);
    for (std::uint32_t level = 0; level <= 8; ++level) {
        nested.node("s", {4}, 0, 1U << (16 - 2 * level), STRUCTURE);
    }
    nested.node("x", {}, 0, 1, SIGNED);
    for (int i = 0; i <= 8; ++i) {
        nested.end();
    }
    Tap tap;
    tap.feed(StreamBytes()
                 .cycle(1, 4)
                 .whole(1, pattern(size, 1))
                 .whole(2, wide.end().end().payload())
                 .whole(4, pattern(4U << 16, 1))
                 .whole(5, nested.end().payload()));
    EXPECT_LT(tap.json().size(), 32U << 20);
    EXPECT_NE(tap.json().find("\"name\":\"Wide\",\"fields\":null"), std::string::npos);
    EXPECT_LT(tap.text().size(), 8U << 20);
    EXPECT_NE(tap.text().find("the rest is left out"), std::string::npos);
}

TEST(TextPicture, IsAlignedAndReadable)
{
    Tap tap;
    tap.feed(StreamBytes().cycle(7, 1).header(300, 1, 5, -3, 5).raw(pattern(5, 0))).wait(milliseconds(1000));
    DescriptionBytes track;
    track.root("Track", 72).node("gain", {}, 0, 4, FLOAT).node("hist", {10}, 4, 2, UNSIGNED);
    track.node("pos", {4, 2}, 24, 4, STRUCTURE).node("x", {4}, 24, 1, SIGNED).end();
    track.node("name", {8}, 56, 1, SIGNED).end();
    Bytes record(72, 0);
    record[2] = 0xC0;
    record[3] = 0x3F;
    record[4] = 1;
    for (std::size_t i = 28; i < 56; ++i) {
        record[i] = static_cast<std::uint8_t>(i - 60);
    }
    record[56] = 'T';
    record[57] = '1';
    StreamBytes cycle;
    cycle.cycle(8, 5)
        .part(12, 2, pattern(70000, 0), 0, 0, 35000)
        .whole(200, record)
        .whole(201, track.payload());
    tap.feed(diagnosticsPair(cycle)).wait(milliseconds(1000));
    EXPECT_EQ(tap.text(), R"(host:7000   streaming for 2.0 s   cycle 8   1.0 cycles/s   17.9 kB/s

channel  kind    size  rate/s  kB/s  parts    age  lost  content
     12  split  70000     0.0  17.5      2      -     0
    200  whole     72     0.5   0.0      1  1.0 s     0  Track
    201  whole    127     0.5   0.1      1  1.0 s     0  describes 200
    300  once       5       -     -      1  2.0 s     0
  10998  whole    208     0.5   0.1      1  1.0 s     0  LodestoneDiag
  10999  whole    256     0.5   0.1      1  1.0 s     0  describes 10998

host   queue length 3   buffers skipped 12
package  calls  last ms  avg ms  max ms  total ms  waited  skipped
    100     51    0.125   0.250   2.500      12.8  no      yes
      7     52    0.125   0.250   2.500      12.8  no      yes

Track   channel 200   cycle 8
  gain                   1.5
  hist[10]   1 0 0 0 0 0 0 0 +2
  pos[4][2]           [0][1]           [1][0]           [1][1]           [2][0]           [2][1]  2 more
    x[4]     -32 -31 -30 -29  -28 -27 -26 -25  -24 -23 -22 -21  -20 -19 -18 -17  -16 -15 -14 -13
  name[8]    T1

LodestoneDiag   channel 10998   cycle 8
  queueLength                   3
  numSkipped                   12
  diags[5]                    [0]         [2]
    queue_ptr          2968523316  2968523316
    firstChannelID            100           7
    waitedForQueue              0           0
    skipped                     1           1
    profiling
      runtimeMsecs          0.125       0.125
      maxRuntimeMsecs         2.5         2.5
      cumRuntimeMsecs       12.75       12.75
      numCalls                 51          52
      avgRuntimeMsecs        0.25        0.25
)");
}

TEST(JsonPicture, ValuesThatJsonDoesNotHaveBecomeNull)
{
    DescriptionBytes description;
    description.root("F", 24).node("f", {2}, 0, 4, FLOAT).node("d", {}, 8, 8, FLOAT);
    description.node("na\"me\\", {}, 16, 8, SIGNED).end();
    Bytes record = {0x00, 0x00, 0xC0, 0x7F, 0xCD, 0xCC, 0xCC, 0x3D, 0, 0, 0, 0, 0, 0, 0xF0, 0xFF};
    record.resize(24, 0xFF);
    Tap tap;
    tap.feed(StreamBytes().cycle(1, 2).whole(4, record).whole(5, description.payload()));
    const std::string json = tap.json();
    EXPECT_NE(json.find(R"("fields":{"f":[null,0.1],"d":null,"na\"me\\":-1}})"), std::string::npos) << json;
    EXPECT_NE(json.find(R"("host":null)"), std::string::npos) << json;
}
