#include "StreamDecoder.h"

#include "ReaderError.h"
#include "support/StreamBytes.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>

using namespace LodestoneTap;
using namespace LodestoneTapTest;

namespace
{

/// Writes each event as a line.
class Recorder : public StreamEvents
{
public:
    void cycleBegin(const Cycle& cycle) override
    {
        line() << "begin " << cycle.cycleCounter << " of " << cycle.numberOfEntries;
    }
    void channelEntry(const Cycle&, ChannelEntry& entry) override
    {
        line() << entry.header.channelID << " " << entry.header.partNumber << "/"
               << entry.header.numberOfParts << " of " << entry.header.totalSize << ":";
        for (const std::uint8_t byte : entry.payload.bytes) {
            m_text << " " << std::hex << unsigned{byte} << std::dec;
        }
    }
    void cycleEnd(const Cycle& cycle) override
    {
        line() << "end " << cycle.cycleCounter << (cycle.kind == CycleKind::ONCE ? " once" : " normal");
    }
    std::string text() const { return m_text.str(); }

private:
    std::ostream& line() { return m_text << "\n"; }
    std::ostringstream m_text;
};

/// A decoder with all that it needs.
struct Reader
{
    void feed(const Bytes& bytes) { decoder.feed(bytes.data(), bytes.size()); }

    std::string errorOf(const Bytes& bytes)
    {
        try {
            feed(bytes);
        } catch (const StreamError& error) {
            return error.what();
        }
        return "";
    }

    Recorder events;
    MemoryBudget budget = MemoryBudget(1 << 20);
    StreamDecoder decoder = StreamDecoder(events, budget);
};

} // namespace

TEST(StreamDecoder, WorkedExampleByteForByteInAnyPieces)
{
    const Bytes stream = {
        0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,       // cycle 7, 1 entry
        0x2C, 0x01, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00,       // 300, 1 part, 5 bytes
        0xFD, 0xFF, 0xFF, 0xFF, 0x05, 0x00, 0x00, 0x00, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4, // part -3, 5 bytes
        0x00, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x80, 0x02, 0x00, 0x00, 0x00,       // cycle 2^31 + 8
        0x0C, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x00,       // 12, 3 parts, 10 bytes
        0x01, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03,             // part 1, 3 bytes
        0x0D, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, // 13, 1 part, -2^31 bytes
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,                         // part 0, no payload
    };
    const std::string events = "\nbegin 7 of 1\n300 -3/1 of 5: a0 a1 a2 a3 a4\nend 7 once"
                               "\nbegin 2147483656 of 2\n12 1/3 of 10: 1 2 3\n13 0/1 of -2147483648:"
                               "\nend 2147483656 normal";
    Reader reader;
    reader.feed(stream);
    EXPECT_EQ(reader.events.text(), events);
    EXPECT_EQ(reader.decoder.offset(), stream.size());
    EXPECT_EQ(reader.budget.usedBytes(), 0U);
    for (std::size_t size = 1; size < stream.size(); ++size) {
        Reader pieces;
        for (std::size_t at = 0; at < stream.size(); at += size) {
            pieces.decoder.feed(stream.data() + at, std::min(size, stream.size() - at));
            EXPECT_EQ(pieces.decoder.insideCycle(), at + size != 37 && at + size < stream.size())
                << at + size;
        }
        EXPECT_EQ(pieces.events.text(), events) << "pieces of " << size;
    }
}

TEST(StreamDecoder, BrokenStreamNamesItsPlace)
{
    const std::int64_t biggest = INT32_MAX;
    // Each begins behind a good cycle of 37 bytes, which is cycle 7.
    const struct
    {
        StreamBytes tail;
        const char* error;
    } cases[] = {
        {StreamBytes().number(1).number(9).number(1), "37, cycle 9: version 1, must be 0"},
        {StreamBytes().cycle(8, 0), "45, cycle 8: numberOfChannelsInCycle 0, must be 1 to 1048576"},
        {StreamBytes().cycle(-1, biggest),
         "45, cycle 4294967295: numberOfChannelsInCycle 2147483647, must be 1 to 1048576"},
        {StreamBytes().cycle(8, 1).header(-5, 1, 0, 0, 0), "49, cycle 8: channelID -5"},
        {StreamBytes().cycle(8, 1).header(12, 0, 0, 0, 0), "53, cycle 8: channel 12 has numberOfParts 0"},
        {StreamBytes().cycle(8, 1).header(12, 3, 9, -1, 3),
         "53, cycle 8: channel 12 has numberOfParts 3 in a ONCE cycle"},
        {StreamBytes().cycle(8, 1).header(12, 3, 9, 3, 3), "61, cycle 8: channel 12 has partNumber 3 of 3"},
        {StreamBytes().cycle(8, 2).whole(12, {}).header(13, 1, 0, -1, 0),
         "81, cycle 8: channel 13 has partNumber -1 in a NORMAL cycle"},
        {StreamBytes().cycle(8, 2).header(12, 1, 0, -4, 0).header(13, 1, 0, -5, 0),
         "81, cycle 8: channel 13 has partNumber -5 in a ONCE cycle that began with -4"},
        {StreamBytes().cycle(8, 1).header(12, 3, 10, 2, 3),
         "65, cycle 8: channel 12 has partByteSize 3, but part 2 of 3 of 10 bytes has 4"},
        {StreamBytes().cycle(8, 1).header(12, 5, 2, 4, 1),
         "65, cycle 8: channel 12 has partByteSize 1, but part 4 of 5 of 2 bytes has 0"},
        {StreamBytes().cycle(8, 1).header(12, 1, -1, 0, -1),
         "65, cycle 8: channel 12 has partByteSize -1, but part 0 of 1 of -1 bytes has 0"},
        {StreamBytes().cycle(8, 1).header(12, 1, biggest, 0, biggest),
         "49, cycle 8: channel 12: 2147483647 more bytes are over the memory limit of 1048576 bytes, 0 are "
         "in use"},
    };
    for (const auto& item : cases) {
        Reader reader;
        reader.feed(StreamBytes().cycle(7, 1).whole(300, pattern(5, 0)).bytes());
        EXPECT_EQ(reader.errorOf(item.tail.bytes()), std::string("stream broken at byte ") + item.error);
    }
}
