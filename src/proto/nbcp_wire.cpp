#include "proto/nbcp_wire.h"

#include <algorithm>
#include <cstring>

#include "proto/nbcp.h"

namespace {

void put_be16(uint8_t *out, uint16_t v) {
    out[0] = static_cast<uint8_t>(v >> 8);
    out[1] = static_cast<uint8_t>(v);
}

void put_be32(uint8_t *out, uint32_t v) {
    put_be16(out, static_cast<uint16_t>(v >> 16));
    put_be16(out + 2, static_cast<uint16_t>(v));
}

}  // namespace

int nbcp_hdr_encode(uint8_t *out, const nbcp_hdr *hdr) {
    if (out == nullptr || hdr == nullptr) {
        return 0;
    }
    out[0] = hdr->flag;
    put_be16(out + 1, hdr->arg2);
    out[3] = hdr->type;
    put_be16(out + 4, hdr->arg1);
    put_be32(out + 6, hdr->arg3);
    return 1;
}

int nbcp_hdr_decode(const uint8_t *data, size_t len, nbcp_msg *msg) {
    if (data == nullptr || msg == nullptr) {
        return 0;
    }
    uint8_t padded[NBCP_HDR_LEN];
    const uint8_t *wire = data;
    if (len < NBCP_HDR_LEN) {  // a short datagram reads zeros where its header is missing
        nbcp_read_tail(data, len, 0, padded, sizeof padded);
        wire = padded;
    }
    nbcp_hdr &hdr = msg->m.hdr;
    hdr.flag = wire[0];
    hdr.arg2 = nbcp_be16(wire + 1);
    hdr.type = wire[3];
    hdr.arg1 = nbcp_be16(wire + 4);
    hdr.arg3 = nbcp_be32(wire + 6);
    msg->kind = hdr.type;
    return 1;
}

void nbcp_read_tail(const uint8_t *data, size_t len, size_t pos, uint8_t *dst, size_t n) {
    size_t avail = pos < len ? std::min(n, len - pos) : 0;
    if (avail != 0) {
        std::memcpy(dst, data + pos, avail);
    }
    std::memset(dst + avail, 0, n - avail);
}
