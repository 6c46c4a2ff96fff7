#include "diag/show_tables.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "diag/show_client.h"

namespace {

constexpr const char *STATE_LEGEND =
    "[state] 0:active 1:offline 2:wireless ageing  3:static active 4:static offline";
// Records that describe no radio (static neighbors) are printed with two.
constexpr int RADIOCNT_SHOWN_WHEN_NONE = 2;

struct ipv4_text {
    char text[INET_ADDRSTRLEN];
};

ipv4_text ipv4(uint32_t stored) {
    ipv4_text out;
    in_addr addr;
    addr.s_addr = stored;
    inet_ntop(AF_INET, &addr, out.text, sizeof out.text);
    return out;
}

struct ipv6_text {
    char text[INET6_ADDRSTRLEN];
};

ipv6_text ipv6(const ip6_addr &stored) {
    ipv6_text out;
    inet_ntop(AF_INET6, stored.data(), out.text, sizeof out.text);
    return out;
}

// Text fields are printed as stored; a record from the network may lack its terminator.
std::string text_field(const char *field, size_t size) {
    return std::string(field, std::find(field, field + size, '\0'));
}

template <size_t N>
std::string text_field(const char (&field)[N]) {
    return text_field(field, N);
}

template <size_t N>
std::string text_or_minus_one(const char (&field)[N]) {
    std::string text = text_field(field);
    return text.empty() ? "-1" : text;
}

void print_mac(const mac_addr &mac, const char *after) {
    printf("%02x:%02x:%02x:%02x:%02x:%02x%s", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5],
           after);
}

int radios_shown(const ap_info &ap) {
    int count = ap.radiocnt == 0 ? RADIOCNT_SHOWN_WHEN_NONE : ap.radiocnt;
    return count;
}

void print_wireless_record(const ap_info &ap) {
    int radiocnt = radios_shown(ap);
    print_mac(ap.mac, "  ");
    printf("%-15s  ", ipv4(ap.ip).text);
    printf("%-40s  ", ipv6(ap.ip6).text);
    printf("%-15s  ", ipv4(ap.qv_ip).text);
    printf("%-15s  %-6d %-10s  %-10s  %-8d  ", text_field(ap.tenantId).c_str(), ap.state,
           text_field(ap.name).c_str(), text_field(ap.version).c_str(), radiocnt);
    for (int i = 0; i < std::min(radiocnt, AP_RADIO_MAX); ++i) {
        if (i > 0) {
            printf("%-17s  %-15s  %-40s  %-15s  %-15s  %-6s %-10s  %-10s  %-8s  ", "", "", "", "",
                   "", "", "", "", "");
        }
        const radio_info &radio = ap.radio[i];
        printf("%-8d  %-8d  %-9d  %-6d  %-8d\n", radio.radioid, radio.channel, radio.bandwidth,
               radio.rssi, radio.txpower);
    }
}

void print_radio_record(const ap_info &ap) {
    int radiocnt = radios_shown(ap);
    print_mac(ap.mac, "  ");
    printf("%-15s  ", ipv4(ap.ip).text);
    printf("%-15s  ", ipv4(ap.qv_ip).text);
    printf("%-15s  ", text_or_minus_one(ap.tenantId).c_str());
    printf("%-6d ", ap.state);
    printf("%-10s  ", text_or_minus_one(ap.name).c_str());
    printf("%-12s  ", text_or_minus_one(ap.version).c_str());
    printf("%-8d ", radiocnt);
    for (int i = 0; i < std::min(radiocnt, AP_RADIO_MAX); ++i) {
        const radio_info &radio = ap.radio[i];
        if (i == 2) {
            printf("%-7d %-7d %-4d", i, radio.channel, radio.rssi);
            printf("%d", radio.txpower);
        } else {
            printf("%-7d %-7d %-4d %-7d ", i, radio.channel, radio.rssi, radio.txpower);
        }
    }
    printf("\n");
}

}  // namespace

void print_wireless_table(const ap_info *list, int n) {
    printf(
        "%-17s  %-15s  %-40s  %-15s  %-15s  %-6s %-10s  %-10s  %-8s  %-8s  %-8s  %-9s  %-6s  "
        "%-8s\n",
        "mac", "ip", "ip6", "qv_ip", "tenantId", "state", "name", "version", "radiocnt", "radioid",
        "channel", "bandwidth", "rssi", "txpower");
    for (int i = 0; i < n; ++i) {
        print_wireless_record(list[i]);
    }
    printf("%s\n", STATE_LEGEND);
}

void print_pvc_table(const ap_info *list, int n) {
    printf("%-17s  %-15s  %-40s  %-10s  %-15s  %-10s \n", "mac", "ip", "ip6", "cluster_id",
           "pvc_ip", "pvc_mac");
    for (int i = 0; i < n; ++i) {
        const ap_info &ap = list[i];
        print_mac(ap.mac, "  ");
        printf("%-15s  ", ipv4(ap.ip).text);
        printf("%-40s  ", ipv6(ap.ip6).text);
        printf("%-10d  ", static_cast<int>(ap.cluster_id));
        printf("%-15s  ", ipv4(ap.pvc_ip).text);
        print_mac(ap.pvc_mac, "\n");
    }
}

void print_cluster_table(const ap_info *list, int n) {
    printf("%-17s  %-15s  %-40s  %-15s  %-10s  %-6s %-10s  %-10s \n", "mac", "ip", "ip6", "qv_ip",
           "cluster_id", "state", "name", "version");
    for (int i = 0; i < n; ++i) {
        const ap_info &ap = list[i];
        print_mac(ap.mac, "  ");
        printf("%-15s  ", ipv4(ap.ip).text);
        printf("%-40s  ", ipv6(ap.ip6).text);
        printf("%-15s  ", ipv4(ap.qv_ip).text);
        printf("%-10d  ", static_cast<int>(ap.cluster_id));
        printf("%-6d %-10s  %-10s\n", ap.state, text_field(ap.name).c_str(),
               text_field(ap.version).c_str());
    }
}

void print_radio_table(const ap_info *list, int n) {
    printf(
        "%-17s  %-15s  %-15s  %-15s  %-6s %-10s  %-12s  %-8s %-7s %-7s %s %-7s %-7s %-7s %s "
        "%-7s %-7s %-7s %s %s\n",
        "mac", "ip", "qv_ip", "tenantId", "state", "name", "version", "radiocnt", "radioid",
        "channel", "rssi", "txpower", "radioid", "channel", "rssi", "txpower", "radioid", "channel",
        "rssi", "txpower");
    for (int i = 0; i < n; ++i) {
        print_radio_record(list[i]);
    }
}

void print_show_table(int kind, const ap_info *list, int n) {
    switch (kind) {
        case SHOW_CLUSTER:
            print_pvc_table(list, n);
            break;
        case SHOW_UBUS:
            print_cluster_table(list, n);
            break;
        case SHOW_NEIGHBOR:
            print_radio_table(list, n);
            break;
        default:
            print_wireless_table(list, n);
            break;
    }
}
