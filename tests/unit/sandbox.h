// A private little AP for tests of code that runs platform commands and reads system files: a
// child with its own mount and network namespaces, a fresh /tmp, its own /sys and /tmp/bin first
// on PATH runs the body, whose text the parent asserts on (assertions in a child are lost).
#pragma once

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "core/settings.h"

#ifdef TARN_COVERAGE
// A coverage build writes its counts at exit, which the sandbox's _exit skips.
extern "C" void __gcov_dump();
#endif

namespace sandbox {

#define SKIP_UNLESS_ROOT()                                                 \
    do {                                                                   \
        if (geteuid() != 0) {                                              \
            GTEST_SKIP() << "needs root for mount and network namespaces"; \
        }                                                                  \
    } while (0)

inline constexpr const char *LOG_PATH = "/tmp/tarn-test.log";

inline void write_file(const std::string &path, const std::string &content, mode_t mode = 0644) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    chmod(path.c_str(), mode);
}

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline bool exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

// Why this machine cannot open the NETLINK_USERSOCK sockets that stand in for the Wi-Fi driver
// (qemu-user emulates only a few netlink protocols), or "" when it can.
inline std::string netlink_unavailable() {
    static const std::string reason = [] {
        int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK);
        bool missing = fd < 0 && (errno == EPROTONOSUPPORT || errno == EAFNOSUPPORT);
        std::string why = missing ? strerror(errno) : "";
        if (fd >= 0) {
            close(fd);
        }
        return why;
    }();
    return reason;
}

#define SKIP_WITHOUT_NETLINK()                                               \
    do {                                                                     \
        if (!sandbox::netlink_unavailable().empty()) {                       \
            GTEST_SKIP() << "no netlink user sockets (as under qemu-user): " \
                         << sandbox::netlink_unavailable();                  \
        }                                                                    \
    } while (0)

// A stand-in for a platform command: a shell script in /tmp/bin.
inline void install_command(const std::string &name, const std::string &script) {
    write_file("/tmp/bin/" + name, "#!/bin/sh\n" + script + "\n", 0755);
}

// Runs a shell command in the sandbox; true when it exits with 0.
inline bool sh(const std::string &command) {
    return system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// The daemon's log lines written so far in this sandbox.
inline std::string log_text() {
    return read_file(LOG_PATH);
}

// Covers this process's /proc/net with a directory holding only the file <name>.
inline bool fake_proc_net(const std::string &name, const std::string &content) {
    mkdir("/tmp/procnet", 0755);
    write_file("/tmp/procnet/" + name, content);
    std::string target = "/proc/" + std::to_string(getpid()) + "/net";
    return mount("/tmp/procnet", target.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

inline std::string prepare_child() {
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0 ||
        mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0) {
        return std::string("namespaces and mounts: ") + strerror(errno);
    }
    mkdir("/tmp/bin", 0755);
    const char *path = getenv("PATH");
    setenv("PATH", (std::string("/tmp/bin:") + (path != nullptr ? path : "/bin")).c_str(), 1);
    sh("ip link set lo up");

    // Log lines of the code under test go to a file the body can read.
    int log_fd = open(LOG_PATH, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
    if (log_fd < 0 || dup2(log_fd, STDERR_FILENO) < 0) {
        return std::string("log file: ") + strerror(errno);
    }
    close(log_fd);
    setenv("TARN_LOG_STDERR", "1", 1);
    tarn_debug = 1;
    return "";
}

// Runs `body` in a sandboxed child and returns its text, or "sandbox failure: ..." when the
// child could not be set up or did not finish normally.
inline std::string run_in_sandbox(const std::function<std::string()> &body) {
    // An unlinked file outside the child's /tmp: it holds any amount of text, and the parent
    // reads it only once the child has ended.
    FILE *result_file = tmpfile();
    if (result_file == nullptr) {
        return "sandbox failure: tmpfile";
    }
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        std::string failure = prepare_child();
        std::string result = failure.empty() ? body() : "sandbox failure: " + failure;
        fwrite(result.data(), 1, result.size(), result_file);
        fflush(result_file);
#ifdef TARN_COVERAGE
        __gcov_dump();
#endif
        _exit(0);
    }
    int status = -1;  // not a normal exit: what stays when fork or waitpid fails
    if (child > 0) {
        waitpid(child, &status, 0);
    }
    std::string text = read_file("/proc/self/fd/" + std::to_string(fileno(result_file)));
    fclose(result_file);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return "sandbox failure: child status " + std::to_string(status) + " after: " + text;
    }
    return text;
}

}  // namespace sandbox
