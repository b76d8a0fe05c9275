#include "BufferAssembler.h"

#include "ReaderError.h"
#include "StreamDecoder.h"
#include "support/StreamBytes.h"

#include <gtest/gtest.h>
#include <map>
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
        switch (m_assembler.add(cycle, entry, buffer)) {
        case BufferAssembler::Result::COMPLETE:
            results.push_back(channel + ":" + std::string(buffer.bytes.begin(), buffer.bytes.end()));
            break;
        case BufferAssembler::Result::ORPHAN:
            results.push_back("orphan " + channel);
            break;
        case BufferAssembler::Result::PARTIAL:
            break;
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

/// Two bytes a part, three parts: part `part` of the six letters.
void letters(StreamBytes& stream, std::int64_t channel, const std::string& text, std::int64_t part)
{
    stream.part(channel, 3, Bytes(text.begin(), text.end()), part, static_cast<std::size_t>(part) * 2, 2);
}

} // namespace

TEST(BufferAssembler, PartsOfAllSizesComeTogether)
{
    const struct
    {
        std::string buffer;
        std::vector<std::pair<std::size_t, std::size_t>> slices; // offset and size
    } cases[] = {
        {"abcdefghij", {{0, 3}, {3, 3}, {6, 4}}},
        {"ab", {{0, 1}, {1, 1}, {2, 0}, {2, 0}, {2, 0}}},
        {"", {{0, 0}, {0, 0}, {0, 0}}},
        {"", {{0, 0}}},
        {"abc", {{0, 3}}},
        {"abcd", {{0, 1}, {1, 1}, {2, 2}}},
        {"abc", {{0, 1}, {1, 1}, {2, 1}}},
    };
    for (const auto& item : cases) {
        Pipeline pipeline;
        const Bytes buffer(item.buffer.begin(), item.buffer.end());
        const std::size_t parts = item.slices.size();
        for (std::size_t k = 0; k < parts; ++k) {
            EXPECT_TRUE(pipeline.results.empty());
            // The counter wraps on the way.
            pipeline.feed(StreamBytes()
                              .cycle(static_cast<std::int64_t>(k) - 1, 1)
                              .part(4, static_cast<std::int64_t>(parts), buffer, static_cast<std::int64_t>(k),
                                    item.slices[k].first, item.slices[k].second));
        }
        EXPECT_EQ(pipeline.results, std::vector<std::string>{"4:" + item.buffer}) << parts << " parts";
        EXPECT_EQ(pipeline.budget.usedBytes(), 0U);
    }
}

TEST(BufferAssembler, PartsThatAreMissingCostTheirBufferOnly)
{
    struct Part
    {
        std::int64_t channel;
        std::string buffer;
        std::int64_t part;
    };
    typedef std::vector<std::pair<std::int64_t, std::vector<Part>>> Cycles;
    const struct
    {
        const char* name;
        Cycles cycles; // counter and parts
        std::vector<std::string> results;
    } cases[] = {
        {"begins in the middle of a buffer",
         {{4, {{1, "abcdef", 1}}},
          {5, {{1, "abcdef", 2}}},
          {6, {{1, "ghijkl", 0}}},
          {7, {{1, "ghijkl", 1}}},
          {8, {{1, "ghijkl", 2}}}},
         {"orphan 1", "orphan 1", "1:ghijkl"}},
        {"a part is left out",
         {{4, {{1, "abcdef", 0}}},
          {5, {{2, "mnopqr", 0}}},
          {6, {{1, "abcdef", 2}, {2, "mnopqr", 1}}},
          {7, {{2, "mnopqr", 2}}}},
         {"lost 1", "orphan 1", "2:mnopqr"}},
        {"a cycle is left out",
         {{4, {{1, "abcdef", 0}}},
          {6, {{1, "abcdef", 1}}},
          {7, {{1, "ghijkl", 0}}},
          {8, {{1, "ghijkl", 1}}},
          {9, {{1, "ghijkl", 2}}}},
         {"orphan 1", "lost 1", "1:ghijkl"}},
        {"a buffer is begun anew",
         {{4, {{1, "abcdef", 0}}}, {5, {{1, "ghijkl", 0}}}, {6, {{1, "ghijkl", 1}}}, {7, {{1, "ghijkl", 2}}}},
         {"lost 1", "1:ghijkl"}},
        {"two buffers of a channel one behind the other",
         {{4, {{0, "abcdef", 0}}},
          {5, {{0, "ghijkl", 0}, {0, "abcdef", 1}}},
          {6, {{0, "ghijkl", 1}, {0, "abcdef", 2}}},
          {7, {{0, "ghijkl", 2}}}},
         {"0:abcdef", "0:ghijkl"}},
        {"two buffers of a channel side by side",
         {{4, {{0, "abcdef", 0}, {0, "ghijkl", 0}}},
          {5, {{0, "abcdef", 1}, {0, "ghijkl", 1}}},
          {6, {{0, "abcdef", 2}, {0, "ghijkl", 2}}}},
         {"0:abcdef", "0:ghijkl"}},
    };
    for (const auto& item : cases) {
        Pipeline pipeline;
        for (const auto& [counter, parts] : item.cycles) {
            StreamBytes stream;
            stream.cycle(counter, static_cast<std::int64_t>(parts.size()));
            for (const Part& part : parts) {
                letters(stream, part.channel, part.buffer, part.part);
            }
            pipeline.feed(stream);
        }
        EXPECT_EQ(pipeline.results, item.results) << item.name;
        EXPECT_EQ(pipeline.budget.usedBytes(), 0U) << item.name;
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
         "stream broken at byte 46, cycle 5: channel 1: totalSize is 7 in part 1 and was 6 in part 0"},
        {StreamBytes().cycle(5, 1).header(1, 2, 6, 1, 3).raw({1, 2, 3}),
         "stream broken at byte 46, cycle 5: channel 1: numberOfParts is 2 in part 1 and was 3 in part 0"},
        {StreamBytes().cycle(5, 1).header(9, 1 << 20, 1 << 20, 0, 1).raw({1}),
         "stream broken at byte 46, cycle 5: channel 9: 1048832 more bytes are over the memory limit of "
         "1048576 "
         "bytes, 263 are in use"},
    };
    for (const auto& item : cases) {
        Pipeline pipeline;
        StreamBytes first;
        first.cycle(4, 1);
        letters(first, 1, "abcdef", 0);
        pipeline.feed(first);
        try {
            pipeline.feed(item.second);
            ADD_FAILURE() << "accepted: " << item.error;
        } catch (const StreamError& error) {
            EXPECT_STREQ(error.what(), item.error);
        }
    }
}
