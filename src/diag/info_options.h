// tarn-info's command line.
#pragma once

#include "diag/info_string.h"

enum class info_mode { json, prometheus, watch, help };

// Seconds accepted by --interval and --watch.
constexpr long INFO_INTERVAL_MIN_S = 1;
constexpr long INFO_INTERVAL_MAX_S = 86400;
constexpr long INFO_WATCH_DEFAULT_S = 10;

struct info_options {
    info_mode mode = info_mode::json;
    info_string output;   // --prometheus --output FILE; empty: standard output
    long interval_s = 0;  // --interval or --watch seconds; 0: once
};

// Parses argv[1..argc-1]. Returns false with a reason in error for a usage error.
bool info_parse_options(int argc, const char *const *argv, info_options &options,
                        info_string &error);

constexpr const char *INFO_USAGE =
    "usage: tarn-info [--json] | --prometheus [--output FILE [--interval SECONDS]] | "
    "--watch [SECONDS]";
