// The AP description shared by every subsystem, and the neighbor table entry.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

using mac_addr = std::array<uint8_t, 6>;
using ip6_addr = std::array<uint8_t, 16>;

constexpr int NGB_HASH_SIZE = 67;
constexpr int STATIC_NGBR_MAX = 8;
constexpr int AP_RADIO_MAX = 4;
constexpr uint32_t NGB_AGE_FRESH = 100;

// Values of ap_info::state (and the neighbor_ap::state mirror).
enum ap_state : uint8_t {
    AP_STATE_ACTIVE = 0,
    AP_STATE_OFFLINE = 1,
    AP_STATE_WIRELESS_AGEING = 2,
    AP_STATE_STATIC_ACTIVE = 3,
    AP_STATE_STATIC_OFFLINE = 4,
};

struct radio_info {
    uint8_t radioid;
    uint8_t channel;
    uint8_t txpower;
    uint8_t rssi;
    uint8_t bandwidth;
};

struct ap_info {
    uint32_t ip;  // network byte order in neighbor entries and static nodes
    ip6_addr ip6;
    uint32_t qv_ip;  // host order in self_ap, network order in neighbor entries
    mac_addr mac;
    char tenantId[64];
    uint8_t state;
    char version[16];
    char name[32];
    uint8_t radiocnt;
    radio_info radio[AP_RADIO_MAX];
    uint32_t pvc_ip;  // host order in self_ap, network order in neighbor entries
    uint32_t cluster_id;
    mac_addr pvc_mac;
    uint8_t cluster_flag;
};
// The record travels whole in local datagrams: the field order and widths above, one pad byte.
static_assert(sizeof(ap_info) == 180, "ap_info is 180 bytes on the wire of local messages");
static_assert(offsetof(ap_info, tenantId) == 30, "ap_info fields after mac start at byte 30");

// Links of a circular doubly linked bucket list (the head is the bucket itself).
struct list_head {
    list_head *next;
    list_head *prev;
};

struct neighbor_ap {
    list_head list;
    uint32_t ip;  // = info.ip for neighbors; self_ap keeps its own address here, host order
    mac_addr mac;
    uint8_t state;  // mirror of info.state
    ap_info info;
    uint32_t age;
    uint32_t timestamp;  // driver cache time value; the largest marks the oldest entry
};
