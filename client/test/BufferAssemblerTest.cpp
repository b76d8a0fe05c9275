#include "BufferAssembler.h"

#include "ReaderError.h"
#include "StreamDecoder.h"
#include "support/StreamBytes.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>

using namespace LodestoneTap;
using namespace LodestoneTapTest;

namespace
{

/// A decoder with an assembler behind it, and what comes out: "12:payload" for a buffer, "orphan 12", "lost
/// 12".
class Pipeline : public StreamEvents
{
public:
    Pipeline() : m_assembler(budget), m_decoder(*this, budget) {}

    void feed(const StreamBytes& stream) { m_decoder.feed(stream.bytes().data(), stream.bytes().size()); }

    void cycleBegin(const Cycle&) override {}
    void channelEntry(const Cycle& cycle, ChannelEntry& entry) override
    {
        const std::string channel = std::to_string(entry.header.channelID);
        Payload buffer;
        const BufferAssembler::Result result = m_assembler.add(cycle, entry, buffer);
        if (result == BufferAssembler::Result::COMPLETE) {
            results.push_back(channel + ":" + std::string(buffer.bytes.begin(), buffer.bytes.end()));
        } else if (result == BufferAssembler::Result::ORPHAN) {
            results.push_back("orphan " + channel);
        }
    }
    void cycleEnd(const Cycle& cycle) override
    {
        for (const std::int32_t channelID : m_assembler.cycleEnd(cycle)) {
            results.push_back("lost " + std::to_string(channelID));
        }
    }

    MemoryBudget budget = MemoryBudget(1 << 20);
    std::vector<std::string> results;

private:
    BufferAssembler m_assembler;
    StreamDecoder m_decoder;
};

/// Cycles of parts: "4:1a0,2b1" is cycle 4 with part 0 of buffer a on channel 1 and part 1 of buffer b on
/// channel 2. A buffer is six times its letter, in three parts.
StreamBytes course(const std::string& text)
{
    StreamBytes stream;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        stream.cycle(word[0] - '0', static_cast<std::int64_t>(word.size() - 1) / 4);
        for (std::size_t at = 2; at < word.size(); at += 4) {
            const Bytes buffer(6, static_cast<std::uint8_t>(word[at + 1]));
            stream.part(word[at] - '0', 3, buffer, word[at + 2] - '0', 0, 2);
        }
    }
    return stream;
}

} // namespace

TEST(BufferAssembler, PartsOfAllSizesComeTogether)
{
    const struct
    {
        std::string buffer;
        std::vector<std::size_t> sizes;
    } cases[] = {{"abcdefghij", {3, 3, 4}}, {"ab", {1, 1, 0, 0, 0}}, {"", {0, 0, 0}}, {"abc", {3}}};
    for (const auto& item : cases) {
        Pipeline pipeline;
        const Bytes buffer(item.buffer.begin(), item.buffer.end());
        const auto parts = static_cast<std::int64_t>(item.sizes.size());
        std::int64_t part = 0;
        std::size_t offset = 0;
        for (const std::size_t size : item.sizes) {
            EXPECT_TRUE(pipeline.results.empty());
            // The counter wraps on the way.
            pipeline.feed(StreamBytes().cycle(part - 1, 1).part(4, parts, buffer, part, offset, size));
            offset += size;
            ++part;
        }
        EXPECT_EQ(pipeline.results, std::vector<std::string>{"4:" + item.buffer}) << parts << " parts";
        EXPECT_EQ(pipeline.budget.usedBytes(), 0U);
    }
}

TEST(BufferAssembler, PartsThatAreMissingCostTheirBufferOnly)
{
    const struct
    {
        const char* course;
        std::vector<std::string> results;
    } cases[] = {
        // Begins in the middle of a buffer.
        {"4:1a1 5:1a2 6:1b0 7:1b1 8:1b2", {"orphan 1", "orphan 1", "1:bbbbbb"}},
        // A part is left out, then a cycle.
        {"4:1a0 5:2c0 6:1a2,2c1 7:2c2", {"lost 1", "orphan 1", "2:cccccc"}},
        {"4:1a0 6:1a1 7:1b0 8:1b1 9:1b2", {"orphan 1", "lost 1", "1:bbbbbb"}},
        // A buffer is begun anew.
        {"4:1a0 5:1b0 6:1b1 7:1b2", {"lost 1", "1:bbbbbb"}},
        // Two buffers of a channel one behind the other, and side by side.
        {"4:0a0 5:0b0,0a1 6:0b1,0a2 7:0b2", {"0:aaaaaa", "0:bbbbbb"}},
        {"4:0a0,0b0 5:0a1,0b1 6:0a2,0b2", {"0:aaaaaa", "0:bbbbbb"}},
    };
    for (const auto& item : cases) {
        Pipeline pipeline;
        pipeline.feed(course(item.course));
        EXPECT_EQ(pipeline.results, item.results) << item.course;
        EXPECT_EQ(pipeline.budget.usedBytes(), 0U) << item.course;
    }
}

TEST(BufferAssembler, ContradictionsAndGreedAreErrors)
{
    const struct
    {
        StreamBytes second;
        const char* error;
    } cases[] = {
        {StreamBytes().cycle(5, 1).header(1, 3, 7, 1, 2).raw({1, 2}),
         "1: totalSize is 7 in part 1 and was 6 in part 0"},
        {StreamBytes().cycle(5, 1).header(1, 2, 6, 1, 3).raw({1, 2, 3}),
         "1: numberOfParts is 2 in part 1 and was 3 in part 0"},
        {StreamBytes().cycle(5, 1).header(9, 1 << 20, 1 << 20, 0, 1).raw({1}),
         "9: 1048832 more bytes are over the memory limit of 1048576 bytes, 263 are in use"},
    };
    for (const auto& item : cases) {
        Pipeline pipeline;
        pipeline.feed(course("4:1a0"));
        try {
            pipeline.feed(item.second);
            ADD_FAILURE() << "accepted: " << item.error;
        } catch (const StreamError& error) {
            EXPECT_EQ(error.what(), std::string("stream broken at byte 46, cycle 5: channel ") + item.error);
        }
    }
}
