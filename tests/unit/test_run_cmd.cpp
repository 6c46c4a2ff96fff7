// The shell command runner. What trim cuts is checked by the fuzz target of command output.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "core/settings.h"
#include "sandbox.h"
#include "util/run_cmd.h"

namespace {

// The output up to the buffer less its last byte, the final character of the output dropped,
// nothing written past the caller's size, and the lock released on return.
TEST(RunCmd, KeepsOutputUpToBufferLessLastByte) {
    const struct {
        const char *command;
        size_t size;
        const char *text;
        int count;
    } cases[] = {
        {"echo 6", 8, "6", 1},
        {"printf abc", 64, "ab", 2},
        {"printf '%0100d' 7", 16, "000000000000000", 15},
        {"printf 1234567", 8, "123456", 6},
        {"printf 'a\\nb\\n'", 64, "a\nb", 3},
        {"exit 3", 16, "", 0},
        {"echo hello", 1, "", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        char buf[128];
        memset(buf, 'x', sizeof buf);
        EXPECT_EQ(run_cmd(c.command, buf, c.size), c.count);
        EXPECT_STREQ(buf, c.text);
        EXPECT_EQ(std::string(buf + c.size, sizeof buf - c.size), std::string(128 - c.size, 'x'));
        ASSERT_TRUE(popen_lock.try_lock());
        popen_lock.unlock();
    }
}

TEST(RunCmdDeathTest, PopenFailureLogsAndGivesEmptyResult) {
    EXPECT_EXIT(
        {
            setenv("TARN_LOG_STDERR", "1", 1);
            tarn_debug = 1;
            sandbox::exhaust_descriptors();
            char buf[8] = "stale";
            int count = run_cmd("echo 1", buf, sizeof buf);
            _exit(count == 0 && buf[0] == 0 ? 7 : 1);
        },
        testing::ExitedWithCode(7), "popen failed,cmd:echo 1");
}

}  // namespace
