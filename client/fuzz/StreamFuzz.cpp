#include "FuzzTarget.h"
#include "JsonCheck.h"
#include "JsonPicture.h"
#include "ReaderError.h"
#include "StreamModel.h"
#include "StreamScript.h"
#include "TextPicture.h"

#include <algorithm>
#include <malloc.h>
#include <random>
#include <string>

// Any bytes as a stream. The first one says how they are cut into pieces and, by its high bit, whether the
// others are the stream itself or a script for one. However it is cut, the stream tells the same; what it
// tells adds up; and it takes no more memory than what has come justifies, whatever sizes it announces.

/// Of the sanitizers' allocator, if there is one; it knows nothing of mallinfo.
extern "C" __attribute__((weak)) std::size_t __sanitizer_get_current_allocated_bytes();

using namespace LodestoneTap;
using LodestoneTapTest::Bytes;
using LodestoneTapTest::StreamBytes;

namespace
{

constexpr std::uint64_t MEMORY_LIMIT = 4U << 20;
constexpr std::size_t INFLATED_LIMIT = 16U << 10;

// What a model may hold after `received` bytes. The smallest entry, 20 bytes, brings a channel of half a
// kilobyte.
constexpr std::size_t FIXED_MEMORY = 128U << 10;
constexpr std::size_t MEMORY_PER_BYTE = 64;

/// All bytes of the program that are allocated and not freed.
std::size_t liveBytes()
{
    if (__sanitizer_get_current_allocated_bytes != nullptr) {
        return __sanitizer_get_current_allocated_bytes();
    }
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

/// The pieces in which a stream comes: all of it at once, or cut at random.
class Cuts
{
public:
    static constexpr unsigned NONE = 0xFFFF;

    explicit Cuts(unsigned seed) : m_whole(seed == NONE), m_random(seed + 1)
    {
        static const std::size_t longest[] = {1, 5, 40, 1500};
        m_longest = longest[seed % 4];
    }

    std::size_t next(std::size_t left) { return m_whole ? left : std::min(left, 1 + m_random() % m_longest); }

private:
    const bool m_whole;
    std::minstd_rand m_random;
    std::size_t m_longest;
};

/// Calls `feed` for each piece and gives the error that ended it, if one did.
template<typename Feed>
std::string feedPieces(const Bytes& stream, Cuts cuts, Feed feed)
{
    try {
        for (std::size_t at = 0; at < stream.size();) {
            const std::size_t size = cuts.next(stream.size() - at);
            feed(stream.data() + at, size);
            at += size;
        }
    } catch (const StreamError& error) {
        return error.what();
    }
    return "";
}

/// Writes the stream again from its events.
class Transcript : public StreamEvents
{
public:
    Transcript(const Bytes& stream, Cuts cuts)
    {
        MemoryBudget budget(MEMORY_LIMIT);
        {
            StreamDecoder decoder(*this, budget);
            m_error = feedPieces(stream, cuts, [&decoder](const std::uint8_t* data, std::size_t size) {
                decoder.feed(data, size);
            });
            m_isComplete = !decoder.insideCycle();
            m_end = decoder.offset();
        }
        fuzzCheck(budget.usedBytes() == 0, "all of the budget is given back");
        const Bytes& told = m_told.bytes();
        fuzzCheck(told.size() <= stream.size() && std::equal(told.begin(), told.end(), stream.begin()),
                  "the events tell what came");
        fuzzCheck(!m_error.empty() || m_end == stream.size(), "all bytes are taken");
        fuzzCheck(!m_error.empty() || !m_isComplete || told.size() == stream.size(), "all bytes are told");
    }

    bool operator==(const Transcript& other) const
    {
        return m_told.bytes() == other.m_told.bytes() && m_marks == other.m_marks &&
               m_error == other.m_error && m_isComplete == other.m_isComplete && m_end == other.m_end;
    }

    const std::string& error() const { return m_error; }

private:
    void cycleBegin(const Cycle& cycle) override
    {
        m_marks += '(';
        m_entries = 0;
        m_told.cycle(cycle.cycleCounter, cycle.numberOfEntries);
    }

    void channelEntry(const Cycle& cycle, ChannelEntry& entry) override
    {
        const Lodestone::IOT_ChannelHeader& header = entry.header;
        ++m_entries;
        m_marks += cycle.kind == CycleKind::ONCE ? 'o' : 'n';
        fuzzCheck((header.partNumber < 0) == (cycle.kind == CycleKind::ONCE), "kind of the cycle");
        m_told.header(header.channelID, header.numberOfParts, header.totalSize, header.partNumber,
                      header.partByteSize);
        m_told.raw(entry.payload.bytes);
        fuzzCheck(entry.payload.bytes.size() == static_cast<std::size_t>(header.partByteSize),
                  "size of the part");
    }

    void cycleEnd(const Cycle& cycle) override
    {
        m_marks += ')';
        fuzzCheck(m_entries == cycle.numberOfEntries, "number of entries");
    }

    StreamBytes m_told;
    std::string m_marks; // the events, in their order
    std::string m_error;
    bool m_isComplete = false;
    std::uint64_t m_end = 0;
    std::int32_t m_entries = 0;
};

void checkPicture(const StreamPicture& picture)
{
    for (const RecordPicture& record : picture.records) {
        fuzzCheck(record.description->root().size == record.bytes->size(), "the record fits its description");
    }
    fuzzCheck(!picture.host || picture.host->packages.size() <= HostDiagnostics::MAX_PACKAGES, "packages");
    for (const std::string& line : textPicture(picture, "host")) {
        fuzzCheck(std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; }),
                  "a line of plain text: " + line);
    }
}

/// A model that is watched while it reads.
class WatchedModel
{
public:
    explicit WatchedModel(const StreamLimits& limits) : m_before(liveBytes()), m_model(NOW, limits) {}

    /// Returns the error.
    std::string read(const Bytes& stream, Cuts cuts)
    {
        const std::size_t step = stream.size() / 16 + 1; // the look isn't cheap
        std::string error =
            feedPieces(stream, cuts, [this, step](const std::uint8_t* data, std::size_t size) {
                m_received += size;
                m_model.feed(data, size, NOW);
                if (m_received >= m_nextLook) {
                    m_nextLook = m_received + step;
                    checkMemory();
                }
            });
        checkMemory();
        return error;
    }

    StreamPicture picture() const { return m_model.picture(NOW + std::chrono::seconds(1)); }

private:
    static constexpr StreamModel::TimePoint NOW = StreamModel::TimePoint(std::chrono::hours(1));

    void checkMemory() const
    {
        const std::size_t held = liveBytes() - m_before;
        fuzzCheck(held <= FIXED_MEMORY + MEMORY_PER_BYTE * m_received,
                  std::to_string(held) + " bytes are held after " + std::to_string(m_received));
    }

    std::size_t m_before;
    std::size_t m_received = 0;
    std::size_t m_nextLook = 0;
    StreamModel m_model;
};

/// All that the model tells of a stream, as JSON.
std::string tellAll(const Bytes& stream, Cuts cuts)
{
    StreamLimits limits;
    limits.memoryBytes = MEMORY_LIMIT;
    limits.maxInflatedBytes = INFLATED_LIMIT;
    WatchedModel model(limits);
    const std::string error = model.read(stream, cuts);
    StreamPicture picture = model.picture();
    picture.bytesPerSecond = 0.0; // counts the whole piece in which the error is
    checkPicture(picture);
    std::string json = jsonPicture(picture, "host", error);
    fuzzCheck(isJson(json), "no JSON: " + json);
    return json;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    const Bytes input(data + 1, data + size);
    const bool isScript = (data[0] & 0x80) != 0;
    const Bytes stream = isScript ? streamOfScript(input) : input;
    const Cuts cuts(data[0] & 0x7FU);
    const Transcript whole(stream, Cuts(Cuts::NONE));
    fuzzCheck(!isScript || whole.error().empty(), "a sound stream is refused: " + whole.error());
    fuzzCheck(whole == Transcript(stream, cuts), "the decoder tells the same in pieces");
    const std::string told = tellAll(stream, Cuts(Cuts::NONE));
    const std::string toldInPieces = tellAll(stream, cuts);
    fuzzCheck(told == toldInPieces, "the model tells the same in pieces:\n" + told + "\n" + toldInPieces);
    return 0;
}
