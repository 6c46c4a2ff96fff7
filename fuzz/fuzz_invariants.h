// The small harness shared by the fuzz targets: invariant checks (a broken one aborts, which
// libFuzzer reports), inputs copied into heap blocks of their exact size, and a private
// file system for targets whose parsers read or write the daemon's fixed paths.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "proto/nbcp.h"

#define FUZZ_CHECK(cond)                                                                  \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (0)

// The input in a heap block of exactly its size: any read past it is an ASan report.
inline std::unique_ptr<uint8_t[]> exact_copy(const uint8_t *data, size_t size) {
    std::unique_ptr<uint8_t[]> copy(new uint8_t[size == 0 ? 1 : size]);
    if (size != 0) {
        std::memcpy(copy.get(), data, size);
    }
    return copy;
}

// Parsers report on standard output (the codec's type line); keep it out of the fuzzer's log.
inline void quiet_stdout() {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::perror("freopen");
    }
}

// Gives the process its own empty /tmp and /var/config (tmpfs in a private mount namespace), so
// that files and sockets at the daemon's fixed paths are the target's alone. Needs root. The
// real /tmp is hidden from then on, corpus and artifact folders there included: keep them
// elsewhere (run-fuzz.sh keeps them in build-fuzz/ and fuzz/artifacts/).
inline void private_daemon_dirs() {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        std::perror("fuzz: private mount namespace (run as root)");
        std::exit(1);
    }
    mkdir("/var/config", 0755);
    for (const char *dir : {"/tmp", "/var/config"}) {
        if (mount("tmpfs", dir, "tmpfs", 0, "mode=1777") != 0) {
            std::perror(dir);
            std::exit(1);
        }
    }
    mkdir("/tmp/socket", 0755);
}

// Makes the platform command name print output (one line) from now on: fuzz_seams.cpp stands in
// for the shell, so a command costs no process.
void standin_command(const char *name, const char *output);

template <size_t N>
bool terminated(const char (&field)[N]) {
    return std::memchr(field, 0, N) != nullptr;
}

// Fields an encoder carries for an ap_info that was decoded into a zeroed record: strings as C
// strings, radios up to the count (at most four).
inline bool same_carried_info(const ap_info &a, const ap_info &b) {
    if (a.ip != b.ip || a.ip6 != b.ip6 || a.qv_ip != b.qv_ip || a.mac != b.mac ||
        a.state != b.state || a.radiocnt != b.radiocnt || a.pvc_ip != b.pvc_ip ||
        a.cluster_id != b.cluster_id || a.pvc_mac != b.pvc_mac ||
        a.cluster_flag != b.cluster_flag) {
        return false;
    }
    if (std::strcmp(a.tenantId, b.tenantId) != 0 || std::strcmp(a.version, b.version) != 0 ||
        std::strcmp(a.name, b.name) != 0) {
        return false;
    }
    int radios = a.radiocnt < AP_RADIO_MAX ? a.radiocnt : AP_RADIO_MAX;
    for (int i = 0; i < radios; ++i) {
        const radio_info &x = a.radio[i];
        const radio_info &y = b.radio[i];
        if (x.radioid != y.radioid || x.channel != y.channel || x.txpower != y.txpower ||
            x.rssi != y.rssi || x.bandwidth != y.bandwidth) {
            return false;
        }
    }
    return true;
}
