#include "StreamModel.h"

#include "JsonPicture.h"
#include "ReaderError.h"
#include "TextPicture.h"
#include "support/DescriptionBytes.h"

#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <random>

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
    for (int i = 0; i < 9; ++i) {
        tap.wait(milliseconds(100));
        StreamBytes stream;
        stream.cycle(24 + i, 2).whole(13, pattern(2000, 0));
        const std::size_t part = static_cast<std::size_t>(i % 3);
        stream.part(12, 3, split, i % 3, part * 3, part == 2 ? 4 : 3);
        tap.feed(stream);
    }
    tap.wait(milliseconds(100));
    const StreamPicture picture = tap.picture();
    EXPECT_EQ(picture.normalCycles, 10U);
    EXPECT_EQ(picture.onceCycles, 1U);
    EXPECT_EQ(picture.missedCycles, 2U);
    EXPECT_EQ(picture.newestCycle, 32U);
    EXPECT_FALSE(picture.host);
    const ChannelPicture& whole = channelOf(picture, 13);
    EXPECT_EQ(whole.kind, ChannelKind::WHOLE);
    EXPECT_NEAR(whole.buffersPerSecond, 10.0, 1e-9);
    EXPECT_NEAR(whole.bytesPerSecond, 20000.0, 1e-6);
    EXPECT_NEAR(whole.age_s.value(), 0.1, 1e-9);
    const ChannelPicture& cut = channelOf(picture, 12);
    EXPECT_EQ(cut.kind, ChannelKind::SPLIT);
    EXPECT_EQ(cut.buffers, 3U);
    EXPECT_EQ(cut.orphanParts, 1U);
    EXPECT_EQ(cut.lost, 0U);
    EXPECT_EQ(cut.size, 10);
    EXPECT_EQ(channelOf(picture, 300).kind, ChannelKind::ONCE);

    tap.wait(milliseconds(5000));
    EXPECT_EQ(channelOf(tap.picture(), 13).buffersPerSecond, 0.0);
    tap.feed(StreamBytes().cycle(33, 1).whole(13, {}));
    EXPECT_NEAR(channelOf(tap.picture(), 13).buffersPerSecond, 1.0 / 4.5, 1e-9) << "old buffers are back";
}

TEST(StreamModel, RecordsAreShownByTheirDescription)
{
    Tap tap;
    StreamBytes cycle;
    diagnosticsPair(cycle.cycle(8, 3).whole(10998, pattern(50, 0)));
    const StreamPicture picture = tap.feed(cycle).picture();
    ASSERT_EQ(picture.records.size(), 1U);
    ASSERT_TRUE(picture.host);
    EXPECT_EQ(picture.host->queueLength, 3);
    ASSERT_EQ(picture.host->packages.size(), 2U);
    EXPECT_EQ(picture.host->packages[1].firstChannelID, 7);
    EXPECT_EQ(picture.host->packages[1].numCalls, 52U);
    EXPECT_EQ(channelOf(picture, 10998).recordName, "LodestoneDiag");

    // A new layout makes the old record unreadable, and the record before it in the cycle is the new one.
    DescriptionBytes other;
    other.root("Other", 8).node("x", {2}, 0, 4, SIGNED).end();
    tap.feed(StreamBytes().cycle(9, 1).whole(10999, other.payload()));
    EXPECT_TRUE(tap.picture().records.empty());
    tap.feed(StreamBytes().cycle(10, 1).whole(10998, pattern(8, 1)));
    ASSERT_EQ(tap.picture().records.size(), 1U);
    EXPECT_EQ(tap.picture().records[0].cycle, 10U);
    EXPECT_FALSE(tap.picture().host);
}

TEST(StreamModel, BrokenDescriptionNamesItsPlaceInTheStream)
{
    Bytes payload = diagnosticsDescriptionPayload();
    payload[12] = 9;
    Tap tap;
    try {
        tap.feed(StreamBytes().cycle(8, 2).whole(10998, diagnosticsRecord()).whole(10999, payload));
        ADD_FAILURE() << "accepted";
    } catch (const StreamError& error) {
        EXPECT_STREQ(error.what(),
                     "stream broken at byte 240, cycle 8: channel 10999: description has the mark "
                     "0x09, must be 0x02");
        EXPECT_EQ(error.offset(), 240U);
        EXPECT_EQ(error.cycle(), 8U);
    }
}

TEST(StreamModel, ManyChannelsAreBoundedByMemoryToo)
{
    StreamLimits limits;
    limits.memoryBytes = 64 * 1024;
    Tap tap(limits);
    const auto openChannels = [&tap](int number) {
        for (int i = 0; i < number; ++i) {
            tap.feed(StreamBytes().cycle(i, 1).whole(i, {}));
        }
    };
    openChannels(64);
    EXPECT_EQ(tap.picture().channels.size(), 64U);
    EXPECT_THROW(openChannels(65), StreamError);
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
    for (std::size_t at = 0; at < good.bytes().size(); ++at) {
        for (const std::uint8_t byte : Bytes{0x00, 0x01, 0x7F, 0xFF}) {
            Bytes damaged = good.bytes();
            damaged[at] = byte;
            survives(damaged);
        }
    }
    // The same inside the description, which deflated would only fail its checksum.
    const Bytes inflated = diagnosticsDescription().inflated();
    for (std::size_t at = 0; at < inflated.size(); ++at) {
        for (const std::uint8_t byte : Bytes{0x00, 0x02, 0x96, 0xFF}) {
            Bytes damaged = inflated;
            damaged[at] = byte;
            const Bytes payload = DescriptionBytes::deflated(damaged, damaged.size());
            survives(
                StreamBytes().cycle(1, 2).whole(10998, diagnosticsRecord()).whole(10999, payload).bytes());
        }
    }
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
    record[56] = 'T';
    record[57] = '1';
    record[2] = 0xC0;
    record[3] = 0x3F;
    record[4] = 1;
    for (std::size_t i = 28; i < 56; ++i) {
        record[i] = static_cast<std::uint8_t>(i - 60);
    }
    Bytes description = track.payload();
    description.resize(256, 0);
    StreamBytes cycle;
    cycle.cycle(8, 5).part(12, 2, pattern(70000, 0), 0, 0, 35000).whole(200, record).whole(201, description);
    tap.feed(diagnosticsPair(cycle)).wait(milliseconds(1000));
    EXPECT_EQ(tap.text(), R"(host:7000   streaming for 2.0 s   cycle 8   1.0 cycles/s   18.0 kB/s

channel  kind    size  rate/s  kB/s  parts    age  lost  content
     12  split  70000     0.0  17.5      2      -     0
    200  whole     72     0.5   0.0      1  1.0 s     0  Track
    201  whole    256     0.5   0.1      1  1.0 s     0  describes 200
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
