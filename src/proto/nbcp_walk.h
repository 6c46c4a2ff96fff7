// The element walk shared by every TLV parser; each parser supplies only its limit and the
// handling of the codes it knows.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "neighbor/ap_info.h"
#include "proto/nbcp_codes.h"
#include "proto/nbcp_wire.h"

// Walks elements until a zero type or until limit bytes are consumed. on_element(type, len)
// reads the value of a code it knows and returns true; any other element is skipped whole.
// Every step consumes at least the 4 type and length bytes, so the limit always ends the walk.
template <typename OnElement>
inline void nbcp_walk(nbcp_decoder &d, uint32_t limit, OnElement &&on_element) {
    while (d.consumed < limit) {
        uint16_t type;
        uint16_t len;
        nbcp_get_tl(d, type, len);
        if (type == 0) {
            return;
        }
        if (!on_element(type, len)) {
            nbcp_skip(d, len);
        }
    }
}

// Takes the next element only when its type is Code: exactly one step of nbcp_walk, done with a
// direct compare instead of the dispatch on the type.
template <uint16_t Code, typename OnElement>
inline bool nbcp_walk_expect(nbcp_decoder &d, uint32_t limit, OnElement &on_element) {
    static_assert(Code != 0, "a zero type ends the walk");
    if (d.consumed >= limit || !nbcp_fits(d, NBCP_TL_LEN)) {
        return false;
    }
    const uint8_t *tl = d.data + d.consumed;
    if (nbcp_be16(tl) != Code) {
        return false;
    }
    uint16_t len = nbcp_be16(tl + 2);
    nbcp_advance(d, NBCP_TL_LEN);
    if (!on_element(Code, len)) {
        nbcp_skip(d, len);
    }
    return true;
}

// nbcp_walk for bodies that usually come in one known order (the order this daemon's own
// builders write): elements are matched against Codes while they keep that order, and the
// general walk takes over from the first element that does not. Each matched element is handled
// exactly as the general walk would handle it, so the result does not depend on the order.
template <uint16_t... Codes, typename OnElement>
inline void nbcp_walk_in_order(nbcp_decoder &d, uint32_t limit, OnElement &&on_element) {
    static_cast<void>((nbcp_walk_expect<Codes>(d, limit, on_element) && ...));
    nbcp_walk(d, limit, on_element);
}

// Reads the items of a list whose count element was just read: at most max_items of them, each
// closed by end_code (whose one value byte is consumed). on_element(index, type, len) reads a
// code of the item and returns true; anything else, a zero type included, is skipped, because a
// list that promised more items than arrived runs on until the limit.
template <typename OnElement>
inline void nbcp_walk_items(nbcp_decoder &d, uint32_t limit, uint32_t count, uint32_t max_items,
                            uint16_t end_code, OnElement &&on_element) {
    uint32_t items = std::min(count, max_items);
    for (uint32_t i = 0; i < items && d.consumed < limit; ++i) {
        while (d.consumed < limit) {
            if (nbcp_exhausted(d)) {
                // Only zero elements remain; none closes an item or is known to one, so the walk
                // would step over them four bytes at a time up to the limit. Go there at once.
                d.consumed = limit;
                return;
            }
            uint16_t type;
            uint16_t len;
            nbcp_get_tl(d, type, len);
            if (type == end_code) {
                nbcp_get_u8(d);
                break;
            }
            if (!on_element(i, type, len)) {
                nbcp_skip(d, len);
            }
        }
    }
}

// Takes a radio whole when the next 30 bytes are one as the builders write it (see
// nbcp_radio_codes); the result is the one the item walk gives for the same bytes.
inline bool nbcp_radio_in_order(nbcp_decoder &d, uint32_t limit, radio_info &r,
                                const nbcp_radio_codes &codes) {
    constexpr size_t FIELD = NBCP_TL_LEN + 1;
    constexpr size_t RADIO = nbcp_radio_codes::IN_ORDER_LEN;
    if (d.consumed + RADIO > limit || !nbcp_fits(d, RADIO)) {
        return false;
    }
    const uint8_t *p = d.data + d.consumed;
    uint64_t mismatch = 0;
    for (size_t w = 0; w < 4; ++w) {
        const uint8_t *word = p + nbcp_radio_codes::IN_ORDER_AT[w];
        uint64_t have = uint64_t{nbcp_be32(word)} << 32 | nbcp_be32(word + 4);
        mismatch |= (have ^ codes.want[w]) & codes.mask[w];
    }
    if (mismatch != 0) {
        return false;
    }
    r = radio_info{p[NBCP_TL_LEN], p[FIELD + NBCP_TL_LEN], p[2 * FIELD + NBCP_TL_LEN],
                   p[3 * FIELD + NBCP_TL_LEN], p[4 * FIELD + NBCP_TL_LEN]};
    nbcp_advance(d, RADIO);
    return true;
}

// Reads min(count, AP_RADIO_MAX) radios after a radio-count element; radios beyond the fourth
// are left to the enclosing walk, which skips their elements.
inline void nbcp_read_radios(nbcp_decoder &d, uint32_t limit, uint8_t count, radio_info *radios,
                             const nbcp_radio_codes &codes) {
    uint32_t taken = 0;
    while (taken < std::min<uint32_t>(count, AP_RADIO_MAX) &&
           nbcp_radio_in_order(d, limit, radios[taken], codes)) {
        ++taken;
    }
    radios += taken;
    count = static_cast<uint8_t>(count - taken);
    nbcp_walk_items(d, limit, count, AP_RADIO_MAX - taken, codes.end,
                    [&](uint32_t i, uint16_t type, uint16_t) {
                        radio_info &r = radios[i];
                        if (type == codes.radioid) {
                            r.radioid = nbcp_get_u8(d);
                        } else if (type == codes.channel) {
                            r.channel = nbcp_get_u8(d);
                        } else if (type == codes.txpower) {
                            r.txpower = nbcp_get_u8(d);
                        } else if (type == codes.rssi) {
                            r.rssi = nbcp_get_u8(d);
                        } else if (type == codes.bandwidth) {
                            r.bandwidth = nbcp_get_u8(d);
                        } else {
                            return false;
                        }
                        return true;
                    });
}
