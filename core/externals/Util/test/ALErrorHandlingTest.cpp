#include "ALErrorHandling.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace
{

ALErrorHistory g_run;
ALErrorHistory g_frame;

alif_int32_t printLock(alif_int32_t handle)
{
    return std::printf("lock %d\n", static_cast<int>(handle));
}

alif_int32_t printUnlock(alif_int32_t handle)
{
    return std::printf("unlock %d\n", static_cast<int>(handle));
}

// What the report prints.
std::string report(const char_t* filename, int32_t line, const char_t* message)
{
    testing::internal::CaptureStdout();
    reportError(filename, line, message);
    return testing::internal::GetCapturedStdout();
}

} // namespace

TEST(ALErrorHandling, EntriesOfAllKindsOfReportsUntilTheHistoryIsFull)
{
    const std::string longMessage(200, 'm');
    const struct
    {
        const char_t* filename;
        int32_t line;
        const char_t* message;
        std::string file, errorMsg;
    } cases[] = {{"a/b\\c.txt", 1, "text", "c.txt", "text"},
                 {"dir.name/abcdefghijklmnopqrstuvwxy", 1, "", "abcdefghijklmnopqrs", ""},
                 {nullptr, 42, nullptr, "", "ERR@:42"},
                 {"x.txt", 0, nullptr, "x.txt", "ERR@x.txt:0"},
                 {"x.txt", 100001, nullptr, "x.txt", "ERR@x.txt:00001"},
                 {"x.txt", -5, nullptr, "x.txt", "ERR@x.txt:0"},
                 {"x.txt", 1, longMessage.c_str(), "x.txt", std::string(127, 'm')}};
    std::memset(&g_run, 'z', sizeof g_run); // as kept from an earlier run
    EXPECT_EQ(0, ErrorHandling_Init(&g_run, ALERR_HT_PER_RUN_HISTORY, 0));
    EXPECT_EQ(0, ErrorHandling_Init(&g_frame, ALERR_HT_PER_FRAME_HISTORY, 1));
    ErrorHandling_InitThreadSafety(7, printLock, printUnlock);
    g_run.numValidEntries = 0;
    int32_t count = 0;
    for (const auto& c : cases) {
        const std::string name = c.filename != nullptr ? c.filename : "(null)";
        EXPECT_EQ("lock 7\nUnexpected Error! File " + name + " Line " + std::to_string(c.line) +
                      "\nunlock 7\n",
                  report(c.filename, c.line, c.message));
        for (const ALErrorHistory* history : {&g_run, &g_frame}) {
            ASSERT_EQ(count + 1, history->numValidEntries);
            EXPECT_EQ(c.file, history->entries[count].file);
            EXPECT_EQ(c.line, history->entries[count].line);
            EXPECT_EQ(c.errorMsg, history->entries[count].errorMsg);
        }
        ++count;
    }
    for (const int32_t full : {20, 21, -1, INT32_MIN}) { // all but the first one damaged
        g_run.numValidEntries = full;
        const ALErrorHistory before = g_run;
        EXPECT_NE("", report("x", 99, nullptr));
        EXPECT_EQ(0, std::memcmp(&before, &g_run, sizeof before)) << full;
    }
    ErrorHandling_InitThreadSafety(0, nullptr, nullptr);
}

TEST(ALErrorHandling, InitEmptiesKeepsOrDetaches)
{
    ErrorHandling_Init(&g_run, ALERR_HT_PER_RUN_HISTORY, 1);
    ErrorHandling_Init(&g_frame, ALERR_HT_PER_FRAME_HISTORY, 1);
    EXPECT_EQ("Unexpected Error! File x Line 1\n", report("x", 1, nullptr));
    EXPECT_EQ(1, ErrorHandling_PerFrameErrorOccured());
    EXPECT_EQ(0, ErrorHandling_Init(&g_run, ALERR_HT_PER_RUN_HISTORY, 0));
    EXPECT_EQ(0, ErrorHandling_Init(&g_frame, ALERR_HT_PER_FRAME_HISTORY, 1));
    EXPECT_TRUE(ErrorHandling_PerFrameErrorOccured() == 0 && g_frame.numValidEntries == 0);
    for (const ALErrorDescription& entry : g_frame.entries) {
        EXPECT_TRUE(entry.line == -1 && entry.file[0] == '\0' && entry.errorMsg[0] == '\0');
    }
    EXPECT_EQ(1, ErrorHandling_Init(nullptr, static_cast<ALErrorHistoryType>(2), 1)); // changes nothing
    report("x", 2, nullptr);
    EXPECT_TRUE(g_run.numValidEntries == 2 && g_frame.numValidEntries == 1);

    ErrorHandling_Init(nullptr, ALERR_HT_PER_FRAME_HISTORY, 0);
    report("x", 3, nullptr);
    EXPECT_TRUE(g_run.numValidEntries == 3 && g_frame.numValidEntries == 1);
    EXPECT_EQ(0, ErrorHandling_PerFrameErrorOccured());
}
