#include "LibraryCalls.h"
#include "StreamFixture.h"
#include "sonde_ld_data.h"

#include <algorithm>
#include <sstream>
#include <tuple>

using namespace LibraryCalls;

namespace
{

const int NORMAL_DATA = 2; // the transfer's state

template<std::size_t N>
std::string bytesOf(const char (&literal)[N])
{
    return std::string(literal, N - 1);
}

std::string descriptionBytes()
{
    const void* address = nullptr;
    sonde_size_t size = 0;
    sondeGet_LodestoneDiag(&address, &size);
    return std::string(static_cast<const char*>(address), size);
}

} // namespace

/// The road of a frame to a client's eyes. A test that depends on when the sender takes a cycle holds the
/// sender before each, and lets it go on by hand.
class StreamingTest : public StreamFixture
{
protected:
    void TearDown() override { releaseCycles(); }

    /// The sender stops before the first byte of each cycle from now on.
    void holdCycles() { m_hold = std::make_unique<Hold>(SEND, SENDER, &beginsCycle); }
    bool cycleHeld() const { return m_hold->held(); }
    void releaseCycles() { m_hold.reset(); }

    /// A held sender has come as far as it can: it stands before a cycle, or there is none.
    void settle()
    {
        EXPECT_TRUE(waitFor([&] { return cycleHeld() || m_probe->storeEmpty(); }));
    }

    /// A held sender finishes the cycle in its hand, if there is one, and takes the next.
    void takeCycle()
    {
        if (cycleHeld()) {
            holdCycles(); // the next; then this one may go on
        }
        settle();
    }

    /// The next cycles in one line.
    static std::string read(StreamClient& client, int noCycles)
    {
        std::string line;
        for (bool complete = true; complete && noCycles > 0; --noCycles) {
            const WireCycle cycle = client.readCycle();
            complete = cycle.complete;
            line += (line.empty() ? "" : " | ") + shown(cycle);
        }
        return line;
    }

private:
    std::unique_ptr<Hold> m_hold;
};

TEST_F(StreamingTest, NormalCycleByteForByte)
{
    openQueue("3,1,20:12,s:10,n");
    auto client = connectClient();
    reachNormalData({{10, "x"}});
    const Calls sends(SEND, SENDER);
    deliver({{10, "AB"}, {12, "0123456789"}});
    const std::string profiling(24, '\0');
    const std::string expected = bytesOf("\0\0\0\0\0\0\0\0\4\0\0\0"
                                         "\12\0\0\0\1\0\0\0\2\0\0\0\0\0\0\0\2\0\0\0AB"
                                         "\14\0\0\0\3\0\0\0\12\0\0\0\0\0\0\0\3\0\0\0"
                                         "012"
                                         "\366\52\0\0\1\0\0\0\320\0\0\0\0\0\0\0\320\0\0\0"
                                         "\2\0\0\0\0\0\0\0"
                                         "\0\0\0\0\12\0\0\0\0\0\0\0\0\0\0\0") +
                                 profiling + std::string(4 * 40, '\0') +
                                 bytesOf("\367\52\0\0\1\0\0\0\0\1\0\0\0\0\0\0\0\1\0\0") + descriptionBytes();
    EXPECT_EQ(client->readCycle().bytes, expected);
    EXPECT_EQ(read(*client, 2), "1/0: 12.1=345 | 2/0: 12.2=6789");
    EXPECT_TRUE(waitFor([&] { return m_probe->storeEmpty(); }));
    EXPECT_EQ(sends.sinceThen(), 9 + 7 + 7) << "one for each header and each slice";
    deliver({{10, ""}});
    EXPECT_EQ(read(*client, 1), "3/0: 10=");
    EXPECT_TRUE(waitFor([&] { return m_probe->storeEmpty(); }));
    EXPECT_EQ(sends.sinceThen(), 9 + 7 + 7 + 6) << "none for no bytes";
}

TEST_F(StreamingTest, OnceCycleByteForByte)
{
    openQueue("2,3,20:300,o");
    m_probe->setCycleCounter(7);
    auto client = connectClient();
    deliver({{300, "\xA0\xA1\xA2\xA3\xA4"}});
    EXPECT_EQ(client->readCycle().bytes,
              bytesOf("\0\0\0\0\7\0\0\0\1\0\0\0"
                      "\x2C\1\0\0\1\0\0\0\5\0\0\0\xFD\xFF\xFF\xFF\5\0\0\0\xA0\xA1\xA2\xA3\xA4"));
}

// ---------------------------------------------------------------------------------------------------------------------
// Slices

namespace
{

typedef std::pair<int, int> Slice; ///< Offset and size.
const Slice UNTOUCHED(-7, -7);

Slice cut(int byteSize, int noParts, int partNo)
{
    Lodestone::StoredBuffer buffer;
    buffer.byteSize = byteSize;
    Lodestone::SendJob job(&buffer, noParts, partNo);
    std::tie(job.partOffset, job.partByteSize) = UNTOUCHED;
    Lodestone::QueueProbe::calcOffsetLength(job);
    return Slice(job.partOffset, job.partByteSize);
}

/// All of a buffer, "<offset>+<size>" each.
std::string slicesOf(int byteSize, int noParts)
{
    std::string slices;
    for (int part = 0; part < noParts; ++part) {
        const Slice slice = cut(byteSize, noParts, part);
        slices += (part == 0 ? "" : " ") + std::to_string(slice.first) + "+" + std::to_string(slice.second);
    }
    return slices;
}

} // namespace

TEST_F(StreamingTest, SliceTable)
{
    EXPECT_EQ(slicesOf(100, 1), "0+100");
    EXPECT_EQ(slicesOf(12, 3), "0+4 4+4 8+4");
    EXPECT_EQ(slicesOf(10, 3), "0+3 3+3 6+4");
    EXPECT_EQ(slicesOf(7, 5), "0+1 1+1 2+1 3+1 4+3");
    EXPECT_EQ(slicesOf(3, 5), "0+1 1+1 2+1 0+0 0+0");
    EXPECT_EQ(slicesOf(2, 3), "0+1 1+1 0+0");
    EXPECT_EQ(slicesOf(0, 3), "0+0 0+0 0+0");
    EXPECT_EQ(slicesOf(0, 1), "0+0");
    EXPECT_EQ(slicesOf(-5, 3), "0+0 0+0 0+0");
    EXPECT_EQ(slicesOf(INT32_MIN, 3), "0+0 0+0 0+0");
    EXPECT_EQ(cut(INT32_MAX, 2, 1), Slice(1073741823, 1073741824));
    EXPECT_EQ(cut(10, INT32_MAX, 9), Slice(9, 1));
    EXPECT_EQ(cut(10, INT32_MAX, 10), Slice(0, 0));
    EXPECT_EQ(cut(10, INT32_MAX, INT32_MAX - 1), Slice(0, 0));
    EXPECT_EQ(cut(10, 0, 0), UNTOUCHED) << "there is no such part";
    EXPECT_EQ(cut(10, -1, -2), UNTOUCHED);
    EXPECT_EQ(cut(10, 3, 3), UNTOUCHED);
}

// ---------------------------------------------------------------------------------------------------------------------
// Courses: which delivery ends up in which cycle

namespace
{

/// Deliveries and takes, and what the client then reads.
///
/// A step is ">" for a take, or a delivery: the channels of its array, then "c" if it is the constant one,
/// "~" if the host waits for room, "!" if a buffer is skipped. All buffers are of three bytes, the first of
/// the course "aaa", the second "bbb" and so on. While the host waits the sender takes, one cycle for each
/// sleep. An idle sender takes what comes at once, so the first cycle is always in its hand.
struct Course
{
    const char* name;
    const char* config;
    const char* steps;
    const char* wire;
};

// The case's name for the test runner.
void PrintTo(const Course& course, std::ostream* out)
{
    *out << course.name;
}

const Course COURSES[] = {
    {"OneTakeForEachFrame", "3,1,2:10,n:20,s:30,n", "30  10,20 >  10,20! >  10,20! >  10,20",
     "0/0: 30=aaa | 1/0: 10=bbb 20.0=c | 2/0: 10=ddd 20.1=c | 3/0: 10=fff 20.2=c | 4/2: 10=hhh 20.0=i | 5/2: "
     "20.1=i | 6/2: 20.2=i"},
    {"OneTakeForTwoFrames", "3,1,2:10,n:20,s:30,n", "30  10,20 10,20! >  10,20! 10,20! >  10,20!",
     "0/0: 30=aaa | 1/0: 10=bbb 20.0=c | 2/0: 10=ddd 20.1=c | 3/0: 10=fff 20.2=c | 4/5: 10=jjj"},
    {"NewestDeliveryStandsFirst", "3,1,9:10,n:11,n:20,s:21,s:22,s", "10  20  21,10  11,22",
     "0/0: 10=aaa | 1/0: 21.0=c 10=ddd 20.0=b | 2/0: 11=eee 22.0=f 21.1=c 20.1=b | 3/0: 22.1=f 21.2=c 20.2=b "
     "| 4/0: 22.2=f"},
    {"OnePartIsAWholeBuffer", "1,1,5:10,n:20,s", "10  10,20  20! 10",
     "0/0: 10=aaa | 1/0: 10=bbb 20=ccc | 2/1: 10=eee"},
    {"IntermittentSchedule", "1,3,5:5,i:10,n", "5,10 >  5 >  10 >  5,10 >  5 >  5 >  5 >  5,10 >",
     "0/0: 5=aaa 10=bbb | 1/0: 10=ddd | 2/0: 10=fff | 3/0: 5=ggg | 4/0: 5=jjj 10=kkk"},
    {"IntermittentSkippedLosesItsTurn", "2,2,5:5,i:10,n", "10  5 5 5! 5 > >  5",
     "0/0: 10=aaa | 1/0: 5.0=b | 2/0: 5.1=bb | 3/1: 5.0=f | 4/1: 5.1=ff"},
    {"PositiveAndConstantLimits", "1,1,2:1,n:10,n:11,n", "11  10 10 10! 10!  11  1c 1c! 1 1c!  >  10",
     "0/0: 11=aaa | 1/0: 10=bbb | 2/0: 10=ccc | 3/2: 11=fff | 4/2: 1=ggg | 5/3: 1=iii | 6/4: 10=kkk"},
    {"NegativeLimitOfOneIsInStepWithTheWire", "1,1,-1:10,n:11,n", "10  10~ 10~  11  10,11c!  10~",
     "0/0: 10=aaa | 1/0: 10=bbb | 2/0: 10=ccc | 3/0: 11=ddd | 4/2: 10=ggg"},
    {"NegativeLimitCountsTheCycleInHandButNeverUsesIt", "3,1,-2:10,n:20,s", "10 10 10~  20 20~!  10",
     "0/0: 10=aaa | 1/0: 10=bbb | 2/0: 10=ccc | 3/0: 20.0=d | 4/0: 20.1=d | 5/0: 20.2=d | 6/1: 10=fff"},
    {"ChannelZeroIsNeverLimited", "1,1,-1:0,n", "0 0 0c 0",
     "0/0: 0=aaa | 1/0: 0=bbb | 2/0: 0=ccc | 3/0: 0=ddd"},
    {"ChannelZeroInPartsIsNeverLimited", "2,1,1:0,s:10,n", "10  0 0  10 10!",
     "0/0: 10=aaa | 1/0: 10=ddd 0.0=c 0.0=b | 2/0: 0.1=cc 0.1=bb"},
    {"DuplicatesInOneArray", "2,2,2:5,i:10,n:20,s", "10,10  10,10,20,20  10,10 10,10!  5,5 5,5!",
     "0/0: 10=aaa 10=bbb | 1/0: 10=ccc 10=ddd 20.0=e 20.0=f | 2/0: 10=ggg 10=hhh 20.1=ee 20.1=ff | 3/2: "
     "5.0=k | 4/2: 5.1=kk"},
};

} // namespace

class StreamingCourseTest : public StreamingTest, public ::testing::WithParamInterface<Course>
{
protected:
    void play(const std::string& step)
    {
        const auto marked = [&step](char mark) { return step.find(mark) != std::string::npos; };
        bool waited = false;
        g_atRest = [&] {
            waited = true;
            takeCycle();
        };
        Frame frame;
        std::istringstream channels(step);
        for (int channelID = 0; channels >> channelID; channels.ignore()) {
            frame.emplace_back(channelID, std::string(3, m_letter++));
        }
        const Lodestone::PerPackageDiag* const diag = deliver(frame, marked('c'));
        g_atRest = nullptr;
        settle();
        ASSERT_NE(diag, nullptr);
        EXPECT_EQ(diag->skipped, marked('!') ? 1 : 0);
        EXPECT_EQ(diag->waitedForQueue, marked('~') ? 1 : 0);
        EXPECT_EQ(waited, marked('~'));
    }

    char m_letter = 'a';
};

TEST_P(StreamingCourseTest, ReachesTheClientAsTold)
{
    openQueue(GetParam().config);
    auto client = connectClient();
    // Without once channels the first delivery only moves the transfer on, whatever it is.
    deliver({{0, ""}, {10, "lost"}});
    ASSERT_EQ(m_probe->state(), NORMAL_DATA);
    holdCycles();
    std::istringstream steps(GetParam().steps);
    for (std::string step; steps >> step;) {
        SCOPED_TRACE(step);
        step == ">" ? takeCycle() : play(step);
    }
    releaseCycles();
    const std::string wire = GetParam().wire;
    const auto noCycles = static_cast<int>(1 + std::count(wire.begin(), wire.end(), '|'));
    EXPECT_EQ(read(*client, noCycles), wire);
    EXPECT_TRUE(waitFor([&] { return m_probe->storeEmpty(); }));
    EXPECT_EQ(m_probe->nextCycle(), static_cast<unsigned>(noCycles)) << "cycles that were made";
}

INSTANTIATE_TEST_SUITE_P(Courses, StreamingCourseTest, ::testing::ValuesIn(COURSES));

// ---------------------------------------------------------------------------------------------------------------------
// Once data, and one client after another

TEST_F(StreamingTest, OnceSetIsCollectedOverFramesAndTheNewestCopyWins)
{
    openQueue("2,5,9:3,o:1,o:2,o:10,n");
    auto client = connectClient();
    const Frame frames[] = {
        {{2, "2 old"}, {10, "x"}}, {{10, "x"}, {2, "2 new"}, {3, "3"}}, {{1, "1"}, {3, "3 new"}}};
    for (const Frame& frame : frames) {
        EXPECT_FALSE(client->somethingWaits());
        EXPECT_NE(deliver(frame), nullptr);
    }
    EXPECT_EQ(shown(client->readCycle()), "0/0: 1.-5=1 2.-5=2 new 3.-5=3 new");
    EXPECT_TRUE(waitFor([&] { return m_probe->storeEmpty(); }));
    // The delivery that finds the cycle gone moves the transfer on, the one after it is the first to be sent.
    EXPECT_NE(deliver({{1, "late"}, {10, "lost"}}), nullptr);
    ASSERT_EQ(m_probe->state(), NORMAL_DATA);
    EXPECT_EQ(deliver({{1, "late"}}), nullptr);
    deliver({{1, "late"}, {10, "first"}});
    EXPECT_EQ(shown(client->readCycle()), "1/0: 10=first");
}

TEST_F(StreamingTest, OnceDataOfALostClientIsCollectedAfresh)
{
    openQueue("1,1,9:300,o:301,o:10,n");
    auto client = connectClient();
    deliver({{300, "old"}}); // half of the set, and the client goes
    client->close();
    client = connectClient();
    deliver({{301, "b"}, {10, "x"}});
    EXPECT_TRUE(m_probe->storeEmpty());
    EXPECT_FALSE(client->somethingWaits());

    holdCycles(); // now the whole set, and the client goes while its cycle is sent
    deliver({{300, "a"}});
    settle();
    client->vanish();
    releaseCycles();
    EXPECT_TRUE(waitFor([&] {
        deliver({{10, "x"}}); // the kernel may have taken the cycle; then one of these fails
        return !m_probe->connected();
    }));
    client = connectClient();
    const std::string next = std::to_string(m_probe->nextCycle());
    reachNormalData({{301, "new b"}, {300, "new a"}});
    EXPECT_EQ(shown(client->readCycle()), next + "/0: 300.-1=new a 301.-1=new b");
}

TEST_F(StreamingTest, OnlyOnceChannelsServeEveryClientThatComes)
{
    openQueue("1,1,9:300,o:301,o");
    auto client = connectClient();
    for (int round = 0; round < 3; ++round) {
        reachNormalData({{300, "a"}, {301, "b"}});
        EXPECT_EQ(shown(client->readCycle()), std::to_string(round) + "/0: 300.-1=a 301.-1=b");
        EXPECT_EQ(deliver({{300, "a"}}), nullptr);
        client->close();
        client = connectClient();
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The edges

TEST_F(StreamingTest, FramesWithoutInterestMoveNothing)
{
    openQueue("1,1,9:10,n:5,i");
    auto client = connectClient();
    EXPECT_EQ(deliver({{99, "x"}, {-1, "x"}, {10998, "x"}}), nullptr);
    EXPECT_EQ(deliver({}), nullptr);
    EXPECT_EQ(m_queue->addBuffers(nullptr, 0, true), nullptr);
    EXPECT_EQ(m_probe->packagesKnown(), 0U);
    EXPECT_EQ(m_probe->state(), 0);
    EXPECT_FALSE(client->somethingWaits());
    reachNormalData({{99, "x"}, {10, "x"}});
    deliver({{99, "x"}});
    deliver({{99, "x"}, {10, "first"}, {-1, "x"}});
    EXPECT_EQ(shown(client->readCycle()), "0/0: 10=first");
}

TEST_F(StreamingTest, SixPackagesShareFiveSlots)
{
    openQueue("1,1,9:1,n:2,n:3,n:4,n:5,n:6,n");
    auto client = connectClient();
    reachNormalData({{1, "x"}});
    const int expected[][5] = {{1, 0, 0, 0, 0}, {1, 2, 0, 0, 0}, {1, 2, 3, 0, 0}, {1, 2, 3, 4, 0},
                               {1, 2, 3, 4, 5}, {1, 2, 3, 4, 6}, {1, 2, 3, 4, 5}};
    int channelID = 0;
    for (const auto& firstChannels : expected) {
        channelID = channelID == 6 ? 5 : channelID + 1;
        Lodestone::PerPackageDiag* const diag = deliver({{channelID, "x"}, {1, "y"}});
        EXPECT_EQ(diag, &m_probe->package(std::min(channelID, 5) - 1));
        const WireCycle cycle = client->readCycle();
        for (std::size_t slot = 0; slot < 5; ++slot) {
            EXPECT_EQ(cycle.diag(8 + 40 * slot + 4), static_cast<std::uint64_t>(firstChannels[slot]));
        }
    }
    EXPECT_EQ(m_probe->packagesKnown(), 4U);
}

TEST_F(StreamingTest, CycleNumbersWrap)
{
    openQueue("4,1,9:10,n:20,s");
    m_probe->setCycleCounter(0xFFFFFFFEU);
    auto client = connectClient();
    reachNormalData({{10, "x"}});
    holdCycles();
    deliver({{20, "abcd"}});
    settle();
    deliver({{10, "x"}});
    deliver({{10, "y"}});
    EXPECT_EQ(deliver({{20, "skip"}})->skipped, 1);
    releaseCycles();
    EXPECT_EQ(read(*client, 4), "4294967294/0: 20.0=a | 4294967295/0: 10=x 20.1=b | 0/0: 10=y 20.2=c | "
                                "1/0: 20.3=d");
}
