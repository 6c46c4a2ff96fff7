// The shell command runner. What trim cuts is checked by the fuzz target of command output.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "util/run_cmd.h"

namespace {

// Output kept up to the size less one byte, its final character dropped, nothing written past.
TEST(RunCmd, KeepsOutputUpToBufferLessLastByte) {
    const struct {
        const char *command;
        size_t size;
        const char *text;  // its length is the count returned
    } cases[] = {
        {"echo 6", 8, "6"},
        {"printf 1234567", 8, "123456"},
        {"echo hello", 1, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        char buf[128];
        memset(buf, 'x', sizeof buf);
        EXPECT_EQ(run_cmd(c.command, buf, c.size), static_cast<int>(strlen(c.text)));
        EXPECT_STREQ(buf, c.text);
        EXPECT_EQ(std::string(buf + c.size, sizeof buf - c.size), std::string(128 - c.size, 'x'));
        ASSERT_TRUE(popen_lock.try_lock());
        popen_lock.unlock();
    }
}

}  // namespace
