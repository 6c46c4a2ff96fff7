#include "static/file_replace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

namespace {

constexpr mode_t NEW_FILE_MODE = 0666;

bool write_all(int fd, const char *data, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(fd, data + done, len - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string directory_of(const std::string &path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Makes the rename itself survive a power loss; a failure here no longer risks the content.
void sync_directory(const std::string &dir) {
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

}  // namespace

replace_result write_file_replacing(const char *path, const char *data, size_t len) {
    std::string target(path);
    std::string tmp = target + REPLACE_TMP_SUFFIX;
    // A process killed half-way may have left its temporary file; start from nothing so that
    // the new file gets the mode an ordinary creation gives.
    unlink(tmp.c_str());
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, NEW_FILE_MODE);
    if (fd < 0) {
        return replace_result::open_failed;
    }
    bool ok = write_all(fd, data, len) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(tmp.c_str(), target.c_str()) != 0) {
        unlink(tmp.c_str());
        return replace_result::write_failed;
    }
    sync_directory(directory_of(target));
    return replace_result::done;
}
