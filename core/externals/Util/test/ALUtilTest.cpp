#include "ALUtil.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <numeric>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace
{

constexpr float32_t INF = std::numeric_limits<float32_t>::infinity();

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

TEST(ALUtil, ZeroingAndCopyingEqualThePlainOnesAtEveryAlignmentButRefuseOverlap)
{
    alignas(16) uint8_t memory[256];
    uint8_t expected[sizeof memory];
    std::string reports;
    std::string wrong;
    testing::internal::CaptureStdout(); // also takes what a failed assertion has to say
    for (int32_t size = -1; size <= 80; ++size) {
        const std::size_t count = static_cast<std::size_t>(std::max(size, 0));
        for (int32_t to = 16; to < 32; ++to) {
            const std::string place = std::to_string(size) + " bytes to " + std::to_string(to);
            for (int32_t step = 0; step < 32; ++step) {
                const int32_t from = 16 + (step < 16 ? step : 96 + step); // beside the target, and far away
                std::iota(memory, memory + sizeof memory, uint8_t{1});
                std::memcpy(expected, memory, sizeof memory);
                const bool overlap = std::abs(to - from) < size;
                if (overlap) {
                    reports += "Unexpected Error! File core/externals/Util/src/ALUtil Line 160\n";
                } else {
                    std::memcpy(expected + to, memory + from, count);
                }
                const int32_t result = al_memcpy(memory + to, memory + from, size);
                if (result != (overlap ? 1 : 0) || std::memcmp(expected, memory, sizeof memory) != 0) {
                    wrong = place + " from " + std::to_string(from);
                }
            }
            std::memset(expected + to, 0, count);
            al_mem_zero(memory + to, size);
            if (std::memcmp(expected, memory, sizeof memory) != 0) {
                wrong = place + " zeroed";
            }
        }
    }
    EXPECT_TRUE(reports == testing::internal::GetCapturedStdout());
    EXPECT_EQ("", wrong);
}

TEST(ALUtil, ComparisonFindsADifferenceAtAnyByteInsideOnly)
{
    for (std::size_t different = 0; different <= 9; ++different) {
        const uint8_t a[10] = {};
        uint8_t b[10] = {};
        b[different] = 0x80;
        EXPECT_EQ(different < 9 ? 0 : 1, al_memcmp(a, b, 9)) << different;
    }
    EXPECT_EQ(1, al_memcmp("a", "b", -1));
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
    const float64_t data = 0;
    const AlgoMeasBuffer untouched = {&g_now, 1, 77, 2};
    AlgoMeasBuffer entries[2] = {untouched, untouched};
    uint32_t idx = 0;
    al_packSondeBuffer(nullptr, &idx, 10, &data, 8, describe);
    al_packSondeBuffer(entries, nullptr, 10, &data, 8, describe);
    al_packSondeBuffer(entries, &idx, 10, nullptr, 8, describe);
    al_packSondeBuffer(entries, &idx, 10, &data, 0, describe);
    al_packSondeBuffer(entries, &idx, 10, &data, 8, nullptr);
    EXPECT_TRUE(idx == 0 && sameEntry(untouched, entries[0]) && sameEntry(untouched, entries[1]));

    al_packSondeBuffer(entries, &idx, 10, &data, 8, describe);
    EXPECT_TRUE(idx == 2 && sameEntry({&data, 8, 77, 10}, entries[0]));
    EXPECT_TRUE(sameEntry({DESCRIPTION, 7, 77, 11}, entries[1]));
}
