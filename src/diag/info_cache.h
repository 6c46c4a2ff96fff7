// The answer shared by every tarn-info caller: one root-only file, at most INFO_CACHE_MAX_AGE_S
// old, refreshed under a lock by one caller at a time, so that however many readers poll the
// daemon gets at most one operation 1 (and the driver one cache request) per that period.
#pragma once

#include <time.h>

#include <cstdint>
#include <vector>

#include "diag/info_string.h"

constexpr int INFO_CACHE_MAX_AGE_S = 5;
// How long a caller waits for another one's refresh before it gives up.
constexpr int INFO_LOCK_WAIT_MS = 1800;

struct info_cache_paths {
    info_string cache;  // <dir>/tarn_info.cache
    info_string lock;   // <dir>/tarn_info.lock
    info_string tmp;    // <dir>/tarn_info.cache.tmp
};
info_cache_paths info_cache_paths_in(const info_string &dir);

// Reads the cached answer when the file is trustworthy (a regular file owned by root, mode
// 0600, opened without following a link) and its modification time is at most
// INFO_CACHE_MAX_AGE_S before now and not after it. Returns false otherwise.
bool info_cache_read(const info_cache_paths &paths, const timespec &now,
                     std::vector<uint8_t> &answer);

// Replaces the cache atomically with answer: the temporary file (a stale or untrusted one is
// removed first) is created with O_EXCL, written, then renamed over the cache.
bool info_cache_write(const info_cache_paths &paths, const std::vector<uint8_t> &answer);

// Holds the refresh lock for its lifetime. A lock file that is not a root-owned regular file
// of mode 0600 is removed and created anew. held() is false when the lock could not be taken
// within wait_ms or the wait was interrupted.
class info_cache_lock {
  public:
    info_cache_lock(const info_string &path, int wait_ms);
    info_cache_lock(const info_cache_lock &) = delete;
    info_cache_lock &operator=(const info_cache_lock &) = delete;
    ~info_cache_lock();
    bool held() const { return held_; }

  private:
    int fd_ = -1;
    bool held_ = false;
};

// The daemon's answer for one call: from the cache when fresh (after checking that the daemon
// is alive), else from one exchange under the lock, stored for the next callers. Returns false
// with a message in error when there is no daemon or no answer.
bool info_fetch(const info_string &dir, std::vector<uint8_t> &answer, info_string &error);
