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

// The radio elements differ between the answer and the list only in their codes.
struct nbcp_radio_codes {
    uint16_t radioid;
    uint16_t channel;
    uint16_t txpower;
    uint16_t rssi;
    uint16_t bandwidth;
    uint16_t end;
    // A radio as the builders write it: the five elements above in this order, each of length 1,
    // then the end, 30 bytes in all. Read as big-endian words at IN_ORDER_AT, it shows want
    // wherever mask is set: everywhere except in the value bytes.
    static constexpr size_t IN_ORDER_LEN = 30;
    static constexpr size_t IN_ORDER_AT[4] = {0, 8, 16, IN_ORDER_LEN - 8};
    uint64_t want[4];
    uint64_t mask[4];
};

constexpr nbcp_radio_codes nbcp_radio_codes_of(uint16_t radioid, uint16_t channel, uint16_t txpower,
                                               uint16_t rssi, uint16_t bandwidth, uint16_t end) {
    nbcp_radio_codes c{radioid, channel, txpower, rssi, bandwidth, end, {}, {}};
    const uint16_t order[6] = {radioid, channel, txpower, rssi, bandwidth, end};
    constexpr size_t FIELD = 5;  // type, length, one value byte
    for (size_t w = 0; w < 4; ++w) {
        for (size_t k = 0; k < 8; ++k) {
            const size_t at = nbcp_radio_codes::IN_ORDER_AT[w] + k;
            const size_t pos = at % FIELD;
            const uint16_t code = order[at / FIELD];
            const uint64_t byte = pos == 0 ? code >> 8 : pos == 1 ? code & 0xFF : pos == 3 ? 1 : 0;
            c.want[w] |= byte << (56 - 8 * k);
            c.mask[w] |= uint64_t{pos < 4 ? 0xFFu : 0u} << (56 - 8 * k);
        }
    }
    return c;
}

constexpr nbcp_radio_codes NDSP_RADIO_CODES =
    nbcp_radio_codes_of(NDSP_RADIO_ID, NDSP_RADIO_CHANNEL, NDSP_RADIO_TXPOWER, NDSP_RADIO_RSSI,
                        NDSP_RADIO_BANDWIDTH, NDSP_RADIO_END);
constexpr nbcp_radio_codes LIST_RADIO_CODES =
    nbcp_radio_codes_of(LIST_RADIO_ID, LIST_RADIO_CHANNEL, LIST_RADIO_TXPOWER, LIST_RADIO_RSSI,
                        LIST_RADIO_BANDWIDTH, LIST_RADIO_END);
