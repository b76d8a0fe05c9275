#include "StreamModel.h"

#include "JsonPicture.h"
#include "TextPicture.h"
#include "support/DescriptionBytes.h"

#include <algorithm>
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
    std::string row(std::size_t number) const { return textPicture(picture(), "host:7000")[number]; }
    std::string json() const { return jsonPicture(picture(), "host:7000", ""); }

private:
    StreamModel::TimePoint m_now = StreamModel::TimePoint(std::chrono::hours(1));
    StreamModel m_model = StreamModel(m_now);
};

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
    tap.feed(StreamBytes().cycle(40, 1).whole(13, pattern(2000, 0)));
    tap.feed(StreamBytes().cycle(21, 1).header(300, 1, 5, -3, 5).raw(pattern(5, 0)));
    for (unsigned i = 0; i < 9; ++i) {
        tap.wait(milliseconds(100)).feed(StreamBytes().cycle(24 + i, 1).whole(13, pattern(2000, 0)));
    }
    tap.wait(milliseconds(100));
    EXPECT_EQ(tap.row(0), "host:7000   streaming for 1.0 s   cycle 32   11.0 cycles/s   20.4 kB/s   "
                          "2 cycles missed");
    EXPECT_EQ(tap.row(3), "     13  whole  2000    10.0  20.0      1  100 ms     0");
    EXPECT_EQ(tap.picture().onceCycles, 1U);
    tap.wait(milliseconds(5000));
    EXPECT_EQ(tap.row(0), "host:7000   streaming for 6.0 s   cycle 32   0.0 cycles/s   0.0 kB/s   "
                          "2 cycles missed   SILENT for 5.1 s");
    tap.feed(StreamBytes().cycle(33, 1).whole(13, pattern(9000, 0)));
    EXPECT_EQ(tap.row(3), "     13  whole  9000     0.2   2.0      1   0 ms     0") << "old buffers are back";
}

TEST(StreamModel, TextsOfAHostileRecordStayBounded)
{
    // A line of text for every byte of the record, and 200 characters.
    std::string layout = "record Nested size 1048576\n";
    std::string ends = "end\n";
    for (std::uint32_t bytes = 1U << 18; bytes > 0; bytes /= 4) {
        layout += "struct s[4] at 0 size " + std::to_string(bytes) + "\n";
        ends += "end\n";
    }
    layout += "int8 " + std::string(200, 'x') + " at 0\n" + ends;
    Tap tap;
    tap.feed(StreamBytes().cycle(1, 2).whole(4, pattern(1U << 20, 1)).whole(5, described(layout).packed()));
    EXPECT_NE(tap.json().find(R"("name":"Nested","fields":null)"), std::string::npos);
    EXPECT_LT(tap.text().size(), 8U << 20);
    EXPECT_NE(tap.text().find("the rest is left out"), std::string::npos);
}

TEST(StreamModel, PictureIsAlignedAndReadable)
{
    const Bytes track = described("record Track size 72\nfloat32 gain[2] at 0\nuint16 hist[9] at 8\n"
                                  "struct pos[4][2] at 28 size 4\nstruct p at 0 size 4\nint8 x[4] at 0\n"
                                  "end\nend\nint8 name[8] at 60\nend\n")
                            .packed();
    Bytes record(72, 0);
    const Bytes numbers = {0xCD, 0xCC, 0xCC, 0x3D, 0, 0, 0x80, 0xFF, 1}; // 0.1, -infinity, 1
    std::copy(numbers.begin(), numbers.end(), record.begin());
    for (std::size_t i = 32; i < 60; ++i) {
        record[i] = static_cast<std::uint8_t>(i - 60);
    }
    record[60] = 'T';
    record[61] = '1';
    Tap tap;
    tap.feed(StreamBytes().cycle(7, 1).header(300, 1, 5, -3, 5).raw(pattern(5, 0))).wait(milliseconds(1000));
    tap.feed(StreamBytes()
                 .cycle(8, 5)
                 .part(12, 2, pattern(70000, 0), 0, 0, 35000)
                 .whole(200, record)
                 .whole(201, track)
                 .whole(10998, diagnosticsRecord())
                 .whole(10999, diagnosticsDescription()));
    const std::string text = tap.wait(milliseconds(1000)).text();
    EXPECT_EQ(text.substr(0, text.find("\nLodestoneDiag")),
              R"(host:7000   streaming for 2.0 s   cycle 8   1.0 cycles/s   17.9 kB/s

channel  kind    size  rate/s  kB/s  parts    age  lost  content
     12  split  70000     0.0  17.5      2      -     0
    200  whole     72     0.5   0.0      1  1.0 s     0  Track
    201  whole    135     0.5   0.1      1  1.0 s     0  describes 200
    300  once       5       -     -      1  2.0 s     0
  10998  whole    208     0.5   0.1      1  1.0 s     0  LodestoneDiag
  10999  whole    256     0.5   0.1      1  1.0 s     0  describes 10998

host   queue length 3   buffers skipped 12
package  calls  last ms  avg ms  max ms  total ms  waited  skipped
    100     51    0.125   0.250   2.500      12.8  no      yes
      7     51    0.125   0.250   2.500      12.8  no      yes

Track   channel 200   cycle 8
  gain[2]    0.1 -inf
  hist[9]    1 0 0 0 0 0 0 0 +1
  pos[4][2]           [0][1]           [1][0]           [1][1]           [2][0]          [2][1]  2 more
    p
      x[4]   -28 -27 -26 -25  -24 -23 -22 -21  -20 -19 -18 -17  -16 -15 -14 -13  -12 -11 -10 -9
  name[8]    T1
)");
    EXPECT_EQ(tap.json().find(R"({"endpoint":"host:7000","state":"streaming","streaming_s":2,)"), 0U);
    EXPECT_NE(tap.json().find(R"("fields":{"gain":[0.1,null],"hist":[1,0,0,0,0,0,0,0,0],"pos":[[{"p":{"x":[)"
                              R"(0,0,0,0]}},{"p":{"x":[-28,-27,-26,-25]}}],[{"p":{"x":[-24,-23,)"),
              std::string::npos)
        << tap.json();
    EXPECT_NE(
        tap.json().find(R"({"channel":12,"kind":"split","size_bytes":70000,"parts":2,"buffers_per_s":0,)"
                        R"("kB_per_s":17.5,"age_s":null,"buffers":0,"lost":0,"orphan_parts":0})"),
        std::string::npos);
}
