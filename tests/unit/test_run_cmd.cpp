#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "core/settings.h"
#include "sandbox.h"
#include "util/run_cmd.h"

namespace {

struct RunCase {
    const char *label;
    const char *command;
    size_t size;
    const char *expected_text;
    int expected_count;
};

class RunCmdCases : public testing::TestWithParam<RunCase> {};

TEST_P(RunCmdCases, KeepsOutputUpToBufferLessLastByte) {
    const RunCase &c = GetParam();
    char buf[128];
    memset(buf, 'x', sizeof buf);
    ASSERT_LE(c.size, sizeof buf);
    EXPECT_EQ(run_cmd(c.command, buf, c.size), c.expected_count);
    EXPECT_STREQ(buf, c.expected_text);
    // Nothing beyond the caller's size is written.
    for (size_t i = c.size; i < sizeof buf; ++i) {
        ASSERT_EQ(buf[i], 'x') << "byte " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Outputs, RunCmdCases,
    testing::Values(RunCase{"DigitAndNewline", "echo 6", 8, "6", 1},
                    RunCase{"NoNewlineLosesLastLetter", "printf abc", 64, "ab", 2},
                    RunCase{"LongOutputCut", "printf '%0100d' 7", 16, "000000000000000", 15},
                    RunCase{"ExactFitLosesLastByte", "printf 1234567", 8, "123456", 6},
                    RunCase{"Nothing", "true", 16, "", 0},
                    RunCase{"FailingCommand", "exit 3", 16, "", 0},
                    RunCase{"OnlyFirstLineKeptWhole", "printf 'a\\nb\\n'", 64, "a\nb", 3},
                    RunCase{"OneByteBuffer", "echo hello", 1, "", 0}),
    [](const testing::TestParamInfo<RunCase> &info) { return std::string(info.param.label); });

TEST(RunCmd, ReleasesPopenLockOnReturn) {
    char buf[8];
    run_cmd("echo 1", buf, sizeof buf);
    ASSERT_TRUE(popen_lock.try_lock());
    popen_lock.unlock();
}

TEST(RunCmdDeathTest, PopenFailureLogsAndGivesEmptyResult) {
    EXPECT_EXIT(
        {
            setenv("TARN_LOG_STDERR", "1", 1);
            tarn_debug = 1;
            sandbox::exhaust_descriptors();
            char buf[8] = "stale";
            int count = run_cmd("echo 1", buf, sizeof buf);
            bool zeroed = buf[0] == 0 && buf[7] == 0;
            _exit(count == 0 && zeroed ? 7 : 1);
        },
        testing::ExitedWithCode(7), "popen failed,cmd:echo 1");
}

struct TrimCase {
    const char *label;
    const char *input;
    const char *expected;
    const char *buffer_after;  // the whole buffer as left in place
};

class TrimCases : public testing::TestWithParam<TrimCase> {};

TEST_P(TrimCases, CutsBlanksAndTabsOnly) {
    const TrimCase &c = GetParam();
    char text[64];
    snprintf(text, sizeof text, "%s", c.input);
    char *result = trim(text);
    ASSERT_NE(result, nullptr);
    EXPECT_GE(result, text);
    EXPECT_STREQ(result, c.expected);
    EXPECT_STREQ(text, c.buffer_after);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TrimCases,
    testing::Values(TrimCase{"VersionWithTabAndSpace", "  2.1.0\t ", "2.1.0", "  2.1.0"},
                    TrimCase{"AllBlanks", "   ", "", "   "},
                    TrimCase{"NewlineStays", "a\n", "a\n", "a\n"}, TrimCase{"Empty", "", "", ""},
                    TrimCase{"InnerBlanksStay", "\tCLUSTER  mode ", "CLUSTER  mode",
                             "\tCLUSTER  mode"},
                    TrimCase{"SingleLetter", "x", "x", "x"},
                    TrimCase{"CarriageReturnStays", " v1\r ", "v1\r", " v1\r"}),
    [](const testing::TestParamInfo<TrimCase> &info) { return std::string(info.param.label); });

}  // namespace
