// tarn-info: the daemon's neighbor table for programs, as JSON, Prometheus text or change
// events. Runs as root: its sockets and the shared answer live in the root-only /tmp/socket.
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "diag/info_answer.h"
#include "diag/info_cache.h"
#include "diag/info_exchange.h"
#include "diag/info_json.h"
#include "diag/info_options.h"
#include "diag/info_prometheus.h"
#include "diag/info_text.h"
#include "diag/info_watch.h"
#include "util/paths.h"

namespace {

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;
// The textfile collector runs as another user: the metrics file is world-readable.
constexpr mode_t METRICS_FILE_MODE = 0644;

bool read_neighbors(std::vector<info_neighbor> &neighbors, info_string &error) {
    std::vector<uint8_t> answer;
    return info_fetch(INFO_RUN_DIR, answer, error) &&
           info_decode_answer(answer, info_static_macs(STATIC_NEIGHBOR_CONF_PATH), neighbors,
                              error);
}

void report(const info_string &error) {
    fprintf(stderr, "tarn-info: %s\n", error.c_str());
}

bool write_out(const info_string &text) {
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
}

// Writes text to path through a temporary file in the same directory and a rename, so a reader
// sees the old file or the new one, never a part.
bool write_file_atomically(const info_string &path, const info_string &text, info_string &error) {
    info_string tmp = path + "." + info_number(getpid()) + ".tmp";
    unlink(tmp.c_str());  // a path of this pid is this process's own
    int fd =
        open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, METRICS_FILE_MODE);
    if (fd < 0) {
        error = "cannot create " + tmp;
        return false;
    }
    bool ok = fchmod(fd, METRICS_FILE_MODE) == 0 &&
              write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ok = close(fd) == 0 && ok;
    ok = ok && rename(tmp.c_str(), path.c_str()) == 0;
    if (!ok) {
        unlink(tmp.c_str());
        error = "cannot write " + path;
    }
    return ok;
}

// Sleeps in short steps so that a stop signal is never waited out.
void sleep_interruptibly(long seconds) {
    for (long ms = seconds * 1000; ms > 0 && !info_interrupted(); ms -= 100) {
        timespec step{0, 100 * 1000000L};
        nanosleep(&step, nullptr);
    }
}

int run_json() {
    std::vector<info_neighbor> neighbors;
    info_string error;
    if (!read_neighbors(neighbors, error)) {
        report(error);
        return EXIT_FAILED;
    }
    return write_out(info_json_document(neighbors)) ? 0 : EXIT_FAILED;
}

int run_prometheus(const info_options &options) {
    int status = 0;
    do {
        std::vector<info_neighbor> neighbors;
        info_string error;
        bool up = read_neighbors(neighbors, error);
        if (!up) {
            report(error);
            status = EXIT_FAILED;
            if (options.output.empty()) {
                return status;
            }
        } else {
            status = 0;
        }
        // Without a daemon the file still says so (tarn_up 0), for the exporter and the alerts.
        info_string text = info_prometheus_text(up, neighbors);
        if (options.output.empty()) {
            return write_out(text) ? 0 : EXIT_FAILED;
        }
        if (!write_file_atomically(options.output, text, error)) {
            report(error);
            status = EXIT_FAILED;
        }
        sleep_interruptibly(options.interval_s);
    } while (options.interval_s > 0 && !info_interrupted());
    // A writer kept running is ended on request; each failed round was reported on the way.
    return options.interval_s > 0 ? 0 : status;
}

int run_watch(const info_options &options) {
    std::vector<info_neighbor> before;
    bool was_up = true;
    bool first = true;
    while (!info_interrupted()) {
        std::vector<info_neighbor> after;
        info_string error;
        bool up = read_neighbors(after, error);
        info_string events;
        long long now = static_cast<long long>(time(nullptr));
        if (up != was_up) {
            info_watch_daemon(up, now, events);
        }
        if (up && !first) {
            info_watch_changes(before, after, now, events);
        }
        if (up) {
            before = std::move(after);
            first = false;
        }
        was_up = up;
        if (!events.empty() && !write_out(events)) {
            return EXIT_FAILED;
        }
        sleep_interruptibly(options.interval_s);
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    info_options options;
    info_string error;
    if (!info_parse_options(argc, argv, options, error)) {
        fprintf(stderr, "tarn-info: %s\n%s\n", error.c_str(), INFO_USAGE);
        return EXIT_USAGE;
    }
    info_catch_signals();
    switch (options.mode) {
        case info_mode::help:
            printf("%s\n", INFO_USAGE);
            return 0;
        case info_mode::prometheus:
            return run_prometheus(options);
        case info_mode::watch:
            return run_watch(options);
        case info_mode::json:
        default:
            return run_json();
    }
}
