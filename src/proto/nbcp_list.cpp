#include <algorithm>
#include <cstring>

#include "proto/nbcp.h"
#include "proto/nbcp_codes.h"
#include "proto/nbcp_walk.h"

namespace {

uint32_t put_list_header(uint8_t *out, local_msg_hdr &hdr) {
    hdr.op = TARN_MSG_LIST_REPLY;
    // Written field by field so the reserved bytes go out as zero whatever the caller left there.
    std::memset(out, 0, NBCP_LIST_HDR_LEN);
    out[offsetof(local_msg_hdr, value)] = hdr.value;
    std::memcpy(out + offsetof(local_msg_hdr, op), &hdr.op, sizeof hdr.op);
    return NBCP_LIST_HDR_LEN;
}

uint32_t put_list_entry(uint8_t *out, const ap_info &info) {
    nbcp_encoder e{out, 0};
    nbcp_put_u32(e, LIST_IP, info.ip);
    nbcp_put_addr6(e, LIST_IP6, info.ip6.data());
    nbcp_put_u32(e, LIST_QV_IP, info.qv_ip);
    nbcp_put_mac(e, LIST_MAC, info.mac.data());
    nbcp_put_u8(e, LIST_STATE, info.state);
    nbcp_put_field_string(e, LIST_TENANT_ID, info.tenantId);
    nbcp_put_field_string(e, LIST_VERSION, info.version);
    nbcp_put_field_string(e, LIST_NAME, info.name);
    nbcp_put_u32(e, LIST_PVC_IP, info.pvc_ip);
    nbcp_put_u32(e, LIST_CLUSTER_ID, info.cluster_id);
    nbcp_put_mac(e, LIST_PVC_MAC, info.pvc_mac.data());
    nbcp_put_u8(e, LIST_CLUSTER_FLAG, info.cluster_flag);
    nbcp_put_radios<LIST_RADIO_CODES>(e, LIST_RADIOCNT, info);
    nbcp_put_u8(e, LIST_ENTRY_END, 0);
    return e.count;
}

// Stores one element of the current entry; returns false for codes an entry does not hold.
// limit bounds the walk over the entry's radios.
bool read_entry_element(nbcp_decoder &d, uint32_t limit, uint16_t type, uint16_t len,
                        ap_info &info) {
    switch (type) {
        case LIST_IP:
            info.ip = nbcp_get_u32(d);
            return true;
        case LIST_IP6:
            nbcp_get_addr6(d, info.ip6.data());
            return true;
        case LIST_QV_IP:
            info.qv_ip = nbcp_get_u32(d);
            return true;
        case LIST_MAC:
            nbcp_get_mac(d, info.mac.data());
            return true;
        case LIST_STATE:
            info.state = nbcp_get_u8(d);
            return true;
        case LIST_TENANT_ID:
            nbcp_get_string(d, len, info.tenantId, sizeof info.tenantId);
            return true;
        case LIST_VERSION:
            nbcp_get_string(d, len, info.version, sizeof info.version);
            return true;
        case LIST_NAME:
            nbcp_get_string(d, len, info.name, sizeof info.name);
            return true;
        case LIST_PVC_IP:
            info.pvc_ip = nbcp_get_u32(d);
            return true;
        case LIST_CLUSTER_ID:
            info.cluster_id = nbcp_get_u32(d);
            return true;
        case LIST_PVC_MAC:
            nbcp_get_mac(d, info.pvc_mac.data());
            return true;
        case LIST_CLUSTER_FLAG:
            info.cluster_flag = nbcp_get_u8(d);
            return true;
        case LIST_RADIOCNT:
            info.radiocnt = nbcp_get_u8(d);
            nbcp_read_radios<LIST_RADIO_CODES>(d, limit, info.radiocnt, info.radio);
            return true;
        default:
            return false;
    }
}

}  // namespace

uint32_t nbcp_list_put(uint8_t *out, const ap_info *entry, local_msg_hdr *hdr, uint8_t selector) {
    if (out == nullptr) {
        return 0;
    }
    switch (selector) {
        case NBCP_LIST_PIECE_HEADER:
            return hdr == nullptr ? 0 : put_list_header(out, *hdr);
        case NBCP_LIST_PIECE_END: {
            nbcp_encoder e{out, 0};
            nbcp_put_end(e);
            return e.count;
        }
        default:
            return entry == nullptr ? 0 : put_list_entry(out, *entry);
    }
}

size_t nbcp_list_read(const uint8_t *reply, size_t len, ap_info *entries, size_t capacity) {
    if (reply == nullptr || entries == nullptr) {
        return 0;
    }
    size_t index = 0;
    nbcp_decoder d = nbcp_decoder_at(reply, len, NBCP_LIST_HDR_LEN);
    // Entries are not length-prefixed: one flat walk, where each end-of-entry element moves on
    // to the next record. It stops once the caller's array is full.
    while (index < capacity && d.consumed < NBCP_LIST_WALK_LIMIT) {
        uint16_t type;
        uint16_t len_field;
        nbcp_get_tl(d, type, len_field);
        if (type == 0) {
            break;
        }
        if (type == LIST_ENTRY_END) {
            nbcp_get_u8(d);
            ++index;
        } else if (!read_entry_element(d, NBCP_LIST_WALK_LIMIT, type, len_field, entries[index])) {
            nbcp_skip(d, len_field);
        }
    }
    return index;
}

size_t nbcp_list_read_whole(const uint8_t *reply, size_t len, ap_info *entries, size_t capacity,
                            bool *complete) {
    if (complete != nullptr) {
        *complete = false;
    }
    if (reply == nullptr || (entries == nullptr && capacity > 0) || len < NBCP_LIST_HDR_LEN) {
        return 0;
    }
    size_t index = 0;
    bool entry_open = false;
    nbcp_decoder d = nbcp_decoder_at(reply, len, NBCP_LIST_HDR_LEN);
    const auto limit = static_cast<uint32_t>(d.len);
    while (d.consumed < limit) {
        uint16_t type;
        uint16_t len_field;
        nbcp_get_tl(d, type, len_field);
        if (type != 0 && index == capacity) {
            break;  // an entry beyond the caller's array: left out, so not complete
        }
        if (type == 0) {
            // Zeros read past the datagram are no end mark: its two bytes must lie inside it.
            if (complete != nullptr) {
                *complete = d.consumed - NBCP_TL_LEN + NBCP_END_LEN <= limit && !entry_open;
            }
            break;
        }
        if (type == LIST_ENTRY_END) {
            nbcp_get_u8(d);
            if (d.consumed > limit) {
                break;  // an end whose value byte is missing closes nothing
            }
            ++index;
            entry_open = false;
        } else {
            entry_open = true;
            if (!read_entry_element(d, limit, type, len_field, entries[index])) {
                nbcp_skip(d, len_field);
            }
        }
    }
    return index;
}
