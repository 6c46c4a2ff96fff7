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
    nbcp_decoder d = nbcp_decoder_at(data, len, 0);
    nbcp_hdr &hdr = msg->m.hdr;
    hdr.flag = nbcp_get_u8(d);
    hdr.arg2 = nbcp_get_u16(d);
    hdr.type = nbcp_get_u8(d);
    hdr.arg1 = nbcp_get_u16(d);
    hdr.arg3 = nbcp_get_u32(d);
    msg->kind = hdr.type;
    return 1;
}

void nbcp_read_tail(const nbcp_decoder &d, uint8_t *dst, size_t n) {
    size_t avail = d.pos < d.len ? std::min(n, d.len - d.pos) : 0;
    if (avail != 0) {
        std::memcpy(dst, d.data + d.pos, avail);
    }
    std::memset(dst + avail, 0, n - avail);
}

void nbcp_get_string(nbcp_decoder &d, size_t len, char *dst, size_t cap) {
    if (cap == 0) {
        nbcp_skip(d, len);
        return;
    }
    std::memset(dst, 0, strnlen(dst, cap));
    size_t kept = std::min(len, cap - 1);
    nbcp_read(d, reinterpret_cast<uint8_t *>(dst), kept);
    nbcp_skip(d, len - kept);
}

uint8_t *nbcp_put_string(nbcp_encoder &e, uint16_t type, const char *s, size_t max_len) {
    size_t len = strnlen(s, std::min<size_t>(max_len, UINT16_MAX));
    return nbcp_put_raw(e, type, reinterpret_cast<const uint8_t *>(s), static_cast<uint16_t>(len));
}
