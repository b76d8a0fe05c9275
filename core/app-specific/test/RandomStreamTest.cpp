#include "StreamFixture.h"

#include <algorithm>
#include <map>
#include <random>
#include <thread>

namespace
{

// The bytes of a buffer follow from its channel and frame, so that a reader can check each of them.
std::string contentOf(int channelID, std::uint32_t frameNo, std::size_t size)
{
    std::string bytes(size, '\0');
    std::uint32_t state = frameNo * 2654435761U + static_cast<std::uint32_t>(channelID);
    for (std::size_t k = 0; k < size; ++k) {
        if (k < 4) {
            bytes[k] = static_cast<char>(frameNo >> (8 * k));
        } else {
            state = state * 1664525U + 1013904223U;
            bytes[k] = static_cast<char>(state >> 24);
        }
    }
    return bytes;
}

std::uint32_t frameOf(const std::string& bytes)
{
    std::uint32_t frameNo = 0;
    for (std::size_t k = 0; k < 4; ++k) {
        frameNo |= static_cast<std::uint32_t>(static_cast<std::uint8_t>(bytes[k])) << (8 * k);
    }
    return frameNo;
}

/// A client on a thread of its own that reads all it gets and checks it.
class CheckingReader
{
public:
    CheckingReader(std::unique_ptr<StreamClient> client, unsigned seed)
        : m_client(std::move(client)), m_random(seed), m_thread([this] { run(); })
    {}
    ~CheckingReader()
    {
        m_stop = true;
        m_thread.join();
    }

    CheckingReader(const CheckingReader&) = delete;
    CheckingReader& operator=(const CheckingReader&) = delete;

    /// Cycles read; the other results may be looked at when this says that the last one is there.
    std::uint32_t cycles() const { return m_cycles; }
    std::uint32_t lastCounter() const { return m_lastCounter; }
    std::uint32_t complete() const { return m_complete; }
    const std::vector<std::string>& faults() const { return m_faults; }
    void vanish() { m_client->vanish(); }

private:
    void run()
    {
        while (!m_stop) {
            if (!m_client->somethingWaits()) {
                std::this_thread::yield();
                continue;
            }
            const WireCycle cycle = m_client->readCycle();
            if (!cycle.complete) {
                return; // the connection ended, which may be in the middle of anything
            }
            check(cycle);
            if (m_random() % 200 == 0) {
                std::this_thread::yield(); // a reader that stutters
            }
            m_lastCounter = cycle.counter;
            ++m_cycles;
        }
    }

    void check(const WireCycle& cycle)
    {
        if (m_cycles != 0 && cycle.counter != m_lastCounter + 1) {
            m_faults.push_back("gap before cycle " + std::to_string(cycle.counter));
        }
        if (cycle.isOnce() != (cycle.find(10998) == nullptr)) {
            m_faults.push_back("diagnostics pair in the wrong kind of cycle");
        }
        for (const WireEntry& entry : cycle.entries) {
            if (entry.channelID < 10000) {
                assemble(entry);
            }
        }
    }

    void assemble(const WireEntry& entry)
    {
        std::string& bytes = m_parts[entry.channelID];
        if (entry.partNumber <= 0) {
            bytes.clear();
        }
        bytes += entry.payload;
        if (entry.partNumber >= 0 && entry.partNumber != entry.numberOfParts - 1) {
            return;
        }
        const auto size = static_cast<std::size_t>(entry.totalSize);
        if (bytes.size() != size || bytes != contentOf(entry.channelID, frameOf(bytes), size)) {
            m_faults.push_back("wrong bytes on channel " + std::to_string(entry.channelID));
        }
        std::uint32_t& last = m_lastFrame[entry.channelID];
        if (frameOf(bytes) <= last) {
            m_faults.push_back("out of order on channel " + std::to_string(entry.channelID));
        }
        last = frameOf(bytes);
        m_complete += entry.partNumber >= 0 ? 1 : 0;
        bytes.clear();
    }

    std::unique_ptr<StreamClient> m_client;
    std::mt19937 m_random;
    std::map<int, std::string> m_parts;
    std::map<int, std::uint32_t> m_lastFrame;
    std::vector<std::string> m_faults;
    std::atomic<bool> m_stop{false};
    std::atomic<std::uint32_t> m_cycles{0};
    std::atomic<std::uint32_t> m_lastCounter{0};
    std::atomic<std::uint32_t> m_complete{0};
    std::thread m_thread; // last: it uses all the others
};

} // namespace

/// Random frames and configurations against random clients; loss exactly as counted.
class RandomStreamTest : public StreamFixture, public ::testing::WithParamInterface<const char*>
{
protected:
    int dice(int sides) { return std::uniform_int_distribution<int>(0, sides - 1)(m_random); }

    Frame randomFrame()
    {
        ++m_frameNo;
        Frame frame;
        for (int channelID = 1; channelID <= 9; ++channelID) {
            if (dice(3) != 0) {
                const auto size = static_cast<std::size_t>(4 + dice(channelID == 2 ? 20000 : 300));
                frame.emplace_back(channelID, contentOf(channelID, m_frameNo, size));
            }
        }
        frame.emplace_back(20, contentOf(20, m_frameNo, 16)); // a once channel in every frame
        return frame;
    }

    // Delivers and counts what the stream owes its reader: buffers that are due, whether sent or skipped.
    void deliverCounting(const Lodestone::ConfigStringParser::Config& config)
    {
        const Frame frame = randomFrame();
        const std::uint32_t skippedBefore = m_probe->numSkipped();
        const Lodestone::PerPackageDiag* const diag = deliver(frame);
        for (const auto& buffer : frame) {
            if (Lodestone::inSet(config.nonSplitChannels, buffer.first) ||
                Lodestone::inSet(config.splitChannels, buffer.first)) {
                ++m_owed;
            } else if (Lodestone::inSet(config.intermittentChannels, buffer.first)) {
                m_owed += m_carried[buffer.first]++ % config.intermittentCount == 0 ? 1 : 0;
            }
        }
        if (diag != nullptr) {
            EXPECT_EQ(diag->skipped != 0, m_probe->numSkipped() != skippedBefore);
        }
    }

    // A transfer with a client that reads all: what is owed arrives, but for what is counted as skipped.
    void exactTransfer(const Lodestone::ConfigStringParser::Config& config)
    {
        m_owed = 0;
        m_carried.clear();
        CheckingReader reader(connectClient(), static_cast<unsigned>(dice(1 << 30)));
        ASSERT_TRUE(waitFor([&] {
            if (m_probe->state() == 2 && m_probe->senderRunning() && !m_probe->restartMarked()) {
                return true;
            }
            deliver(randomFrame());
            return false;
        }));
        const int frames = 200 + dice(400);
        for (int k = 0; k < frames; ++k) {
            deliverCounting(config);
            if (dice(20) == 0) {
                std::this_thread::yield();
            }
        }
        EXPECT_TRUE(waitFor([&] { return m_probe->storeEmpty(); }));
        EXPECT_TRUE(waitFor([&] { return reader.lastCounter() + 1 == m_probe->nextCycle(); }));
        EXPECT_EQ(reader.complete() + m_probe->numSkipped(), m_owed);
        EXPECT_EQ(reader.faults(), std::vector<std::string>());
    }

    // A client that goes in the middle of something, perhaps pushed out by another one.
    void brokenTransfer()
    {
        const bool takeover = dice(2) == 0;
        CheckingReader reader(connectClient(), static_cast<unsigned>(dice(1 << 30)));
        const int frames = dice(60);
        for (int k = 0; k < frames; ++k) {
            deliver(randomFrame());
        }
        std::unique_ptr<StreamClient> next;
        if (takeover) {
            next = connectClient();
            for (int k = 0; k < frames; ++k) {
                deliver(randomFrame());
            }
        }
        EXPECT_EQ(reader.faults(), std::vector<std::string>());
    }

    // The next transfer begins with nothing left of this one.
    void loseClient()
    {
        EXPECT_TRUE(waitFor([&] {
            deliver(randomFrame());
            return !m_probe->connected() && !m_probe->senderRunning() && m_probe->storeEmpty();
        }));
    }

    std::mt19937 m_random;
    std::uint32_t m_frameNo = 0;
    std::uint32_t m_owed = 0;
    std::map<int, int> m_carried;
};

TEST_P(RandomStreamTest, LossIsExactlyAsCounted)
{
    m_random.seed(testSeed());
    openQueue(GetParam());
    Lodestone::ConfigStringParser parser;
    parser.parseString(std::string("0,5000,") + GetParam());
    for (int round = 0; round < 6 && !HasFailure(); ++round) {
        exactTransfer(parser.getConfig());
        loseClient();
        brokenTransfer();
        loseClient();
    }
}

INSTANTIATE_TEST_SUITE_P(Configurations, RandomStreamTest,
                         ::testing::Values("4,3,2:1,n:2,n:3,s:4,s:5,i:6,i:20,o",
                                           "4,3,-2:1,n:2,n:3,s:4,s:5,i:20,o", "1,2,-1:1,n:2,s:3,i:20,o",
                                           "50,1,20:1,n:2,s:3,s:7,n:20,o",
                                           "7,5,300:1,n:2,n:3,n:4,s:5,i:20,o"));
