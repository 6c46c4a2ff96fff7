#include "core/discovery.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>

#include "core/handlers.h"
#include "core/probe.h"
#include "core/recv_area.h"
#include "core/settings.h"
#include "neighbor/neighbor_table.h"
#include "proto/nbcp.h"
#include "static/static_store.h"
#include "sysinfo/self_ap.h"
#include "sysinfo/sysinfo.h"
#include "util/local_socket.h"
#include "util/log.h"

namespace {

// Any source address of an nbcp socket; RecvMsg kind 2 hands recvfrom all 28 bytes of it.
union nbcp_source {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};
static_assert(sizeof(nbcp_source) == 28, "an IPv4 and an IPv6 source share one buffer");

// The state an answer advertises for a non-static probe: 2 (wireless ageing) tells the prober
// that this AP has no VAP to serve clients on.
uint8_t wlan_state() {
    return is_have_wlan() ? AP_STATE_ACTIVE : AP_STATE_WIRELESS_AGEING;
}

// The answer record for a probe of `mode`, from a copy of self_ap taken after the state store.
nbcp_ndsp answer_record(int mode) {
    uint8_t state = AP_STATE_STATIC_ACTIVE;
    if (mode != NDRP_MODE_STATIC) {
        state = wlan_state();  // checked before the lock: it reads the system's interfaces
        std::lock_guard<std::mutex> guard(self_ap_lock);
        self_ap.info.state = state;
    }
    const neighbor_ap self = self_ap_snapshot();

    nbcp_ndsp answer;
    memset(&answer, 0, sizeof answer);
    answer.kind_flag = 1;
    answer.mode = mode == NDRP_MODE_STATIC ? NDRP_MODE_STATIC : 0;
    answer.ip = self.ip;
    answer.mac = self.mac;
    // info.mac and the cluster fields of info stay zero: the cluster facts travel outside info.
    answer.info.ip = self.ip;
    answer.info.ip6 = self.info.ip6;
    answer.info.qv_ip = self.info.qv_ip;
    answer.info.state = state;
    memcpy(answer.info.tenantId, self.info.tenantId, sizeof answer.info.tenantId);
    memcpy(answer.info.version, self.info.version, sizeof answer.info.version);
    memcpy(answer.info.name, self.info.name, sizeof answer.info.name);
    answer.info.radiocnt = self.info.radiocnt;
    memcpy(answer.info.radio, self.info.radio, sizeof answer.info.radio);
    answer.pvc_ip = self.info.pvc_ip;
    answer.cluster_id = self.info.cluster_id;
    answer.pvc_mac = self.info.pvc_mac;
    answer.cluster_flag = self.info.cluster_flag;
    return answer;
}

// The first four bytes of an IPv6 address as one host-order number, as the logs show it.
uint32_t ip6_head(const void *addr) {
    uint32_t head;
    memcpy(&head, addr, sizeof head);
    return head;
}

std::string ip6_text(const ip6_addr &addr) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, addr.data(), text, sizeof text);
    return text;
}

template <size_t N>
void copy_field(char (&dst)[N], const char (&src)[N]) {
    memcpy(dst, src, N);
}

// An answer to a probe of a dynamic neighbor refreshes its table entry, never creates one. The
// driver owns the radio facts; only the transmit powers come from the neighbor itself.
void ndsp_update_neighbor(const nbcp_ndsp &answer) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    neighbor_ap *entry = neighbor_ap_find(answer.mac);
    if (entry == nullptr) {
        return;
    }
    entry->info.state = answer.info.state;
    entry->state = answer.info.state;
    copy_field(entry->info.tenantId, answer.info.tenantId);
    copy_field(entry->info.version, answer.info.version);
    copy_field(entry->info.name, answer.info.name);
    entry->info.radiocnt = answer.info.radiocnt;
    for (int i = 0; i < AP_RADIO_MAX; ++i) {
        entry->info.radio[i].txpower = answer.info.radio[i].txpower;
    }
    entry->info.qv_ip = htonl(answer.info.qv_ip);
    entry->age = NGB_AGE_FRESH;
    entry->info.pvc_ip = htonl(answer.pvc_ip);
    entry->info.cluster_id = answer.cluster_id;
    entry->info.pvc_mac = answer.pvc_mac;
    entry->info.cluster_flag = answer.cluster_flag;

    TARN_DBG("%s:[ndsp] name-version: %s-%s\n", "nbcp_receive", entry->info.name,
             entry->info.version);
    TARN_DBG("%s:[ndsp] cluster id:%d, pvc ip:%x\n", "nbcp_receive",
             static_cast<int>(entry->info.cluster_id), entry->info.pvc_ip);
    TARN_DBG("%s:[ndsp] ipv6:[%s]\n", "nbcp_receive", ip6_text(answer.info.ip6).c_str());
}

// A static neighbor is recorded at the address its answer came from, whatever it claims.
void ndsp_update_static(uint8_t kind, const nbcp_ndsp &answer, const nbcp_source &from) {
    const mac_addr &mac = answer.mac;
    TARN_DBG("%s:[ndsp] mac:%x:%x:%x:%x:%x:%x, ip is %x\n", "nbcp_receive", mac[0], mac[1], mac[2],
             mac[3], mac[4], mac[5], answer.ip);
    TARN_DBG("%s:[ndsp] type:%d,mode:%d,clusterID:%d\n", "nbcp_receive", kind, answer.mode,
             static_cast<int>(answer.cluster_id));
    TARN_DBG("%s:[ndsp] ip6:[%s]\n", "nbcp_receive", ip6_text(answer.info.ip6).c_str());

    std::lock_guard<std::mutex> guard(stngbr_lock);
    static_member *node = static_member_find(mac);
    if (node == nullptr) {
        return;
    }
    if (from.any.sa_family == AF_INET) {
        node->info.ip = from.v4.sin_addr.s_addr;
    } else if (from.any.sa_family == AF_INET6) {
        memcpy(node->info.ip6.data(), &from.v6.sin6_addr, node->info.ip6.size());
    }
    if (answer.info.qv_ip != 0) {
        node->info.qv_ip = htonl(answer.info.qv_ip);
    }
    node->info.state = AP_STATE_STATIC_ACTIVE;
    node->info.cluster_id = answer.cluster_id;
    copy_field(node->info.tenantId, answer.info.tenantId);
    copy_field(node->info.version, answer.info.version);
    copy_field(node->info.name, answer.info.name);
}

void ndsp_receive(uint8_t kind, const nbcp_ndsp &answer, const nbcp_source &from) {
    if (answer.mode <= NDRP_MODE_DYNAMIC) {
        ndsp_update_neighbor(answer);
    } else {
        ndsp_update_static(kind, answer, from);
    }
}

// The IPv6 variant of the log shows the first four bytes of the source address, as the answer's
// own log line does.
void ndrp_receive(int sock, uint8_t kind, const nbcp_ndrp &probe, nbcp_source &from) {
    if (from.any.sa_family == AF_INET) {
        TARN_DBG("%s:[ndrp] type:%d, mode:%d, ip:%x\n", "nbcp_receive", kind, probe.mode, probe.ip);
    } else {
        TARN_DBG("%s:[ndrp] type:%d, mode:%d, ip6:%x\n", "nbcp_receive", kind, probe.mode,
                 ip6_head(&from.v6.sin6_addr));
    }
    send_ndsp(sock, &from.any, probe.mode);
}

}  // namespace

ssize_t send_ndsp(int sock, sockaddr *dest, int mode) {
    if (dest == nullptr) {
        return -1;
    }
    socklen_t dest_len;
    if (dest->sa_family == AF_INET) {
        sockaddr_in v4;
        memcpy(&v4, dest, sizeof v4);
        v4.sin_port = htons(NBCP_PORT);
        memcpy(dest, &v4, sizeof v4);
        dest_len = sizeof v4;
        TARN_DBG("send ndsp to ip: %x\n", v4.sin_addr.s_addr);
    } else if (dest->sa_family == AF_INET6) {
        sockaddr_in6 v6;
        memcpy(&v6, dest, sizeof v6);
        v6.sin6_port = htons(NBCP_PORT);
        memcpy(dest, &v6, sizeof v6);
        dest_len = sizeof v6;
        TARN_DBG("send ndsp to ip6: %x\n", ip6_head(&v6.sin6_addr));
    } else {
        return -1;
    }

    nbcp_ndsp answer = answer_record(mode);
    uint8_t packet[NBCP_NDSP_MAX];
    uint32_t len = nbcp_build_ndsp(packet, &answer);
    ssize_t sent = sendto(sock, packet, len, 0, dest, dest_len);
    if (sent < 0) {
        TARN_DBG("send ndsp:%d ,errno:%d,mode:%d\n", static_cast<int>(sent), errno,
                 answer.info.state);
    }
    return sent;
}

// The decode area (about 1.7 MiB) belongs to the receive thread's frame; it reads as zero
// wherever this datagram wrote nothing, and clearing it costs what this one wrote.
void nbcp_receive(int sock, int kind, nbcp_decode_area &area) {
    nbcp_source from;
    memset(&from, 0, sizeof from);
    socklen_t from_len = sizeof from;
    received_datagram datagram(sock, &from, &from_len, kind);
    if (datagram.size() == 0) {
        return;
    }

    decoded_datagram decoded(area);
    nbcp_msg &msg = area.msg;
    area.parse(buffer, datagram.size());
    TARN_DBG("recv nbcp packet type:%d\n", msg.kind);

    switch (msg.kind) {
        case NBCP_TYPE_NDSP:
            ndsp_receive(msg.kind, msg.m.ndsp, from);
            break;
        case NBCP_TYPE_NDRP:
            ndrp_receive(sock, msg.kind, msg.m.ndrp, from);
            break;
        default:
            break;  // decoded, but nothing this daemon acts on
    }
}
