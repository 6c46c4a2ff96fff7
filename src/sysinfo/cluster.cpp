// Cluster mode and the facts about the cluster's head AP (PVC).
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>

#include "sysinfo/sysinfo.h"
#include "util/ipv4_text.h"
#include "util/log.h"
#include "util/run_cmd.h"

int is_cluster_mode() {
    char output[64];
    run_cmd("getmode", output, sizeof output);
    const char *mode = trim(output);
    TARN_DBG("%s: AP mode is [%s]\n", "is_cluster_mode", mode);
    int cluster = strcmp(mode, "CLUSTER") == 0 ? 1 : 0;
    TARN_DBG("%s: [%d]\n", "is_cluster_mode", cluster);
    return cluster;
}

bool host_is_big_endian() {
    uint16_t probe = 1;
    uint8_t bytes[sizeof probe];
    memcpy(bytes, &probe, sizeof probe);
    return bytes[1] == 1;
}

int parse_mac_dash_for(const char *text, mac_addr &out, bool big_endian) {
    if (text == nullptr) {
        return 0;
    }
    if (!big_endian) {
        int got = sscanf(text, "%2hhx-%2hhx-%2hhx-%2hhx-%2hhx-%2hhx", &out[0], &out[1], &out[2],
                         &out[3], &out[4], &out[5]);
        return got < 0 ? 0 : got;
    }
    // Older embedded C libraries treat the hh length like h and store two bytes, which on a
    // big-endian host puts the value into the wrong byte; such hosts read 16-bit values and
    // keep the low byte.
    unsigned short wide[6] = {};
    int got = sscanf(text, "%2hx-%2hx-%2hx-%2hx-%2hx-%2hx", &wide[0], &wide[1], &wide[2], &wide[3],
                     &wide[4], &wide[5]);
    for (int i = 0; i < got && i < 6; ++i) {
        out[i] = static_cast<uint8_t>(wide[i] & 0xff);
    }
    return got < 0 ? 0 : got;
}

int parse_mac_dash(const char *text, mac_addr &out) {
    return parse_mac_dash_for(text, out, host_is_big_endian());
}

void get_cluster_info() {
    if (access("/tmp/pvc-info", F_OK) != 0) {
        TARN_DBG("%s: access pvc-info failed\n", "get_cluster_info");
        return;
    }
    char output[64];
    run_cmd("cat /tmp/pvc-info", output, sizeof output);
    const char *text = trim(output);
    TARN_DBG("%s: pvc-info = %s\n", "get_cluster_info", text);

    int first = 0;
    int third = 0;
    int cluster_id = 0;
    char pvc_ip_text[32] = "";
    char pvc_mac_text[32] = "";
    int fields = sscanf(text, "%d:%31[^:]:%d:%d:%31[^:]", &first, pvc_ip_text, &third, &cluster_id,
                        pvc_mac_text);
    TARN_DBG("cluster..%d...ip:%s,%d,cluster_id:%d,mac:%s\n", first, pvc_ip_text, third, cluster_id,
             pvc_mac_text);
    // A partly written or foreign file must not replace good cluster facts with garbage.
    if (fields != 5) {
        return;
    }

    mac_addr pvc_mac{};
    parse_mac_dash(pvc_mac_text, pvc_mac);
    uint32_t pvc_ip = ntohl(ipv4_from_text(pvc_ip_text));
    self_ap_store_cluster(static_cast<uint32_t>(cluster_id), pvc_ip, pvc_mac);
    TARN_DBG("cluster id:%d,pvc ip:%x\n", cluster_id, pvc_ip);
}
