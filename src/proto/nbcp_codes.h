// Element type codes of the probe, the answer and the neighbor-list entry; the builders and
// the parsers share them so both sides stay in step.
#pragma once

#include <cstddef>
#include <cstdint>

enum ndrp_code : uint16_t {
    NDRP_KIND_FLAG = 128,
    NDRP_MODE = 129,
    NDRP_IP = 130,
    NDRP_MAC = 131,
    NDRP_IP6 = 132,  // sent, but skipped on receipt: the answer goes to the source address
};

enum ndsp_code : uint16_t {
    NDSP_KIND_FLAG = 134,
    NDSP_MODE = 135,
    NDSP_IP = 136,
    NDSP_MAC = 137,
    NDSP_INFO_IP = 138,
    NDSP_INFO_MAC = 139,
    NDSP_INFO_STATE = 140,
    NDSP_INFO_VERSION = 141,
    NDSP_INFO_NAME = 142,
    NDSP_INFO_RADIOCNT = 143,  // opens the radios
    NDSP_RADIO_END = 144,
    NDSP_RADIO_ID = 145,
    NDSP_RADIO_CHANNEL = 146,
    NDSP_RADIO_TXPOWER = 147,
    NDSP_RADIO_RSSI = 148,
    NDSP_INFO_QV_IP = 149,
    NDSP_PVC_IP = 150,
    NDSP_CLUSTER_ID = 151,
    NDSP_PVC_MAC = 152,
    NDSP_CLUSTER_FLAG = 153,
    NDSP_INFO_TENANT_ID = 154,
    NDSP_RADIO_BANDWIDTH = 155,
    NDSP_INFO_IP6 = 156,
};

enum list_code : uint16_t {
    LIST_IP = 6,
    LIST_MAC = 7,
    LIST_STATE = 8,
    LIST_VERSION = 9,
    LIST_NAME = 10,
    LIST_RADIOCNT = 11,  // opens the radios
    LIST_RADIO_END = 12,
    LIST_RADIO_ID = 13,
    LIST_RADIO_CHANNEL = 14,
    LIST_RADIO_TXPOWER = 15,
    LIST_RADIO_RSSI = 16,
    LIST_QV_IP = 17,
    LIST_PVC_IP = 18,
    LIST_CLUSTER_ID = 19,
    LIST_PVC_MAC = 20,
    LIST_CLUSTER_FLAG = 21,
    LIST_TENANT_ID = 22,
    LIST_RADIO_BANDWIDTH = 23,
    LIST_IP6 = 24,
    LIST_ENTRY_END = 60,
};

// An element whose value has a fixed width: its reader takes that many bytes whatever the
// element's length field says.
struct nbcp_fixed {
    uint16_t code;
    uint16_t width;
};

// As the builders write it, the answer opens with these elements.
constexpr nbcp_fixed NDSP_FIXED_HEAD[] = {
    {NDSP_KIND_FLAG, 1},  {NDSP_MODE, 1},       {NDSP_IP, 4},         {NDSP_MAC, 6},
    {NDSP_PVC_IP, 4},     {NDSP_CLUSTER_ID, 4}, {NDSP_PVC_MAC, 6},    {NDSP_CLUSTER_FLAG, 1},
    {NDSP_INFO_IP, 4},    {NDSP_INFO_IP6, 16},  {NDSP_INFO_QV_IP, 4}, {NDSP_INFO_MAC, 6},
    {NDSP_INFO_STATE, 1},
};

// The radio elements differ between the answer and the list only in their codes.
struct nbcp_radio_codes {
    uint16_t radioid;
    uint16_t channel;
    uint16_t txpower;
    uint16_t rssi;
    uint16_t bandwidth;
    uint16_t end;
};

constexpr nbcp_radio_codes NDSP_RADIO_CODES = {NDSP_RADIO_ID,        NDSP_RADIO_CHANNEL,
                                               NDSP_RADIO_TXPOWER,   NDSP_RADIO_RSSI,
                                               NDSP_RADIO_BANDWIDTH, NDSP_RADIO_END};
constexpr nbcp_radio_codes LIST_RADIO_CODES = {LIST_RADIO_ID,        LIST_RADIO_CHANNEL,
                                               LIST_RADIO_TXPOWER,   LIST_RADIO_RSSI,
                                               LIST_RADIO_BANDWIDTH, LIST_RADIO_END};
