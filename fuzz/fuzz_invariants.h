// Checks shared by the fuzz targets; a broken invariant aborts, which libFuzzer reports.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "proto/nbcp.h"

#define FUZZ_CHECK(cond)                                                                  \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (0)

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
