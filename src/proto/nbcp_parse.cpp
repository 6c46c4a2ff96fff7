#include <cstddef>
#include <cstdio>
#include <cstring>

#include "proto/nbcp.h"
#include "proto/nbcp_codes.h"
#include "proto/nbcp_kinds.h"
#include "proto/nbcp_walk.h"

namespace {

// Most bodies are walked up to this many consumed bytes.
constexpr uint32_t NBCP_WALK_LIMIT = 1008;
constexpr uint32_t NBCP_KIND2_WALK_LIMIT = 65535;
constexpr uint32_t NBCP_KIND5_WALK_LIMIT = 2008;

void parse_ndrp(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                nbcp_touched *) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_ndrp &rec = msg.m.ndrp;
    // The probe's own IPv6 address is skipped with every unknown code: the answer goes to the
    // datagram's source address.
    nbcp_walk(d, limit, [&](uint16_t type, uint16_t) {
        switch (type) {
            case NDRP_KIND_FLAG:
                rec.kind_flag = nbcp_get_u8(d);
                return true;
            case NDRP_MODE:
                rec.mode = nbcp_get_u8(d);
                return true;
            case NDRP_IP:
                rec.ip = nbcp_get_u32(d);
                return true;
            case NDRP_MAC:
                nbcp_get_mac(d, rec.mac.data());
                return true;
            default:
                return false;
        }
    });
}

void parse_ndsp(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                nbcp_touched *) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_ndsp &rec = msg.m.ndsp;
    ap_info &info = rec.info;
    auto on_element = [&](uint16_t type, uint16_t len) __attribute__((always_inline)) {
        switch (type) {
            case NDSP_KIND_FLAG:
                rec.kind_flag = nbcp_get_u8(d);
                return true;
            case NDSP_MODE:
                rec.mode = nbcp_get_u8(d);
                return true;
            case NDSP_IP:
                rec.ip = nbcp_get_u32(d);
                return true;
            case NDSP_MAC:
                nbcp_get_mac(d, rec.mac.data());
                return true;
            case NDSP_PVC_IP:
                rec.pvc_ip = nbcp_get_u32(d);
                return true;
            case NDSP_CLUSTER_ID:
                rec.cluster_id = nbcp_get_u32(d);
                return true;
            case NDSP_PVC_MAC:
                nbcp_get_mac(d, rec.pvc_mac.data());
                return true;
            case NDSP_CLUSTER_FLAG:
                rec.cluster_flag = nbcp_get_u8(d);
                return true;
            case NDSP_INFO_IP:
                info.ip = nbcp_get_u32(d);
                return true;
            case NDSP_INFO_MAC:
                nbcp_get_mac(d, info.mac.data());
                return true;
            case NDSP_INFO_STATE:
                info.state = nbcp_get_u8(d);
                return true;
            case NDSP_INFO_VERSION:
                nbcp_get_string(d, len, info.version, sizeof info.version);
                return true;
            case NDSP_INFO_NAME:
                nbcp_get_string(d, len, info.name, sizeof info.name);
                return true;
            case NDSP_INFO_QV_IP:
                info.qv_ip = nbcp_get_u32(d);
                return true;
            case NDSP_INFO_TENANT_ID:
                nbcp_get_string(d, len, info.tenantId, sizeof info.tenantId);
                return true;
            case NDSP_INFO_IP6:
                nbcp_get_addr6(d, info.ip6.data());
                return true;
            case NDSP_INFO_RADIOCNT:
                // Stored as received even above four; the radios past the fourth are skipped
                // by this walk as codes met outside a radio.
                info.radiocnt = nbcp_get_u8(d);
                nbcp_read_radios<NDSP_RADIO_CODES>(d, limit, info.radiocnt, info.radio);
                return true;
            default:
                return false;
        }
    };
    // A body in another order than the builders' is read by the general walk from its first
    // element on.
    nbcp_fixed_run<NDSP_FIXED_HEAD>(d, limit, on_element);
    nbcp_walk_in_order<NDSP_INFO_TENANT_ID, NDSP_INFO_VERSION, NDSP_INFO_NAME, NDSP_INFO_RADIOCNT>(
        d, limit, on_element);
}

using nbcp_parser = void (*)(const uint8_t *data, size_t len, uint32_t limit, nbcp_msg &msg,
                             nbcp_touched *touched);

struct nbcp_dispatch {
    uint8_t type;
    uint8_t kind;  // what the record's kind says: the type, or 1 to 6 for both forms of a kind
    uint32_t limit;
    nbcp_parser parse;
    size_t record_size;  // bytes of the union member the parser fills
    size_t head_size;    // its bytes before the first list whose items the parser marks itself
};

#define RECORD(r) sizeof(r), sizeof(r)
#define HEAD(r, list) sizeof(r), offsetof(r, list)

// Every known type; any other is unknown. The fixed layouts read a bounded number of fields
// and take no limit.
constexpr nbcp_dispatch NBCP_TYPES[] = {
    {1, 1, 0, nbcp_parse_kind_fixed, RECORD(nbcp_kind1)},
    {2, 2, 0, nbcp_parse_kind_fixed, HEAD(nbcp_kind2, entries)},
    {3, 3, 0, nbcp_parse_kind_fixed, RECORD(nbcp_kind3)},
    {4, 4, 0, nbcp_parse_kind_fixed, HEAD(nbcp_kind4, entries)},
    {5, 5, 0, nbcp_parse_kind_fixed, HEAD(nbcp_kind5, entries)},
    {6, 6, 0, nbcp_parse_kind_fixed, HEAD(nbcp_kind6, entries)},
    {NBCP_TYPE_NDRP, NBCP_TYPE_NDRP, NBCP_WALK_LIMIT, parse_ndrp, RECORD(nbcp_ndrp)},
    {NBCP_TYPE_NDSP, NBCP_TYPE_NDSP, NBCP_WALK_LIMIT, parse_ndsp, RECORD(nbcp_ndsp)},
    {NBCP_TYPE_15, NBCP_TYPE_15, 0, nbcp_parse_type15, RECORD(nbcp_type15)},
    {NBCP_TYPE_16, NBCP_TYPE_16, 0, nbcp_parse_kind_fixed, HEAD(nbcp_type16, groups)},
    {21, 1, NBCP_WALK_LIMIT, nbcp_parse_kind_tlv, RECORD(nbcp_kind1)},
    {22, 2, NBCP_KIND2_WALK_LIMIT, nbcp_parse_kind_tlv, HEAD(nbcp_kind2, entries)},
    {23, 3, NBCP_WALK_LIMIT, nbcp_parse_kind_tlv, RECORD(nbcp_kind3)},
    {24, 4, NBCP_WALK_LIMIT, nbcp_parse_kind_tlv, HEAD(nbcp_kind4, entries)},
    {25, 5, NBCP_KIND5_WALK_LIMIT, nbcp_parse_kind_tlv, HEAD(nbcp_kind5, entries)},
    {26, 6, NBCP_WALK_LIMIT, nbcp_parse_kind_tlv, HEAD(nbcp_kind6, entries)},
};

#undef RECORD
#undef HEAD

// The row of a known type, or null.
const nbcp_dispatch *find_type(uint8_t type) {
    for (const nbcp_dispatch &row : NBCP_TYPES) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

uint8_t datagram_type(const uint8_t *data, size_t len) {
    return len > 3 ? data[3] : 0;
}

}  // namespace

void nbcp_msg_reset(nbcp_msg *msg, const uint8_t *data, size_t len) {
    if (msg == nullptr) {
        return;
    }
    const nbcp_dispatch *row = data == nullptr ? nullptr : find_type(datagram_type(data, len));
    msg->kind = 0;
    std::memset(&msg->m, 0, row != nullptr ? row->record_size : sizeof(nbcp_hdr));
}

int nbcp_decode(const uint8_t *data, size_t len, nbcp_msg *msg, nbcp_touched *touched) {
    if (nbcp_hdr_decode(data, len, msg) == 0) {
        return 0;
    }
    const nbcp_dispatch *row = find_type(datagram_type(data, len));
    if (touched != nullptr) {
        // kind and the record's head as one range: the bytes between them are padding.
        touched->mark_head(offsetof(nbcp_msg, m) +
                           (row != nullptr ? row->head_size : sizeof(nbcp_hdr)));
    }
    if (row == nullptr) {
        return 0;
    }
    msg->kind = row->kind;
    row->parse(data, len, row->limit, *msg, touched);
    return 1;
}

int nbcp_parse(const uint8_t *data, size_t len, nbcp_msg *msg, nbcp_touched *touched) {
    if (data == nullptr || msg == nullptr) {
        return 0;
    }
    std::printf("nbcp protocol type %d!\n", datagram_type(data, len));
    int known = nbcp_decode(data, len, msg, touched);
    if (!known) {
        std::printf("nbcp protocol do not have this type!\n");
    }
    return known;
}
