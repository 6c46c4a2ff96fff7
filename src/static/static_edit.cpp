// The three edits of the static neighbor list behind the bus methods: add or update one
// neighbor, delete one, replace them all. Each successful edit rewrites the file and runs the
// update pass, both after stngbr_lock is released (they take it themselves).
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "static/static_store.h"
#include "static/static_update.h"
#include "sysinfo/sysinfo.h"
#include "util/ipv4_text.h"
#include "util/log.h"

namespace {

constexpr const char *USERCONFIG_SAVE_CMD = "ubus call userconfig_reload userconfig_save";

// In cluster mode the platform's configuration service keeps its own copy of the file.
void tell_userconfig_in_cluster_mode() {
    if (is_cluster_mode() == 1) {
        int status = system(USERCONFIG_SAVE_CMD);
        (void)status;  // the service reports nothing useful back
    }
}

void save_and_update() {
    save_as_json();
    update_static_neighbor();
}

// Converts the IPv6 text of an add; a text that does not convert gives all zeros.
ip6_addr add_ip6_of(const char *ip6) {
    ip6_addr address{};
    TARN_DBG("%s: add static ip6 is %s\n", "static_mac_add", ip6);
    if (inet_pton(AF_INET6, ip6, address.data()) != 1) {
        perror("inet_pton");
        address.fill(0);
    }
    char back[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, address.data(), back, sizeof back);
    TARN_DBG("Add static neighbor ipv6 addr:[%s]\n", back);
    return address;
}

// Applies an add to the list; 0, or -1 when a new node is refused. Caller holds stngbr_lock.
int add_locked(const mac_addr &mac, const char *ip, const char *ip6, const ip6_addr &ip6_value) {
    if (static_member *node = static_member_find(mac)) {
        if (ip != nullptr) {
            node->info.ip = ipv4_from_text(ip);
        }
        if (ip6 != nullptr) {
            node->info.ip6 = ip6_value;
        }
        return 0;
    }
    if (static_member_list.count >= STATIC_NGBR_MAX) {
        TARN_WARN(
            "%s: static neighbor list is full (%d nodes), %02x:%02x:%02x:%02x:%02x:%02x "
            "not added\n",
            "static_mac_add", STATIC_NGBR_MAX, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
        return -1;
    }
    static_member *node = static_member_new();
    if (node == nullptr) {
        TARN_ERR("%s: Malloc failed\n", "static_mac_add");
        return -1;
    }
    node->info.mac = mac;
    if (ip != nullptr) {
        node->info.ip = ipv4_from_text(ip);
    }
    if (ip6 != nullptr) {
        node->info.ip6 = ip6_value;
    }
    node->info.state = AP_STATE_STATIC_OFFLINE;
    static_member_push(node);
    return 0;
}

}  // namespace

int static_mac_add(const char *mac, const char *ip, const char *ip6) {
    if (mac == nullptr) {
        return -1;
    }
    mac_addr parsed{};
    if (parse_mac_text(mac, parsed) != 0) {
        TARN_WARN("%s: MAC text refused (more than 6 groups or 63 characters)\n", "static_mac_add");
        return -1;
    }
    if (ip != nullptr && strnlen(ip, IPV4_TEXT_MAX + 1) > IPV4_TEXT_MAX) {
        TARN_WARN("%s: IPv4 text refused (more than 15 characters)\n", "static_mac_add");
        return -1;
    }
    TARN_DBG("mac is %s, %x:%x:%x:%x:%x:%x\n", mac, parsed[0], parsed[1], parsed[2], parsed[3],
             parsed[4], parsed[5]);
    TARN_DBG("%s: add ip is %s\n", "static_mac_add", ip != nullptr ? ip : "0.0.0.0");
    ip6_addr ip6_value{};
    if (ip6 != nullptr) {
        ip6_value = add_ip6_of(ip6);
    }
    {
        std::lock_guard<std::mutex> guard(stngbr_lock);
        if (add_locked(parsed, ip, ip6, ip6_value) != 0) {
            return -1;
        }
    }
    save_and_update();
    tell_userconfig_in_cluster_mode();
    return 0;
}

int static_mac_del(const char *mac) {
    mac_addr parsed{};
    bool readable = parse_mac_text(mac, parsed) == 0;
    {
        std::lock_guard<std::mutex> guard(stngbr_lock);
        static_member *node = readable ? static_member_find(parsed) : nullptr;
        if (node == nullptr) {
            TARN_WARN("%s: Can not find member in static neighbor list!\n", "static_mac_del");
            return -1;
        }
        static_member_remove(node);
    }
    save_and_update();
    tell_userconfig_in_cluster_mode();
    return 0;
}

int static_mac_qv(const ap_info *records, int32_t count) {
    TARN_DBG("cnt is %d\n", count);
    if (records == nullptr || count < 0) {
        count = 0;
    }
    if (count > STATIC_NGBR_MAX) {
        TARN_WARN("%s: %d records given, only the first %d are kept\n", "static_mac_qv", count,
                  STATIC_NGBR_MAX);
        for (int32_t i = STATIC_NGBR_MAX; i < count; ++i) {
            const mac_addr &mac = records[i].mac;
            TARN_WARN("%s: dropped static neighbor [%02x:%02x:%02x:%02x:%02x:%02x]\n",
                      "static_mac_qv", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
        }
        count = STATIC_NGBR_MAX;
    }
    {
        std::lock_guard<std::mutex> guard(stngbr_lock);
        static_member_clear();
        for (int32_t i = 0; i < count; ++i) {
            static_member *node = static_member_new();
            if (node == nullptr) {
                TARN_ERR("%s: Malloc failed\n", "static_mac_qv");
                continue;
            }
            node->info.mac = records[i].mac;
            node->info.ip = records[i].ip;
            node->info.ip6 = records[i].ip6;
            node->info.state = AP_STATE_STATIC_OFFLINE;
            static_member_push(node);
        }
    }
    save_and_update();
    return 1;
}
