#include "diag/info_options.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "diag/info_text.h"

namespace {

bool parse_seconds(const char *text, long &seconds, info_string &error) {
    errno = 0;
    char *end = nullptr;
    long value = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < INFO_INTERVAL_MIN_S ||
        value > INFO_INTERVAL_MAX_S) {
        error = info_string("seconds must be a whole number from ") +
                info_number(INFO_INTERVAL_MIN_S) + " to " + info_number(INFO_INTERVAL_MAX_S) +
                ", not \"" + text + "\"";
        return false;
    }
    seconds = value;
    return true;
}

}  // namespace

bool info_parse_options(int argc, const char *const *argv, info_options &options,
                        info_string &error) {
    options = info_options{};
    bool mode_given = false;
    bool interval_given = false;
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        const char *next = i + 1 < argc ? argv[i + 1] : nullptr;
        info_mode mode;
        if (arg == "--json") {
            mode = info_mode::json;
        } else if (arg == "--prometheus") {
            mode = info_mode::prometheus;
        } else if (arg == "--watch") {
            mode = info_mode::watch;
            options.interval_s = INFO_WATCH_DEFAULT_S;
            if (next != nullptr && next[0] != '-') {
                if (!parse_seconds(next, options.interval_s, error)) {
                    return false;
                }
                ++i;
            }
        } else if (arg == "--help" || arg == "-h") {
            mode = info_mode::help;
        } else if (arg == "--output" || arg == "--interval") {
            if (next == nullptr || next[0] == '\0') {
                error = info_string(arg) + " needs a value";
                return false;
            }
            ++i;
            if (arg == "--output") {
                options.output = next;
            } else if (!parse_seconds(next, options.interval_s, error)) {
                return false;
            } else {
                interval_given = true;
            }
            continue;
        } else {
            error = "unknown argument \"" + info_string(arg) + "\"";
            return false;
        }
        if (mode_given) {
            error = "more than one of --json, --prometheus, --watch, --help";
            return false;
        }
        mode_given = true;
        options.mode = mode;
    }
    if (!options.output.empty() && options.mode != info_mode::prometheus) {
        error = "--output goes with --prometheus";
        return false;
    }
    if (interval_given && options.output.empty()) {
        error = "--interval goes with --prometheus --output FILE";
        return false;
    }
    return true;
}
