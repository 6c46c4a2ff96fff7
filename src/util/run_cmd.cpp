#include "util/run_cmd.h"

#include <cstdio>
#include <cstring>

#include "util/log.h"

std::mutex popen_lock;

int run_cmd(const char *cmd, char *buf, size_t size) {
    if (cmd == nullptr || buf == nullptr || size == 0) {
        return 0;
    }
    memset(buf, 0, size);

    size_t got = 0;
    {
        std::lock_guard<std::mutex> guard(popen_lock);
        FILE *stream = popen(cmd, "r");
        if (stream == nullptr) {
            TARN_DBG("popen failed,cmd:%s", cmd);
            return 0;
        }
        // One read only: whatever does not fit is dropped with the stream.
        got = fread(buf, 1, size, stream);
        pclose(stream);
    }

    if (got == 0) {
        return 0;
    }
    buf[got - 1] = '\0';
    return static_cast<int>(got - 1);
}

namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

}  // namespace

char *trim(char *text) {
    if (text == nullptr) {
        TARN_DBG("%s-%d str_org= NULL\n", "trim", 15);
        return nullptr;
    }
    if (*text == '\0') {
        TARN_DBG("%s-%d Empty String\n", "trim", 20);
        return text;
    }

    char *start = text;
    while (is_blank(*start)) {
        ++start;
    }
    if (*start == '\0') {
        return start;
    }

    char *last = text + strlen(text) - 1;
    while (last > text && is_blank(*last)) {
        --last;
    }
    last[1] = '\0';
    return start;
}
