#include "util/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

std::atomic<int> tarn_debug{0};

namespace {

bool stderr_copy_wanted() {
    const char *value = getenv("TARN_LOG_STDERR");
    return value != nullptr && strcmp(value, "1") == 0;
}

void open_syslog_once() {
    static std::once_flag opened;
    std::call_once(opened, [] { openlog("tarn", LOG_PID, LOG_DAEMON); });
}

}  // namespace

void QorSyslog(int /*module*/, int level, const char *format, ...) {
    if (tarn_debug == 0) {
        return;
    }
    char line[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);

    open_syslog_once();
    syslog(level, "%s", line);
    if (stderr_copy_wanted()) {
        // One write per line so that lines of different threads do not interleave.
        size_t len = strlen(line);
        if (len == 0 || line[len - 1] != '\n') {
            if (len + 1 < sizeof line) {
                line[len++] = '\n';
                line[len] = '\0';
            }
        }
        fwrite(line, 1, len, stderr);
    }
}
