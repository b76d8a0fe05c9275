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
constexpr float32_t NOT_A_NUMBER = std::numeric_limits<float32_t>::quiet_NaN();

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

void expectFloat(float32_t expected, float32_t actual)
{
    if (std::isnan(expected)) {
        EXPECT_TRUE(std::isnan(actual)) << actual;
    } else {
        EXPECT_EQ(expected, actual);
    }
}

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
void describeNothing(const void**, uint32_t*) {}

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
    } cases[] = {{0, 0, 4, 1},  {0, 0, 0, 0},  {0, 0, -4, 0}, {4, 0, 8, 1},  {0, 4, 8, 1}, {7, 0, 8, 1},
                 {0, 7, 8, 1},  {8, 0, 8, 0},  {0, 8, 8, 0},  {7, 0, 7, 0},  {3, 0, 1, 0}, {0, 0, INT_MIN, 0},
                 {8, 0, -9, 0}, {0, 8, -9, 0}, {1, 0, 1, 0},  {0, 79, 80, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.target << " <- " << c.source << ", " << c.size);
        Memory memory(1);
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.result, al_memcpy(memory.at(c.target), memory.at(c.source), c.size));
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(c.result != 0 ? "Unexpected Error! File core/externals/Util/src/ALUtil Line 160\n" : "",
                  printed);
        if (c.result != 0) {
            EXPECT_TRUE(memory == Memory(1));
        }
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
    EXPECT_EQ(1, al_memcmp(a.at(0), a.at(1), 0));
    EXPECT_EQ(1, al_memcmp(a.at(0), a.at(1), -1));
}

TEST(ALUtil, SelectionOfFloatsMultipliesTheOtherOperandToo)
{
    const struct
    {
        float32_t a, b, min, max;
    } cases[] = {{1, 2, 1, 2},
                 {2, 1, 1, 2},
                 {-3, -3, -3, -3},
                 {1, INF, NOT_A_NUMBER, INF},
                 {INF, 1, NOT_A_NUMBER, INF},
                 {1, -INF, -INF, NOT_A_NUMBER},
                 {-INF, 1, -INF, NOT_A_NUMBER},
                 {1, NOT_A_NUMBER, NOT_A_NUMBER, NOT_A_NUMBER},
                 {NOT_A_NUMBER, 1, NOT_A_NUMBER, NOT_A_NUMBER}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.a << ", " << c.b);
        expectFloat(c.min, al_minf(c.a, c.b));
        expectFloat(c.max, al_maxf(c.a, c.b));
    }
}

TEST(ALUtil, IntegersIntervalsAndInterpolation)
{
    EXPECT_EQ(5, al_mini(5, 5));
    EXPECT_EQ(-1, al_maxi(-1, -2));
    EXPECT_EQ(INT_MIN, al_mini(INT_MAX, INT_MIN));
    EXPECT_EQ(INT_MAX, al_maxi(INT_MIN, INT_MAX));
    EXPECT_EQ(1, intervals_overlap(0, 1, 1, 2)); // closed: touching is overlapping
    EXPECT_EQ(0, intervals_overlap(0, 1, 1.5f, 2));
    EXPECT_EQ(0, intervals_overlap(1.5f, 2, 0, 1));
    EXPECT_EQ(1, intervals_overlap(0, 9, 3, 4));
    EXPECT_EQ(15.0f, interp(0, 1, 0.5f, 10, 20));
    EXPECT_EQ(30.0f, interp(0, 4, 0.5f, 10, 20)); // no clamp
    EXPECT_EQ(5.0f, interp(2, 1, 0.5f, 10, 20));
}

TEST(ALUtil, TimestampsConvertBothWays)
{
    const struct
    {
        AlgoSystemTime time;
        Timestamp64_t nanoseconds;
    } cases[] = {{{0, 0}, 0}, {{1, 2}, 1000000002u}, {{4294967295u, 999999999u}, 4294967295999999999u}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.nanoseconds, al_sysTimestamp_to_Timestamp64(c.time));
        const AlgoSystemTime back = al_uint64_to_sysTimestamp(c.nanoseconds);
        EXPECT_EQ(c.time.seconds, back.seconds);
        EXPECT_EQ(c.time.nanoSeconds, back.nanoSeconds);
    }
    EXPECT_EQ(5294967295u, al_sysTimestamp_to_Timestamp64({1, 4294967295u}));
    EXPECT_EQ(0u, al_uint64_to_sysTimestamp(4294967296000000007u).seconds);
}

TEST(ALUtil, RandomSequence)
{
    uint32_t state = 0;
    uint32_t randmax = 0;
    EXPECT_EQ(0u, al_rand(&state, &randmax));
    EXPECT_EQ(12345u, state);
    EXPECT_EQ(32767u, randmax);
    EXPECT_EQ(21468u, al_rand(&state, &randmax));
    EXPECT_EQ(3554416254u, state);
}

TEST(ALUtil, MovementRelativeToATurningFrame)
{
    float32_t vx = 0, vy = 0, ax = 0, ay = 0;
    al_convertAbsToRelMovement(&vx, &vy, &ax, &ay, 2, 4, 3, 5, 7, 11, 10, 0.5f);
    EXPECT_EQ(-5.0f, vx);
    EXPECT_EQ(4.0f, vy);
    EXPECT_EQ(11.5f, ax);
    EXPECT_EQ(12.0f, ay);
}

TEST(ALUtil, LapsAddUpOverAWrapOfTheClock)
{
    const std::pair<Timestamp_t, float32_t> laps[] = {
        {0, 0.0f}, {1000, 1.0f}, {3000, 3.00000024f}, {2000, 2.0f}, {2500, 2.5f}};
    ALProfilingItem item = {};
    Timestamp_t stopwatch = 0;
    g_now = UINT32_MAX - 1500; // the third lap wraps
    al_initProfiling(&stopwatch, now);
    uint32_t numCalls = 0;
    float32_t longest = 0;
    float64_t sum = 0; // double: in single precision the last digit of the third lap would be lost
    for (const auto& lap : laps) {
        g_now += lap.first;
        al_profile(&item, now, &stopwatch);
        sum += static_cast<float64_t>(lap.second);
        longest = lap.second > longest ? lap.second : longest;
        EXPECT_EQ(lap.second, item.runtimeMsecs);
        EXPECT_EQ(longest, item.maxRuntimeMsecs);
        EXPECT_EQ(sum, item.cumRuntimeMsecs);
        EXPECT_EQ(++numCalls, item.numCalls);
        EXPECT_EQ(static_cast<float32_t>(sum / numCalls), item.avgRuntimeMsecs);
    }
    ALProfilingItem next = {};
    g_now += 500;
    al_profile(&next, now, &stopwatch);
    EXPECT_EQ(0.5f, next.runtimeMsecs); // its own section only
}

TEST(ALUtil, PackingFillsPairsOrNothing)
{
    const AlgoMeasBuffer untouched = {&g_now, 1, 77, 2};
    AlgoMeasBuffer entries[4] = {untouched, untouched, untouched, untouched};
    const float64_t data = 0;
    uint32_t idx = 0;
    al_packSondeBuffer(nullptr, &idx, 10, &data, 8, describe);
    al_packSondeBuffer(entries, nullptr, 10, &data, 8, describe);
    al_packSondeBuffer(entries, &idx, 10, nullptr, 8, describe);
    al_packSondeBuffer(entries, &idx, 10, &data, 0, describe);
    al_packSondeBuffer(entries, &idx, 10, &data, 8, nullptr);
    EXPECT_EQ(0u, idx);
    for (const AlgoMeasBuffer& entry : entries) {
        EXPECT_TRUE(sameEntry(untouched, entry));
    }

    al_packSondeBuffer(entries, &idx, 10, &data, 8, describe);
    EXPECT_EQ(2u, idx);
    al_packSondeBuffer(entries, &idx, 20, &data, 4, describeNothing);
    EXPECT_EQ(4u, idx);
    EXPECT_TRUE(sameEntry({&data, 8, 77, 10}, entries[0]));
    EXPECT_TRUE(sameEntry({DESCRIPTION, 7, 77, 11}, entries[1]));
    EXPECT_TRUE(sameEntry({&data, 4, 77, 20}, entries[2]));
    EXPECT_TRUE(sameEntry({&g_now, 0, 77, 21}, entries[3]));
}
