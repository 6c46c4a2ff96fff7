// Message records of the nbcp protocol and the parse record that holds any one of them.
#pragma once

#include <cstdint>

#include "neighbor/ap_info.h"
#include "proto/nbcp_wire.h"

// Message types carried in byte 3 of the header.
enum nbcp_msg_type : uint8_t {
    NBCP_TYPE_NDRP = 10,  // probe
    NBCP_TYPE_NDSP = 11,  // answer with the full self-description
    NBCP_TYPE_15 = 15,
    NBCP_TYPE_16 = 16,
};
// Types 1 to 6 carry kinds 1 to 6 in fixed layout; types 21 to 26 carry the same kinds as TLV.
constexpr uint8_t NBCP_KIND_MIN = 1;
constexpr uint8_t NBCP_KIND_MAX = 6;

struct nbcp_ndrp {
    nbcp_hdr hdr;
    uint8_t kind_flag;
    uint8_t mode;  // 3 for probes of static neighbors and explicit addresses, else 0
    uint32_t ip;   // host order
    ip6_addr ip6;
    mac_addr mac;
};

struct nbcp_ndsp {
    nbcp_hdr hdr;
    uint8_t kind_flag;
    uint8_t mode;
    uint32_t ip;  // host order
    mac_addr mac;
    ap_info info;
    uint32_t pvc_ip;  // host order
    uint32_t cluster_id;
    mac_addr pvc_mac;
    uint8_t cluster_flag;
};

// Kinds 1 to 6 and types 15 and 16 are accepted and decoded but never acted on; their field
// names describe form and position only.
constexpr uint32_t NBCP_SMALL_LIST_MAX = 4;
constexpr uint32_t NBCP_LONG_LIST_MAX = 255;

struct nbcp_item4 {
    uint8_t byte[4];
};

struct nbcp_kind1 {
    nbcp_hdr hdr;
    uint8_t field1;
    uint8_t field2;
    uint8_t field3;
    mac_addr address;
    uint8_t field5;
    uint8_t item_count;  // as received, may exceed the items held
    nbcp_item4 items[NBCP_SMALL_LIST_MAX];
};

struct nbcp_kind2_entry {
    mac_addr address;
    uint8_t field2;
    uint8_t field3;
    uint32_t value;
    char text[16];
    uint8_t field6;
};

struct nbcp_kind2 {
    nbcp_hdr hdr;
    uint8_t field1;
    uint8_t field2;
    uint8_t field3;
    mac_addr address;
    uint8_t entry_count;
    nbcp_kind2_entry entries[NBCP_LONG_LIST_MAX];
};

struct nbcp_kind3 {
    nbcp_hdr hdr;
    uint8_t field1;
    uint8_t field2;
    uint8_t field3;
    mac_addr address;
    uint8_t field5;
    uint8_t item_count;
    nbcp_item4 items[NBCP_SMALL_LIST_MAX];
    uint32_t value;
    char text1[16];
    char text2[32];
    char text3[32];
    char text4[32];
};

struct nbcp_kind4_entry {
    mac_addr address;
    uint8_t item_count;
    nbcp_item4 items[NBCP_SMALL_LIST_MAX];
};

struct nbcp_kind4 {
    nbcp_hdr hdr;
    mac_addr address;
    uint8_t entry_count;
    nbcp_kind4_entry entries[NBCP_LONG_LIST_MAX];
};

struct nbcp_kind5_neighbor {
    mac_addr address;
    uint8_t item_count;
    nbcp_item4 items[NBCP_SMALL_LIST_MAX];
};

struct nbcp_kind5_entry {
    uint8_t field1;
    uint8_t radio_count;
    uint8_t neighbor_count;
    mac_addr address;
    uint32_t value1;
    uint32_t value2;
    nbcp_item4 radios[NBCP_SMALL_LIST_MAX];
    nbcp_kind5_neighbor neighbors[NBCP_LONG_LIST_MAX];
};

struct nbcp_kind5 {
    nbcp_hdr hdr;
    uint32_t value;
    uint32_t entry_count;
    nbcp_kind5_entry entries[NBCP_LONG_LIST_MAX];
};

struct nbcp_kind6 {
    nbcp_hdr hdr;
    uint8_t field1;
    uint32_t value1;
    uint32_t value2;
    uint8_t entry_count;
    mac_addr entries[NBCP_LONG_LIST_MAX];
};

struct nbcp_type15 {
    nbcp_hdr hdr;
    uint16_t subtype;
    uint32_t value;
    mac_addr address;
};

struct nbcp_type16 {
    nbcp_hdr hdr;
    uint8_t count;
    mac_addr address;
    uint8_t groups[255][3];
};

// The parse record. Every member of m begins with its nbcp_hdr, so m.hdr reads the header
// whichever message the record holds.
struct nbcp_msg {
    uint8_t kind;  // the header's type, except types 21 to 26, which are kinds 1 to 6
    union {
        nbcp_hdr hdr;
        nbcp_ndrp ndrp;
        nbcp_ndsp ndsp;
        nbcp_kind1 kind1;
        nbcp_kind2 kind2;
        nbcp_kind3 kind3;
        nbcp_kind4 kind4;
        nbcp_kind5 kind5;
        nbcp_kind6 kind6;
        nbcp_type15 type15;
        nbcp_type16 type16;
    } m;
};
static_assert(sizeof(nbcp_msg) > 255 * 255 * sizeof(nbcp_kind5_neighbor),
              "the parse record holds the largest kind");
