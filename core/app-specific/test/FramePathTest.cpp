#include "AllocationHook.h"
#include "StreamFixture.h"
#include "torture/StandIn.h"

#include <atomic>
#include <cerrno>
#include <sys/mman.h>

namespace
{

// Memory that the library maps, and a mapping that is to fail.
std::atomic<std::int64_t> g_mappedBytes{0};
std::atomic<bool> g_mappingFails{false};

} // namespace

STAND_IN(void*, mmap, (void* address, std::size_t length, int protection, int flags, int file, off_t offset))
{
    if (g_mappingFails.exchange(false)) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    g_mappedBytes += static_cast<std::int64_t>(length);
    return __real_mmap(address, length, protection, flags, file, offset);
}

STAND_IN(int, munmap, (void* address, std::size_t length))
{
    g_mappedBytes -= static_cast<std::int64_t>(length);
    const int result = __real_munmap(address, length);
    EXPECT_EQ(result, 0);
    return result;
}

/// What a steady stream costs beyond time: nothing from the heap, and no memory that nobody needs.
class FramePathTest : public StreamFixture
{
protected:
    void call(std::vector<AlgoMeasBuffer>& array, bool constantBuffer)
    {
        m_queue->addBuffers(array.data(), static_cast<std::uint32_t>(array.size()), constantBuffer);
    }

    // Until all is sent and all memory is back.
    bool readAll()
    {
        return waitFor([this] {
            while (m_client->somethingWaits() && m_client->drain()) {
            }
            return m_probe->storeEmpty();
        });
    }

    // How much is in flight at once depends on the threads' timing: now and then a frame comes just before
    // the memory of the one before it has come back. What is there for that stays, so sooner or later a row
    // of frames, each read to its end, needs nothing.
    bool becomesSteady(std::vector<AlgoMeasBuffer> frame, std::vector<AlgoMeasBuffer> constants)
    {
        bool steady = false;
        for (int attempt = 0; attempt < 20 && !steady; ++attempt) {
            const std::size_t liveBefore = AllocationScope::liveBlocks();
            const std::int64_t mappedBefore = g_mappedBytes;
            const AllocationScope scope(AllocationScope::NEVER, AllocationScope::Threads::ALL);
            bool read = true;
            for (int k = 0; k < 50 && read; ++k) {
                call(constants, true);
                call(frame, false);
                read = readAll();
            }
            steady = read && scope.count() == 0 &&
                     AllocationScope::liveBlocks() == liveBefore && // nothing freed either
                     g_mappedBytes == mappedBefore;
        }
        return steady;
    }

    std::unique_ptr<StreamClient> m_client;
};

TEST_F(FramePathTest, SteadyStreamMakesNoHeapCall)
{
    const std::string bytes(2000, 'x');
    const struct
    {
        const char* config;
        Frame frame;
        Frame constants;
    } rows[] = {{"4,3,20:1,n:2,n:3,n", {{1, "x"}, {2, bytes}, {3, std::string(200000, 'x')}}, {}},
                {"4,3,-2:1,n:2,n", {{1, "x"}, {2, bytes}}, {}},
                {"4,3,20:1,s:2,n", {{1, bytes}, {2, bytes}}, {}},
                {"4,3,20:1,i:2,n", {{1, bytes}, {2, bytes}}, {}},
                {"4,3,20:1,i", {{1, bytes}}, {}}, // frames with nothing due
                {"4,3,20:1,n:2,n:3,s", {{1, bytes}}, {{2, bytes}, {3, bytes}}}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.config);
        openQueue(r.config);
        m_client = connectClient(1 << 16);
        reachNormalData(r.frame);
        EXPECT_TRUE(readAll());
        EXPECT_TRUE(becomesSteady(arrayOf(r.frame), arrayOf(r.constants)));
    }
}

// Without threads, so that what is in flight, and for how many frames, is the same every time.
TEST_F(FramePathTest, BurstIsGivenBackWhileTheStreamGoesOn)
{
    openQueue("3,1,100:1,n:2,n:3,s");
    m_probe->playSender();
    const Frame big = {{2, std::string(1 << 20, 'x')}};
    const Frame small[] = {{{1, std::string(5000, 'x')}}, {{1, std::string(3000, 'x')}}};
    std::vector<AlgoMeasBuffer> arrays[] = {arrayOf(small[0]), arrayOf(small[1])};
    const auto heapCallsIn = [&](int frames) {
        const AllocationScope scope;
        for (int k = 0; k < frames; ++k) {
            call(arrays[k % 2], false);
            m_probe->sendPlayed();
        }
        return scope.count();
    };
    heapCallsIn(100);
    const std::int64_t before = static_cast<std::int64_t>(AllocationScope::liveBytes()) + g_mappedBytes;
    const auto grown = [=] {
        return static_cast<std::int64_t>(AllocationScope::liveBytes()) + g_mappedBytes - before;
    };

    g_mappingFails = true;
    EXPECT_THROW(deliver(big), std::bad_alloc);
    EXPECT_TRUE(m_probe->storeEmpty());
    for (const std::size_t size : {1U << 20U, 100000U}) { // from the system, from the heap
        const Frame burst = {{2, std::string(size, 'x')}};
        for (int k = 0; k < 40; ++k) {
            deliver(burst);
        }
        const std::int64_t most = grown();
        EXPECT_GT(most, static_cast<std::int64_t>(40 * size));
        while (m_probe->queued() != 0) {
            m_probe->sendPlayed();
        }
        EXPECT_EQ(heapCallsIn(2000), 0U);
        EXPECT_EQ(grown(), most) << "kept for the next burst, for a while";
        EXPECT_EQ(heapCallsIn(8000), 0U);
        EXPECT_LT(grown(), 3 << 20);
    }

    deliver({{3, "parts"}, big[0]});
    m_probe->sendPlayed();
    const std::int64_t mapped = g_mappedBytes;
    deliver(big); // in the memory of the one that has gone, though its delivery still has parts to send
    EXPECT_EQ(g_mappedBytes, mapped);
    deliver({{2, std::string(131072, 'x')}}); // the smallest block that is mapped
    while (m_probe->queued() != 0) {
        m_probe->sendPlayed();
    }
    deliver(small[0]); // some memory waits, some is in the queue
    m_probe->resetPlayed();
    EXPECT_LE(grown(), 0);
    EXPECT_EQ(g_mappedBytes, 0);
}

TEST_F(FramePathTest, MemoryOfAnIntermittentChannelOutlivesItsPause)
{
    openQueue("1,6000,9:1,i");
    m_probe->playSender();
    const Frame frame = {{1, std::string(100000, 'x')}};
    std::vector<AlgoMeasBuffer> array = arrayOf(frame);
    const auto heapCalls = [&] {
        const AllocationScope scope;
        for (int k = 0; k < 12000; ++k) {
            call(array, false);
            if (m_probe->queued() != 0) {
                m_probe->sendPlayed();
            }
        }
        return scope.count();
    };
    heapCalls();
    EXPECT_EQ(heapCalls(), 0U);
    m_probe->resetPlayed();
}

TEST(PayloadBlockStack, SpliceKeepsAllOfAStackThatWasEmptyBefore)
{
    Lodestone::PayloadBlockStack stack;
    stack.push(Lodestone::PayloadBlock(100));
    Lodestone::PayloadBlock block = stack.pop();
    stack.push(Lodestone::PayloadBlock(1 << 20));
    Lodestone::PayloadBlockStack other;
    other.push(Lodestone::PayloadBlock(300));
    other.splice(stack);
    block = other.pop();
    EXPECT_EQ(block.capacity(), 1U << 20U);
    block = other.pop(); // what was held is freed
    EXPECT_EQ(block.capacity(), 300U);
    EXPECT_EQ(g_mappedBytes, 0);
}
