#include "ALUtil.h"

#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include <gtest/gtest.h>

namespace
{

constexpr float32_t INF = std::numeric_limits<float32_t>::infinity();

// A stretch of memory at every alignment to 16 bytes, with space around it that must stay as it was.
constexpr int32_t MAX_SIZE = 80;
constexpr int32_t MARGIN = 16;
struct alignas(16) Memory
{
    explicit Memory(int seed)
    {
        for (uint8_t& byte : bytes) {
            byte = static_cast<uint8_t>(seed++ % 251 + 1);
        }
    }
    uint8_t* at(int32_t alignment) { return bytes + MARGIN + alignment; }
    bool operator==(const Memory& other) const { return std::memcmp(bytes, other.bytes, sizeof(bytes)) == 0; }

    uint8_t bytes[MARGIN + 15 + MAX_SIZE + MARGIN];
};

Timestamp_t g_now = 0;
Timestamp_t now()
{
    return g_now;
}

const uint8_t DESCRIPTION[7] = {};
void describe(const void** buffer, uint32_t* size)
{
    *buffer = DESCRIPTION;
    *size = sizeof(DESCRIPTION);
}

bool sameEntry(const AlgoMeasBuffer& a, const AlgoMeasBuffer& b)
{
    return a.buffer == b.buffer && a.sizeTotal == b.sizeTotal && a.sizeReady == b.sizeReady &&
           a.channelID == b.channelID;
}

} // namespace

TEST(ALUtil, ZeroingAndCopyingEqualThePlainOnesAtEveryAlignment)
{
    for (int32_t size = -1; size <= MAX_SIZE; ++size) {
        const std::size_t count = static_cast<std::size_t>(size < 0 ? 0 : size);
        for (int32_t to = 0; to < 16; ++to) {
            Memory zeroed(1);
            Memory expected(1);
            al_mem_zero(zeroed.at(to), size);
            std::memset(expected.at(to), 0, count);
            ASSERT_TRUE(zeroed == expected) << "size " << size << " target " << to;
            for (int32_t from = 0; from < 16; ++from) {
                Memory source(100);
                Memory target(1);
                Memory copied(1);
                std::memcpy(copied.at(to), source.at(from), count);
                ASSERT_EQ(0, al_memcpy(target.at(to), source.at(from), size));
                ASSERT_TRUE(target == copied) << "size " << size << " target " << to << " source " << from;
                ASSERT_TRUE(source == Memory(100));
            }
        }
    }
}

TEST(ALUtil, CopyRefusesAndReportsOverlapOnly)
{
    const struct
    {
        int32_t target, source, size, result;
    } cases[] = {{0, 0, 4, 1}, {0, 0, 0, 0}, {0, 0, INT_MIN, 0}, {4, 0, 8, 1},
                 {0, 7, 8, 1}, {8, 0, 8, 0}, {0, 8, 8, 0},       {8, 0, -9, 0}};
    for (const auto& c : cases) {
        Memory memory(1);
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.result, al_memcpy(memory.at(c.target), memory.at(c.source), c.size));
        EXPECT_EQ(c.result != 0 ? "Unexpected Error! File core/externals/Util/src/ALUtil Line 160\n" : "",
                  testing::internal::GetCapturedStdout())
            << c.target << " <- " << c.source << ", " << c.size;
        EXPECT_TRUE(c.result == 0 || memory == Memory(1));
    }
}

TEST(ALUtil, ComparisonFindsADifferenceAtAnyByteInsideOnly)
{
    Memory a(1);
    for (std::size_t different = 0; different <= 9; ++different) {
        Memory b(1);
        b.at(0)[different] ^= 0x80;
        EXPECT_EQ(different < 9 ? 0 : 1, al_memcmp(a.at(0), b.at(0), 9)) << different;
    }
    EXPECT_EQ(1, al_memcmp(a.at(0), a.at(1), -1));
}

TEST(ALUtil, SelectionMultipliesTheOtherOperandToo)
{
    EXPECT_TRUE(al_minf(1, 2) == 1 && al_minf(-3, -4) == -4 && al_maxf(1, 2) == 2 && al_maxf(-3, -4) == -3);
    EXPECT_TRUE(std::isnan(al_minf(1, INF)) && al_maxf(1, INF) == INF);
    EXPECT_TRUE(al_minf(-INF, 1) == -INF && std::isnan(al_maxf(-INF, 1)));
    EXPECT_TRUE(al_mini(INT_MAX, INT_MIN) == INT_MIN && al_maxi(INT_MIN, INT_MAX) == INT_MAX);
    EXPECT_EQ(1, intervals_overlap(0, 1, 1, 2));
    EXPECT_EQ(0, intervals_overlap(0, 1, 1.5f, 2));
    EXPECT_EQ(0, intervals_overlap(1.5f, 2, 0, 1));
}

TEST(ALUtil, NumbersComeOutAsKnown)
{
    EXPECT_EQ(30.0f, interp(0, 4, 0.5f, 10, 20)); // without a clamp
    EXPECT_EQ(4294967295999999999u, al_sysTimestamp_to_Timestamp64({4294967295u, 999999999u}));
    const AlgoSystemTime time = al_uint64_to_sysTimestamp(4294967295999999999u);
    EXPECT_TRUE(time.seconds == 4294967295u && time.nanoSeconds == 999999999u);

    uint32_t state = 0;
    uint32_t randmax = 0;
    EXPECT_EQ(0u, al_rand(&state, &randmax));
    EXPECT_EQ(21468u, al_rand(&state, &randmax));
    EXPECT_TRUE(state == 3554416254u && randmax == 32767u);

    float32_t vx = 0, vy = 0, ax = 0, ay = 0;
    al_convertAbsToRelMovement(&vx, &vy, &ax, &ay, 2, 4, 3, 5, 7, 11, 10, 0.5f);
    EXPECT_TRUE(vx == -5.0f && vy == 4.0f && ax == 11.5f && ay == 12.0f) << vx << vy << ax << ay;
}

TEST(ALUtil, LapsAddUpOverAWrapOfTheClock)
{
    const std::pair<Timestamp_t, float32_t> laps[] = {{1000, 1.0f}, {3000, 3.00000024f}, {2000, 2.0f}};
    ALProfilingItem item = {};
    Timestamp_t stopwatch = 0;
    g_now = UINT32_MAX - 1500; // the second lap wraps
    al_initProfiling(&stopwatch, now);
    uint32_t numCalls = 0;
    float64_t sum = 0; // double: in single precision the last digit of the second lap would be lost
    for (const auto& lap : laps) {
        g_now += lap.first;
        al_profile(&item, now, &stopwatch);
        sum += static_cast<float64_t>(lap.second);
        EXPECT_EQ(lap.second, item.runtimeMsecs);
        EXPECT_EQ(numCalls == 0 ? 1.0f : 3.00000024f, item.maxRuntimeMsecs);
        EXPECT_EQ(sum, item.cumRuntimeMsecs);
        EXPECT_EQ(++numCalls, item.numCalls);
        EXPECT_EQ(static_cast<float32_t>(sum / numCalls), item.avgRuntimeMsecs);
    }
}

TEST(ALUtil, PackingFillsPairsOrNothing)
{
    const AlgoMeasBuffer untouched = {&g_now, 1, 77, 2};
    AlgoMeasBuffer entries[2] = {untouched, untouched};
    const float64_t data = 0;
    uint32_t idx = 0;
    al_packSondeBuffer(nullptr, &idx, 10, &data, 8, describe);
    al_packSondeBuffer(entries, nullptr, 10, &data, 8, describe);
    al_packSondeBuffer(entries, &idx, 10, nullptr, 8, describe);
    al_packSondeBuffer(entries, &idx, 10, &data, 0, describe);
    al_packSondeBuffer(entries, &idx, 10, &data, 8, nullptr);
    EXPECT_EQ(0u, idx);
    EXPECT_TRUE(sameEntry(untouched, entries[0]) && sameEntry(untouched, entries[1]));

    al_packSondeBuffer(entries, &idx, 10, &data, 8, describe);
    EXPECT_EQ(2u, idx);
    EXPECT_TRUE(sameEntry({&data, 8, 77, 10}, entries[0]));
    EXPECT_TRUE(sameEntry({DESCRIPTION, 7, 77, 11}, entries[1]));
}
