#include "StreamModel.h"

#include "JsonPicture.h"
#include "TextPicture.h"
#include "support/DescriptionBytes.h"

#include <gtest/gtest.h>
#include <sstream>

using namespace LodestoneTap;
using namespace LodestoneTapTest;
using std::chrono::milliseconds;

namespace
{

/// A model on a clock of its own.
class Tap
{
public:
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
    StreamModel m_model = StreamModel(m_now);
};

StreamBytes& diagnosticsPair(StreamBytes& stream)
{
    return stream.whole(10998, diagnosticsRecord()).whole(10999, diagnosticsDescription());
}

/// Cycles of parts: "4:1a0,3b1" is cycle 4 with part 0 of buffer a on channel 1 and part 1 of buffer b on
/// channel 3. A buffer is six times its letter, in three parts.
StreamBytes course(const std::string& text)
{
    StreamBytes stream;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        // The counter wraps on the way.
        stream.cycle(word[0] - '6', static_cast<std::int64_t>(word.size() - 1) / 4);
        for (std::size_t at = 2; at < word.size(); at += 4) {
            const Bytes buffer(6, static_cast<std::uint8_t>(word[at + 1]));
            stream.part(word[at] - '0', 3, buffer, word[at + 2] - '0', 0, 2);
        }
    }
    return stream;
}

} // namespace

TEST(StreamModel, PartsThatAreMissingCostTheirBufferOnly)
{
    const std::pair<const char*, const char*> cases[] = {
        {"4:1a0 5:1a1 6:1a2", "1 complete, 0 lost, 0 orphans, aaaaaa"},
        // Begins in the middle of a buffer.
        {"4:1a1 5:1a2 6:1b0 7:1b1 8:1b2", "1 complete, 0 lost, 2 orphans, bbbbbb"},
        // A part is left out, then a cycle.
        {"4:1a0 5:3c0", "0 complete, 1 lost, 0 orphans, "},
        {"4:1a0 5:3c0 6:1a2,3c1 7:3c2", "0 complete, 1 lost, 1 orphans, "},
        {"4:3c0 5:1a0 6:3c2,1a1 7:1a2", "1 complete, 0 lost, 0 orphans, aaaaaa"},
        {"4:1a0 6:1a1 7:1b0 8:1b1 9:1b2", "1 complete, 1 lost, 1 orphans, bbbbbb"},
        // A buffer is begun anew.
        {"4:1a0 5:1b0 6:1b1 7:1b2", "1 complete, 1 lost, 0 orphans, bbbbbb"},
        // Two buffers of a channel one behind the other, and side by side.
        {"4:1a0 5:1b0,1a1 6:1b1,1a2 7:1b2", "2 complete, 0 lost, 0 orphans, bbbbbb"},
        {"4:1a0,1b0 5:1a1,1b1 6:1a2,1b2", "2 complete, 0 lost, 0 orphans, bbbbbb"},
    };
    const Bytes description = described("record R size 6\nint8 x[6] at 0\nend\n").packed();
    for (const auto& [text, expected] : cases) {
        Tap tap;
        const StreamPicture picture =
            tap.feed(StreamBytes().cycle(-3, 1).whole(2, description)).feed(course(text)).picture();
        const ChannelPicture& channel = picture.channels.front();
        std::ostringstream told;
        told << channel.buffers << " complete, " << channel.lost << " lost, " << channel.orphanParts
             << " orphans, ";
        for (const RecordPicture& record : picture.records) {
            told << std::string(record.bytes->begin(), record.bytes->end());
        }
        EXPECT_EQ(told.str(), expected) << text;
    }
}

TEST(StreamModel, RatesAndGapsAreThoseOfTheLastSeconds)
{
    Tap tap;
    // Taken over in mid-stream: what the client before had queued comes ahead of the ONCE cycle.
    tap.feed(StreamBytes().cycle(20, 1).whole(13, pattern(2000, 0)));
    tap.feed(StreamBytes().cycle(21, 1).header(300, 1, 5, -3, 5).raw(pattern(5, 0)));
    for (unsigned i = 0; i < 9; ++i) {
        tap.wait(milliseconds(100)).feed(StreamBytes().cycle(24 + i, 1).whole(13, pattern(2000, 0)));
    }
    StreamPicture picture = tap.wait(milliseconds(100)).picture();
    EXPECT_TRUE(picture.normalCycles == 10 && picture.onceCycles == 1 && picture.newestCycle == 32);
    EXPECT_EQ(picture.missedCycles, 2U);
    EXPECT_NEAR(picture.channels[0].buffersPerSecond, 10.0, 1e-9);
    EXPECT_NEAR(picture.channels[0].bytesPerSecond, 20000.0, 1e-6);
    EXPECT_NEAR(picture.channels[0].age_s.value(), 0.1, 1e-9);

    picture = tap.wait(milliseconds(5000)).picture();
    EXPECT_EQ(picture.channels[0].buffersPerSecond, 0.0);
    picture = tap.feed(StreamBytes().cycle(33, 1).whole(13, {})).picture();
    EXPECT_NEAR(picture.channels[0].buffersPerSecond, 1.0 / 4.5, 1e-9) << "old buffers are back";
}

TEST(StreamModel, NewDescriptionMakesTheOldRecordUnreadable)
{
    Tap tap;
    StreamBytes cycle;
    // The newest record of a cycle is the one that is shown.
    EXPECT_TRUE(tap.feed(diagnosticsPair(cycle.cycle(8, 3).whole(10998, pattern(50, 0)))).picture().host);
    const Bytes other = described("record Other size 8\nint32 x[2] at 0\nend\n").packed();
    EXPECT_TRUE(tap.feed(StreamBytes().cycle(9, 1).whole(10999, other)).picture().records.empty());
    const StreamPicture picture = tap.feed(StreamBytes().cycle(10, 1).whole(10998, pattern(8, 1))).picture();
    EXPECT_TRUE(picture.records.size() == 1 && !picture.host);
}

TEST(StreamModel, TextsOfAHostileRecordStayBounded)
{
    const std::uint32_t size = 1U << 20;
    // A name of 200 characters for every byte.
    const std::string wide = "record Wide size 1048576\nstruct s[1048576] at 0 size 1\nint8 " +
                             std::string(200, 'x') + " at 0\nend\nend\n";
    std::string nested = "record Nested size 1048576\n"; // a line for every byte
    std::string ends = "end\n";
    for (std::uint32_t bytes = size / 4; bytes > 0; bytes /= 4) {
        nested += "struct s[4] at 0 size " + std::to_string(bytes) + "\n";
        ends += "end\n";
    }
    Tap tap;
    tap.feed(StreamBytes()
                 .cycle(1, 4)
                 .whole(1, pattern(size, 1))
                 .whole(2, described(wide).packed())
                 .whole(4, pattern(size, 1))
                 .whole(5, described(nested + "int8 x at 0\n" + ends).packed()));
    EXPECT_LT(tap.json().size(), 64U << 20);
    EXPECT_NE(tap.json().find("\"name\":\"Wide\",\"fields\":null"), std::string::npos);
    EXPECT_LT(tap.text().size(), 8U << 20);
    EXPECT_NE(tap.text().find("the rest is left out"), std::string::npos);
}

TEST(StreamModel, PictureIsAlignedAndReadable)
{
    Tap tap;
    tap.feed(StreamBytes().cycle(7, 1).header(300, 1, 5, -3, 5).raw(pattern(5, 0))).wait(milliseconds(1000));
    const Bytes track = described("record Track size 72\nfloat32 gain at 0\nuint16 hist[10] at 4\n"
                                  "struct pos[4][2] at 24 size 4\nint8 x[4] at 0\nend\n"
                                  "int8 name[8] at 56\nend\n")
                            .packed();
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
    cycle.cycle(8, 5).part(12, 2, pattern(70000, 0), 0, 0, 35000).whole(200, record).whole(201, track);
    tap.feed(diagnosticsPair(cycle)).wait(milliseconds(1000));
    EXPECT_EQ(tap.text(), R"(host:7000   streaming for 2.0 s   cycle 8   1.0 cycles/s   17.9 kB/s

channel  kind    size  rate/s  kB/s  parts    age  lost  content
     12  split  70000     0.0  17.5      2      -     0
    200  whole     72     0.5   0.0      1  1.0 s     0  Track
    201  whole    126     0.5   0.1      1  1.0 s     0  describes 200
    300  once       5       -     -      1  2.0 s     0
  10998  whole    208     0.5   0.1      1  1.0 s     0  LodestoneDiag
  10999  whole    256     0.5   0.1      1  1.0 s     0  describes 10998

host   queue length 3   buffers skipped 12
package  calls  last ms  avg ms  max ms  total ms  waited  skipped
    100     51    0.125   0.250   2.500      12.8  no      yes
      7     51    0.125   0.250   2.500      12.8  no      yes

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
      numCalls                 51          51
      avgRuntimeMsecs        0.25        0.25
)");
}

TEST(StreamModel, ValuesThatJsonDoesNotHaveBecomeNull)
{
    const Bytes description =
        described("record F size 24\nfloat32 f[2] at 0\nfloat64 d at 8\nint16 m[2][2] at 16\nend\n").packed();
    const Bytes record = {0x00, 0x00, 0xC0, 0x7F, 0xCD, 0xCC, 0xCC, 0x3D, 0, 0, 0, 0,
                          0,    0,    0xF0, 0xFF, 1,    0,    2,    0,    3, 0, 4, 0};
    Tap tap;
    tap.feed(StreamBytes().cycle(1, 2).whole(4, record).whole(5, description));
    EXPECT_NE(tap.json().find(R"("fields":{"f":[null,0.1],"d":null,"m":[[1,2],[3,4]]})"), std::string::npos)
        << tap.json();
}
