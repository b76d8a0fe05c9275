#include "AllocationHook.h"
#include "StreamFixture.h"

#include <atomic>
#include <cerrno>
#include <sys/mman.h>

namespace
{

// Memory that the library maps, and a mapping that is to fail.
std::atomic<std::int64_t> g_mappedBytes{0};
std::atomic<bool> g_mappingFails{false};

struct Course
{
    const char* name;
    const char* config;
    std::vector<int> channels;
    std::vector<int> constants;
};

void PrintTo(const Course& course, std::ostream* out)
{
    *out << course.name;
}

} // namespace

extern "C" void* __real_mmap(void* address, std::size_t length, int protection, int flags, int file,
                             off_t offset);
extern "C" int __real_munmap(void* address, std::size_t length);

extern "C" void* __wrap_mmap(void* address, std::size_t length, int protection, int flags, int file,
                             off_t offset)
{
    if (g_mappingFails.exchange(false)) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    g_mappedBytes += static_cast<std::int64_t>(length);
    return __real_mmap(address, length, protection, flags, file, offset);
}

extern "C" int __wrap_munmap(void* address, std::size_t length)
{
    g_mappedBytes -= static_cast<std::int64_t>(length);
    const int result = __real_munmap(address, length);
    EXPECT_EQ(result, 0);
    return result;
}

/// What a steady stream costs beyond time: nothing from the heap, and no memory that nobody needs.
class FramePathTest : public StreamFixture, public ::testing::WithParamInterface<Course>
{
protected:
    static std::int64_t liveBytes()
    {
        return static_cast<std::int64_t>(AllocationScope::liveBytes()) + g_mappedBytes;
    }

    // A thousand bytes for each unit of the channel's number.
    static Frame frameOf(const std::vector<int>& channels)
    {
        Frame frame;
        for (const int channelID : channels) {
            frame.emplace_back(channelID, std::string(static_cast<std::size_t>(channelID) * 1000, 'x'));
        }
        return frame;
    }

    // Opens the queue, connects a client and streams.
    void start(const std::string& config, const std::vector<int>& channels, const std::vector<int>& constants)
    {
        openQueue(config);
        m_frame = frameOf(channels);
        m_constants = frameOf(constants);
        m_frameArray = arrayOf(m_frame);
        m_constantArray = arrayOf(m_constants);
        m_client = connectClient(1 << 16);
        reachNormalData(m_frame);
        EXPECT_TRUE(readAll());
    }

    // Until all is sent and all memory is back. Touches no heap itself.
    bool readAll()
    {
        return waitFor([this] {
            while (m_client->somethingWaits() && m_client->drain()) {
            }
            return m_probe->storeEmpty();
        });
    }

    // Frames one after the other, each read to its end, so that what is in flight is the same every time.
    // Touches no heap itself.
    bool runFrames(int count)
    {
        bool read = true;
        for (int k = 0; k < count && read; ++k) {
            m_queue->addBuffers(m_constantArray.data(), static_cast<std::uint32_t>(m_constantArray.size()),
                                true);
            m_queue->addBuffers(m_frameArray.data(), static_cast<std::uint32_t>(m_frameArray.size()), false);
            read = readAll();
        }
        return read;
    }

    // How much is in flight at once depends on the threads' timing: now and then a frame comes just before
    // the memory of the one before it has come back. What is there for that stays, so sooner or later a row
    // of frames needs nothing.
    bool becomesSteady()
    {
        bool steady = false;
        for (int attempt = 0; attempt < 20 && !steady; ++attempt) {
            const std::size_t liveBefore = AllocationScope::liveBlocks();
            const std::int64_t mappedBefore = g_mappedBytes;
            const AllocationScope scope(AllocationScope::NEVER, AllocationScope::Threads::ALL);
            EXPECT_TRUE(runFrames(50));
            steady = scope.count() == 0 &&
                     AllocationScope::liveBlocks() == liveBefore && // nothing freed either
                     g_mappedBytes == mappedBefore;
        }
        return steady;
    }

    Frame m_frame;
    Frame m_constants;
    std::vector<AlgoMeasBuffer> m_frameArray;
    std::vector<AlgoMeasBuffer> m_constantArray;
    std::unique_ptr<StreamClient> m_client;
};

TEST_P(FramePathTest, SteadyStreamMakesNoHeapCall)
{
    start(GetParam().config, GetParam().channels, GetParam().constants);
    EXPECT_TRUE(becomesSteady());
}

INSTANTIATE_TEST_SUITE_P(Courses, FramePathTest,
                         ::testing::Values(Course{"whole", "4,3,20:1,n:2,n:200,n", {1, 2, 200}, {}},
                                           Course{"waiting", "4,3,-2:1,n:2,n", {1, 2}, {}},
                                           Course{"split", "4,3,20:1,s:2,n", {1, 2}, {}},
                                           Course{"intermittent", "4,3,20:1,i:2,n", {1, 2}, {}},
                                           Course{"pausing", "4,3,20:1,i", {1}, {}},
                                           Course{"constant", "4,3,20:1,n:2,n:3,s", {1}, {2, 3}}),
                         [](const ::testing::TestParamInfo<Course>& course) {
                             return std::string(course.param.name);
                         });

TEST(PayloadBlock, AssignmentFreesWhatWasHeld)
{
    Lodestone::PayloadBlock block(1 << 20);
    const std::int64_t one = g_mappedBytes;
    block = Lodestone::PayloadBlock(1 << 20);
    EXPECT_EQ(g_mappedBytes, one);
    block = Lodestone::PayloadBlock();
    EXPECT_EQ(g_mappedBytes, 0);
}

TEST(PayloadBlockStack, SpliceKeepsAllOfAStackThatWasEmptyBefore)
{
    Lodestone::PayloadBlockStack stack;
    stack.push(Lodestone::PayloadBlock(100));
    const Lodestone::PayloadBlock elsewhere = stack.pop();
    stack.push(Lodestone::PayloadBlock(200));
    Lodestone::PayloadBlockStack other;
    other.push(Lodestone::PayloadBlock(300));
    other.splice(stack);
    for (const std::size_t capacity : {200U, 300U, 0U}) {
        EXPECT_EQ(other.pop().capacity(), capacity);
    }
    EXPECT_TRUE(stack.empty());
}

TEST(BufferStore, SmallFramesInBlocksOfLargerOnesTakeNothingNewAndLetABurstGo)
{
    Lodestone::BufferStore store(1);
    Lodestone::ReturnedBuffers returned;
    const auto run = [&](int frames) {
        for (int k = 0; k < frames; ++k) {
            returned.blocks.push(store.takeBlock(k % 2 == 0 ? 5000 : 3000));
            store.recycle(returned);
        }
    };
    run(100);
    const std::size_t before = AllocationScope::liveBlocks();
    for (int k = 0; k < 100; ++k) {
        returned.blocks.push(store.takeBlock(100000));
    }
    const AllocationScope scope;
    run(10000); // far more than the store looks back
    EXPECT_EQ(scope.count(), 0U);
    EXPECT_EQ(AllocationScope::liveBlocks(), before);
}

TEST_F(FramePathTest, MemoryOfWholeBuffersDoesNotWaitForTheLastPart)
{
    openQueue("3,1,20:1,s:2,n");
    m_probe->playSender();
    const std::string big(1 << 20, 'x');
    deliver({{1, "abc"}, {2, big}});
    Lodestone::CycleJob first = m_probe->take();
    m_probe->done(first);
    const std::int64_t mapped = g_mappedBytes;
    deliver({{2, big}});
    EXPECT_EQ(g_mappedBytes, mapped);
    m_probe->stopPlaying();
}

TEST_F(FramePathTest, BurstIsGivenBackWhileTheStreamGoesOn)
{
    start("1,1,100:1,n:2,n", {1}, {});
    ASSERT_TRUE(runFrames(50));
    const Frame big = {{2, std::string(1 << 20, 'x')}};
    const std::int64_t before = liveBytes();
    const auto grown = [=] { return liveBytes() - before; };

    g_mappingFails = true;
    EXPECT_THROW(deliver(big), std::bad_alloc);
    EXPECT_TRUE(m_probe->storeEmpty());

    for (int k = 0; k < 40; ++k) {
        deliver(big); // nobody reads: they pile up
    }
    EXPECT_GT(grown(), 30 << 20);
    ASSERT_TRUE(readAll());
    ASSERT_TRUE(runFrames(2000));
    EXPECT_GT(grown(), 30 << 20); // kept for the next burst, for a while
    ASSERT_TRUE(runFrames(4000));
    EXPECT_LT(grown(), 3 << 20);

    deliver({{2, std::string(131072, 'x')}}); // the smallest block that is mapped
    ASSERT_TRUE(readAll());

    m_client->close();
    EXPECT_TRUE(waitFor([this] {
        deliver(m_frame);
        return !m_probe->connected() && m_probe->storeEmpty();
    }));
    deliver(m_frame);
    EXPECT_LE(grown(), 0);
    EXPECT_EQ(g_mappedBytes, 0);
}
