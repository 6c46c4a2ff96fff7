#include "core/probe.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "core/settings.h"
#include "proto/nbcp.h"
#include "sysinfo/self_ap.h"
#include "util/log.h"

namespace {

// An address the platform uses for its own set-up; never probed over IPv4.
const uint32_t UNPROBED_IPV4 = inet_addr("192.168.1.254");

bool is_zero(const ip6_addr &addr) {
    for (uint8_t byte : addr) {
        if (byte != 0) {
            return false;
        }
    }
    return true;
}

// The IPv4 destination of a probe: broadcast modes go to the subnet's broadcast address.
uint32_t ipv4_destination(uint32_t target, int mode) {
    switch (mode) {
        case NDRP_MODE_SUBNET_BROADCAST:
            return ((ap_ip ^ target) & pvc_mask) == 0 ? pvc_brast.load() : target;
        case NDRP_MODE_BROADCAST:
            return pvc_brast;
        default:
            return target;
    }
}

// Encodes this AP's probe into out (NBCP_NDRP_LEN bytes).
uint32_t build_probe(uint8_t *out, int mode) {
    neighbor_ap self = self_ap_snapshot();
    nbcp_ndrp probe;
    memset(&probe, 0, sizeof probe);
    probe.kind_flag = 0;
    probe.mode = mode == NDRP_MODE_STATIC ? NDRP_MODE_STATIC : 0;
    probe.ip = self.ip;
    probe.ip6 = self.info.ip6;
    probe.mac = self.mac;
    return nbcp_build_ndrp(out, &probe);
}

}  // namespace

ssize_t send_ndrp_by_ip4(uint32_t target, int mode) {
    sockaddr_in dest;
    memset(&dest, 0, sizeof dest);
    dest.sin_family = AF_INET;
    dest.sin_port = htons(NBCP_PORT);
    dest.sin_addr.s_addr = ipv4_destination(target, mode);

    uint8_t packet[NBCP_NDRP_LEN];
    uint32_t len = build_probe(packet, mode);
    TARN_DBG("%s: dest ip is %x\n", "send_ndrp_by_ip4", dest.sin_addr.s_addr);
    ssize_t sent =
        sendto(sock_send_nbcp, packet, len, 0, reinterpret_cast<sockaddr *>(&dest), sizeof dest);
    if (sent < 0) {
        TARN_DBG("send ndrp failed,errno:%d\n", errno);
    }
    return sent;
}

void send_ndrp_by_ip6(const ip6_addr &target, int mode) {
    sockaddr_in6 dest;
    memset(&dest, 0, sizeof dest);
    dest.sin6_family = AF_INET6;
    dest.sin6_port = htons(NBCP_PORT);
    dest.sin6_flowinfo = 0;
    memcpy(&dest.sin6_addr, target.data(), target.size());
    dest.sin6_scope_id = 0;

    uint8_t packet[NBCP_NDRP_LEN];
    uint32_t len = build_probe(packet, mode);
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, target.data(), text, sizeof text);
    if (sendto(sock6_nbcp, packet, len, 0, reinterpret_cast<sockaddr *>(&dest), sizeof dest) < 0) {
        TARN_DBG("send ndrp to ip6[%s] failed,errno:%d\n", text, errno);
    } else {
        TARN_DBG("send ndrp to ip6[%s] success\n", text);
    }
}

int send_ndrp(const ap_info *target, int mode) {
    if (target == nullptr) {
        return -1;
    }
    if (target->ip != 0 && target->ip != UNPROBED_IPV4) {
        send_ndrp_by_ip4(target->ip, mode);
    } else if (!is_zero(target->ip6)) {
        send_ndrp_by_ip6(target->ip6, mode);
    }
    return 0;
}
