// Logging through the platform's QorSyslog interface.
#pragma once

#include <syslog.h>

#include <atomic>

// The debug switch ("-D", the bus method "debug_set"): nothing is logged while it is 0. It is
// one of the running settings (core/settings.h) and lives here, with the log it switches.
extern std::atomic<int> tarn_debug;

constexpr int TARN_LOG_MODULE = 3;
constexpr int TARN_LOG_ERR = LOG_ERR;          // 3
constexpr int TARN_LOG_WARNING = LOG_WARNING;  // 4
constexpr int TARN_LOG_DEBUG = LOG_DEBUG;      // 7

// Writes one line through syslog(3) (ident "tarn", the level as priority) and, when the
// environment has TARN_LOG_STDERR=1, also to standard error. Nothing is written while
// tarn_debug is 0.
void QorSyslog(int module, int level, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

#define TARN_LOG(level, ...) QorSyslog(TARN_LOG_MODULE, (level), __VA_ARGS__)
#define TARN_ERR(...) TARN_LOG(TARN_LOG_ERR, __VA_ARGS__)
#define TARN_WARN(...) TARN_LOG(TARN_LOG_WARNING, __VA_ARGS__)
#define TARN_DBG(...) TARN_LOG(TARN_LOG_DEBUG, __VA_ARGS__)
