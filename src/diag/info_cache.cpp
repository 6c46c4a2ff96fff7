#include "diag/info_cache.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "diag/info_exchange.h"

namespace {

constexpr mode_t PRIVATE_MODE = 0600;
constexpr int LOCK_POLL_MS = 20;
// A failing call ends within 2 s: what the lock wait leaves of this goes to the exchange.
constexpr long long INFO_CALL_BUDGET_MS = 1900;
constexpr long long INFO_ANSWER_WAIT_MIN_MS = 100;

bool trusted(const struct stat &st) {
    return S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 07777) == PRIVATE_MODE &&
           st.st_nlink == 1;
}

bool fresh(const struct stat &st, const timespec &now) {
    const timespec &mtime = st.st_mtim;
    if (mtime.tv_sec > now.tv_sec || (mtime.tv_sec == now.tv_sec && mtime.tv_nsec > now.tv_nsec)) {
        return false;  // a clock set back: the age is unknown
    }
    long long age_ns = (static_cast<long long>(now.tv_sec) - mtime.tv_sec) * 1000000000LL +
                       (now.tv_nsec - mtime.tv_nsec);
    return age_ns <= INFO_CACHE_MAX_AGE_S * 1000000000LL;
}

bool read_all(int fd, std::vector<uint8_t> &out, size_t size) {
    out.resize(size);
    size_t done = 0;
    while (done < size) {
        ssize_t n = read(fd, out.data() + done, size - done);
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool write_all(int fd, const std::vector<uint8_t> &data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// Opens (creating it when missing) a private file without following a link; an existing one
// that is not trusted is removed and created anew.
int open_private(const info_string &path, int flags) {
    int fd = open(path.c_str(), flags | O_CREAT | O_NOFOLLOW | O_CLOEXEC, PRIVATE_MODE);
    struct stat st;
    if (fd >= 0 && fstat(fd, &st) == 0 && trusted(st)) {
        return fd;
    }
    if (fd >= 0) {
        close(fd);
    }
    unlink(path.c_str());
    fd = open(path.c_str(), flags | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, PRIVATE_MODE);
    if (fd >= 0 && fchmod(fd, PRIVATE_MODE) != 0) {  // whatever the umask left
        close(fd);
        return -1;
    }
    return fd;
}

void sleep_ms(int ms) {
    timespec ts{ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
}

long long monotonic_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

timespec realtime_now() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

}  // namespace

info_cache_paths info_cache_paths_in(const info_string &dir) {
    return {dir + "/tarn_info.cache", dir + "/tarn_info.lock", dir + "/tarn_info.cache.tmp"};
}

bool info_cache_read(const info_cache_paths &paths, const timespec &now,
                     std::vector<uint8_t> &answer) {
    int fd = open(paths.cache.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    struct stat st;
    bool ok = fstat(fd, &st) == 0 && trusted(st) && fresh(st, now) && st.st_size > 0 &&
              read_all(fd, answer, static_cast<size_t>(st.st_size));
    close(fd);
    return ok;
}

bool info_cache_write(const info_cache_paths &paths, const std::vector<uint8_t> &answer) {
    unlink(paths.tmp.c_str());  // only a refresh under the lock writes it: any one there is stale
    int fd =
        open(paths.tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, PRIVATE_MODE);
    if (fd < 0) {
        return false;
    }
    bool ok = fchmod(fd, PRIVATE_MODE) == 0 && write_all(fd, answer);
    ok = close(fd) == 0 && ok;
    ok = ok && rename(paths.tmp.c_str(), paths.cache.c_str()) == 0;
    if (!ok) {
        unlink(paths.tmp.c_str());
    }
    return ok;
}

info_cache_lock::info_cache_lock(const info_string &path, int wait_ms) {
    fd_ = open_private(path, O_RDWR);
    if (fd_ < 0) {
        return;
    }
    for (int waited = 0; !info_interrupted(); waited += LOCK_POLL_MS) {
        if (flock(fd_, LOCK_EX | LOCK_NB) == 0) {
            held_ = true;
            return;
        }
        if (errno != EWOULDBLOCK || waited >= wait_ms) {
            return;
        }
        sleep_ms(LOCK_POLL_MS);
    }
}

info_cache_lock::~info_cache_lock() {
    if (fd_ >= 0) {
        close(fd_);  // releases the lock
    }
}

bool info_fetch(const info_string &dir, std::vector<uint8_t> &answer, info_string &error) {
    long long started = monotonic_ms();
    if (int why = info_daemon_probe(dir); why != 0) {
        error = "no daemon listening at " + dir + "/" + INFO_DAEMON_SOCKET + ": " + strerror(why);
        return false;
    }
    info_cache_paths paths = info_cache_paths_in(dir);
    if (info_cache_read(paths, realtime_now(), answer)) {
        return true;
    }
    info_cache_lock lock(paths.lock, INFO_LOCK_WAIT_MS);
    if (!lock.held()) {
        error = info_interrupted() ? "interrupted" : "cannot take the lock " + paths.lock;
        return false;
    }
    // Another caller may have refreshed the answer while this one waited for the lock.
    if (info_cache_read(paths, realtime_now(), answer)) {
        return true;
    }
    // A caller that waited for the lock has less of its 2 s left for its own exchange.
    long long left = INFO_CALL_BUDGET_MS - (monotonic_ms() - started);
    int wait_ms = static_cast<int>(
        std::max(INFO_ANSWER_WAIT_MIN_MS, std::min<long long>(INFO_ANSWER_WAIT_MS, left)));
    if (!info_exchange(dir, wait_ms, answer, error)) {
        return false;
    }
    info_cache_write(paths, answer);  // a failed store costs the next caller an exchange only
    return true;
}
