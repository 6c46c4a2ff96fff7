// IPv4 and IPv6 addresses of the uplink interface, and their report to the driver.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "core/settings.h"
#include "neighbor/driver_msg.h"
#include "sysinfo/sysinfo.h"
#include "util/log.h"

namespace {

constexpr size_t IP6_HEX_DIGITS = 32;

int hex_digit_value(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

// Reads one IPv4 address of `ifname` with an interface ioctl; false when the ioctl fails.
bool interface_ipv4(int fd, unsigned long request, const char *ifname, uint32_t &out) {
    ifreq req;
    memset(&req, 0, sizeof req);
    memcpy(req.ifr_name, ifname, strnlen(ifname, IFNAMSIZ - 1));
    if (ioctl(fd, request, &req) < 0) {
        return false;
    }
    sockaddr_in addr;
    memcpy(&addr, &req.ifr_addr, sizeof addr);
    out = addr.sin_addr.s_addr;
    return true;
}

bool ip6_known(const ip6_addr &ip6) {
    return std::any_of(ip6.begin(), ip6.end(), [](uint8_t byte) { return byte != 0; });
}

}  // namespace

bool hex_to_bytes(const char *text, uint8_t *out, size_t count) {
    if (text == nullptr || out == nullptr || strnlen(text, 2 * count) < 2 * count) {
        return false;
    }
    uint8_t bytes[IP6_HEX_DIGITS];
    if (count > sizeof bytes) {
        return false;
    }
    for (size_t i = 0; i < count; ++i) {
        int high = hex_digit_value(text[2 * i]);
        int low = hex_digit_value(text[2 * i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes[i] = static_cast<uint8_t>(high << 4 | low);
    }
    memcpy(out, bytes, count);
    return true;
}

int get_ip6addr(const char *ifname, uint8_t *out) {
    if (ifname == nullptr || out == nullptr) {
        return -1;
    }
    FILE *file = fopen("/proc/net/if_inet6", "r");
    if (file == nullptr) {
        TARN_DBG("Cannot open if_inet6 file\n");
        return -1;
    }

    // Each field is at most a whole line long, so the conversions below cannot overflow.
    char line[128];
    char local[sizeof line] = "";
    char global[sizeof line] = "";
    while (fgets(line, sizeof line, file) != nullptr) {
        char address[sizeof line];
        char name[sizeof line];
        if (sscanf(line, "%s %*s %*s %*s %*s %s", address, name) != 2 ||
            strcmp(name, ifname) != 0) {
            continue;
        }
        strcpy(strncmp(address, "fe80", 4) == 0 ? local : global, address);
    }
    TARN_DBG("%s: ifname:[%s], local ipv6 addr:[%s]\n", "get_ip6addr", ifname, local);
    TARN_DBG("%s: ifname:[%s], global ipv6 addr:[%s]\n", "get_ip6addr", ifname, global);

    const char *chosen = global[0] != '\0' ? global : local;
    uint8_t bytes[16] = {};
    if (chosen[0] != '\0') {
        hex_to_bytes(chosen, bytes, sizeof bytes);
    }
    memcpy(out, bytes, sizeof bytes);
    fclose(file);
    return 0;
}

void get_ipaddr() {
    const char *self = "get_ipaddr";
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        TARN_DBG("socket error");
        return;
    }
    char ifname[IFNAME_SIZE];
    Get_ifname(ifname);

    uint32_t value = 0;
    if (interface_ipv4(fd, SIOCGIFNETMASK, ifname, value)) {
        pvc_mask = value;
    }
    if (interface_ipv4(fd, SIOCGIFBRDADDR, ifname, value)) {
        pvc_brast = value;
    }

    // Until the driver confirms, every pass repeats the AP information it may have missed.
    neighbor_ap known = self_ap_snapshot();
    if (set_ipaddr.load() == 0 && (known.ip != 0 || ip6_known(known.info.ip6))) {
        netlink_set_ipaddr(version.load());
    }

    if (interface_ipv4(fd, SIOCGIFADDR, ifname, value)) {
        ap_ip = value;
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &value, text, sizeof text);
        TARN_DBG("%s: self ip: %s\n", self, text);
    } else {
        TARN_DBG("%s: get ip failed\n", self);
    }
    close(fd);

    ip6_addr ip6{};
    if (get_ip6addr(ifname, ip6.data()) == 0) {
        char text[INET6_ADDRSTRLEN] = "";
        inet_ntop(AF_INET6, ip6.data(), text, sizeof text);
        TARN_DBG("%s: ifname:[%s], ipv6 addr:[%s]\n", self, ifname, text);
    }

    if (self_ap_store_addresses(ntohl(ap_ip.load()), ip6)) {
        netlink_set_ipaddr(version.load());
    }
}
