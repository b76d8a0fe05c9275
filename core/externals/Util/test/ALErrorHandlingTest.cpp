#include "ALErrorHandling.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace
{

alif_int32_t printLock(alif_int32_t handle)
{
    return std::printf("lock %d\n", static_cast<int>(handle));
}

alif_int32_t printUnlock(alif_int32_t handle)
{
    return std::printf("unlock %d\n", static_cast<int>(handle));
}

class ALErrorHandling : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, ErrorHandling_Init(&run, ALERR_HT_PER_RUN_HISTORY, 1));
        ASSERT_EQ(0, ErrorHandling_Init(&frame, ALERR_HT_PER_FRAME_HISTORY, 1));
    }
    void TearDown() override
    {
        ErrorHandling_Init(nullptr, ALERR_HT_PER_RUN_HISTORY, 0);
        ErrorHandling_Init(nullptr, ALERR_HT_PER_FRAME_HISTORY, 0);
        ErrorHandling_InitThreadSafety(0, nullptr, nullptr);
    }
    // What the report prints.
    static std::string report(const char_t* filename, int32_t line, const char_t* message)
    {
        testing::internal::CaptureStdout();
        reportError(filename, line, message);
        return testing::internal::GetCapturedStdout();
    }

    ALErrorHistory run;
    ALErrorHistory frame;
};

} // namespace

TEST_F(ALErrorHandling, EntriesOfAllKindsOfReports)
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
                 {"dir/", 42, nullptr, "", "ERR@:42"},
                 {nullptr, 42, nullptr, "", "ERR@:42"},
                 {"x.txt", 0, nullptr, "x.txt", "ERR@x.txt:0"},
                 {"x.txt", 123456, nullptr, "x.txt", "ERR@x.txt:23456"},
                 {"x.txt", 100001, nullptr, "x.txt", "ERR@x.txt:00001"},
                 {"x.txt", -5, nullptr, "x.txt", "ERR@x.txt:0"},
                 {"x.txt", 1, longMessage.c_str(), "x.txt", std::string(127, 'm')}};
    std::memset(run.entries, 'z', sizeof(run.entries)); // as kept from an earlier run
    int32_t count = 0;
    for (const auto& c : cases) {
        const std::string name = c.filename != nullptr ? c.filename : "(null)";
        EXPECT_EQ("Unexpected Error! File " + name + " Line " + std::to_string(c.line) + "\n",
                  report(c.filename, c.line, c.message));
        for (const ALErrorHistory* history : {&run, &frame}) {
            ASSERT_EQ(count + 1, history->numValidEntries);
            EXPECT_EQ(c.file, history->entries[count].file);
            EXPECT_EQ(c.line, history->entries[count].line);
            EXPECT_EQ(c.errorMsg, history->entries[count].errorMsg);
        }
        ++count;
    }
}

TEST_F(ALErrorHandling, FullOrDamagedHistoryKeepsWhatItHas)
{
    for (int32_t line = 1; line <= 21; ++line) {
        EXPECT_NE("", report("x", line, nullptr));
    }
    EXPECT_TRUE(run.numValidEntries == 20 && run.entries[0].line == 1 && run.entries[19].line == 20);
    for (const int32_t damaged : {-1, 21, INT32_MIN}) {
        run.numValidEntries = damaged;
        report("x", 99, nullptr);
        EXPECT_EQ(damaged, run.numValidEntries);
    }
}

TEST_F(ALErrorHandling, InitEmptiesKeepsOrDetaches)
{
    report("x", 1, nullptr);
    EXPECT_EQ(1, ErrorHandling_PerFrameErrorOccured());
    EXPECT_EQ(0, ErrorHandling_Init(&run, ALERR_HT_PER_RUN_HISTORY, 0));
    EXPECT_EQ(0, ErrorHandling_Init(&frame, ALERR_HT_PER_FRAME_HISTORY, 1));
    EXPECT_TRUE(ErrorHandling_PerFrameErrorOccured() == 0 && frame.numValidEntries == 0);
    for (const ALErrorDescription& entry : frame.entries) {
        EXPECT_TRUE(entry.line == -1 && entry.file[0] == '\0' && entry.errorMsg[0] == '\0');
    }
    EXPECT_EQ(1, ErrorHandling_Init(nullptr, static_cast<ALErrorHistoryType>(2), 1)); // changes nothing
    report("x", 2, nullptr);
    EXPECT_TRUE(run.numValidEntries == 2 && frame.numValidEntries == 1);

    ErrorHandling_Init(nullptr, ALERR_HT_PER_FRAME_HISTORY, 0);
    report("x", 3, nullptr);
    EXPECT_TRUE(run.numValidEntries == 3 && frame.numValidEntries == 1);
    EXPECT_EQ(0, ErrorHandling_PerFrameErrorOccured());
}

TEST_F(ALErrorHandling, PrintsUnderTheInstalledLock)
{
    const std::string line = "Unexpected Error! File a/x Line 3\n";
    ErrorHandling_InitThreadSafety(7, printLock, printUnlock);
    EXPECT_EQ("lock 7\n" + line + "unlock 7\n", report("a/x", 3, "text"));
    ErrorHandling_InitThreadSafety(7, printLock, nullptr);
    EXPECT_EQ("lock 7\n" + line, report("a/x", 3, "text"));
    ErrorHandling_InitThreadSafety(7, nullptr, printUnlock);
    EXPECT_EQ(line + "unlock 7\n", report("a/x", 3, "text"));
}
