#include "proto/nbcp_kinds.h"

#include <algorithm>
#include <cstddef>

#include "proto/nbcp_walk.h"

namespace {

enum kind1_code : uint16_t {
    K1_FIELD1 = 15,
    K1_FIELD2 = 16,
    K1_FIELD3 = 17,
    K1_ADDRESS = 18,
    K1_FIELD5 = 19,
    K1_ITEM_COUNT = 20,
    K1_ITEM_END = 21,
    K1_ITEM_BYTE1 = 22,  // bytes 2 to 4 follow at 23 to 25
};

enum kind2_code : uint16_t {
    K2_FIELD1 = 31,
    K2_FIELD2 = 32,
    K2_FIELD3 = 33,
    K2_ADDRESS = 34,
    K2_ENTRY_COUNT = 35,
    K2_ENTRY_END = 36,
    K2_ENTRY_ADDRESS = 37,
    K2_ENTRY_FIELD2 = 38,
    K2_ENTRY_FIELD3 = 39,
    K2_ENTRY_VALUE = 40,
    K2_ENTRY_TEXT = 41,
    K2_ENTRY_FIELD6 = 42,
};

enum kind3_code : uint16_t {
    K3_FIELD1 = 51,
    K3_FIELD2 = 52,
    K3_FIELD3 = 53,
    K3_ADDRESS = 54,
    K3_FIELD5 = 55,
    K3_VALUE = 56,
    K3_TEXT1 = 57,
    K3_TEXT2 = 58,
    K3_ITEM_COUNT = 59,
    K3_ITEM_END = 60,
    K3_ITEM_BYTE1 = 61,  // to 64
    K3_TEXT3 = 65,
    K3_TEXT4 = 66,
};

enum kind4_code : uint16_t {
    K4_ADDRESS = 70,
    K4_ENTRY_COUNT = 71,
    K4_ENTRY_END = 72,
    K4_ENTRY_ADDRESS = 73,
    K4_ITEM_COUNT = 74,
    K4_ITEM_END = 75,
    K4_ITEM_BYTE1 = 76,  // to 79
};

enum kind5_code : uint16_t {
    K5_VALUE = 89,
    K5_ENTRY_COUNT = 90,
    K5_ENTRY_END = 91,
    K5_ENTRY_FIELD1 = 92,
    K5_ENTRY_ADDRESS = 93,
    K5_ENTRY_VALUE1 = 94,
    K5_ENTRY_VALUE2 = 95,
    K5_RADIO_COUNT = 96,
    K5_RADIO_END = 97,
    K5_RADIO_BYTE1 = 98,  // to 101
    K5_NEIGHBOR_COUNT = 102,
    K5_NEIGHBOR_END = 103,
    K5_NEIGHBOR_ADDRESS = 104,
    K5_ITEM_COUNT = 105,
    K5_ITEM_END = 106,
    K5_ITEM_BYTE1 = 107,  // to 110
};

enum kind6_code : uint16_t {
    K6_FIELD1 = 81,
    K6_VALUE1 = 82,
    K6_ENTRY_COUNT = 83,
    K6_ENTRY_END = 84,
    K6_ENTRY_ADDRESS = 85,
    K6_VALUE2 = 86,
};

constexpr uint16_t ITEM_BYTES = sizeof(nbcp_item4::byte);

// Items of four u8 elements whose codes run from first_code to first_code + 3.
void read_item4_list(nbcp_decoder &d, uint32_t limit, uint32_t count, uint16_t end_code,
                     uint16_t first_code, nbcp_item4 *items) {
    nbcp_walk_items(d, limit, count, NBCP_SMALL_LIST_MAX, end_code,
                    [&](uint32_t i, uint16_t type, uint16_t) {
                        if (type < first_code || type >= first_code + ITEM_BYTES) {
                            return false;
                        }
                        items[i].byte[type - first_code] = nbcp_get_u8(d);
                        return true;
                    });
}

// Fixed-layout items carry only their first `width` bytes.
void read_fixed_items(nbcp_decoder &d, uint32_t count, size_t width, nbcp_item4 *items) {
    uint32_t n = std::min(count, NBCP_SMALL_LIST_MAX);
    for (uint32_t i = 0; i < n; ++i) {
        nbcp_read(d, items[i].byte, width);
    }
}

// An entry of kind 5 is written up to its neighbors; each neighbor is marked on its own, so that
// an entry with few neighbors does not count (and later clear) the room for 255.
nbcp_kind5_entry &kind5_entry(nbcp_touched *touched, nbcp_kind5_entry &e) {
    return nbcp_touch_prefix(touched, e, offsetof(nbcp_kind5_entry, neighbors));
}

uint32_t long_list_items(uint32_t count) {
    return std::min(count, NBCP_LONG_LIST_MAX);
}

bool read_kind2_entry(nbcp_decoder &d, uint16_t type, uint16_t len, nbcp_kind2_entry &e) {
    switch (type) {
        case K2_ENTRY_ADDRESS:
            nbcp_get_mac(d, e.address.data());
            return true;
        case K2_ENTRY_FIELD2:
            e.field2 = nbcp_get_u8(d);
            return true;
        case K2_ENTRY_FIELD3:
            e.field3 = nbcp_get_u8(d);
            return true;
        case K2_ENTRY_VALUE:
            e.value = nbcp_get_u32(d);
            return true;
        case K2_ENTRY_TEXT:
            nbcp_get_string(d, len, e.text, sizeof e.text);
            return true;
        case K2_ENTRY_FIELD6:
            e.field6 = nbcp_get_u8(d);
            return true;
        default:
            return false;
    }
}

void read_kind5_neighbors(nbcp_decoder &d, uint32_t limit, nbcp_kind5_entry &e,
                          nbcp_touched *touched) {
    nbcp_walk_items(d, limit, e.neighbor_count, NBCP_LONG_LIST_MAX, K5_NEIGHBOR_END,
                    [&](uint32_t i, uint16_t type, uint16_t) {
                        nbcp_kind5_neighbor &n = nbcp_touch(touched, e.neighbors[i]);
                        switch (type) {
                            case K5_NEIGHBOR_ADDRESS:
                                nbcp_get_mac(d, n.address.data());
                                return true;
                            case K5_ITEM_COUNT:
                                n.item_count = nbcp_get_u8(d);
                                read_item4_list(d, limit, n.item_count, K5_ITEM_END, K5_ITEM_BYTE1,
                                                n.items);
                                return true;
                            default:
                                return false;
                        }
                    });
}

bool read_kind5_entry(nbcp_decoder &d, uint32_t limit, uint16_t type, nbcp_kind5_entry &e,
                      nbcp_touched *touched) {
    switch (type) {
        case K5_ENTRY_FIELD1:
            e.field1 = nbcp_get_u8(d);
            return true;
        case K5_RADIO_COUNT:
            e.radio_count = nbcp_get_u8(d);
            read_item4_list(d, limit, e.radio_count, K5_RADIO_END, K5_RADIO_BYTE1, e.radios);
            return true;
        case K5_NEIGHBOR_COUNT:
            e.neighbor_count = nbcp_get_u8(d);
            read_kind5_neighbors(d, limit, e, touched);
            return true;
        case K5_ENTRY_ADDRESS:
            nbcp_get_mac(d, e.address.data());
            return true;
        case K5_ENTRY_VALUE1:
            e.value1 = nbcp_get_u32(d);
            return true;
        case K5_ENTRY_VALUE2:
            e.value2 = nbcp_get_u32(d);
            return true;
        default:
            return false;
    }
}

}  // namespace

void nbcp_parse_kind1_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind1 &rec = msg.m.kind1;
    nbcp_walk(d, limit, [&](uint16_t type, uint16_t) {
        switch (type) {
            case K1_FIELD1:
                rec.field1 = nbcp_get_u8(d);
                return true;
            case K1_FIELD2:
                rec.field2 = nbcp_get_u8(d);
                return true;
            case K1_FIELD3:
                rec.field3 = nbcp_get_u8(d);
                return true;
            case K1_ADDRESS:
                nbcp_get_mac(d, rec.address.data());
                return true;
            case K1_FIELD5:
                rec.field5 = nbcp_get_u8(d);
                return true;
            case K1_ITEM_COUNT:
                rec.item_count = nbcp_get_u8(d);
                read_item4_list(d, limit, rec.item_count, K1_ITEM_END, K1_ITEM_BYTE1, rec.items);
                return true;
            default:
                return false;
        }
    });
}

void nbcp_parse_kind1_fixed(const uint8_t *datagram, size_t size, uint32_t, nbcp_msg &msg,
                            nbcp_touched *) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind1 &rec = msg.m.kind1;
    rec.field1 = nbcp_get_u8(d);
    rec.field2 = nbcp_get_u8(d);
    rec.field3 = nbcp_get_u8(d);
    nbcp_get_mac(d, rec.address.data());
    rec.field5 = nbcp_get_u8(d);
    rec.item_count = nbcp_get_u8(d);
    read_fixed_items(d, rec.item_count, 3, rec.items);
}

void nbcp_parse_kind2_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *touched) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind2 &rec = msg.m.kind2;
    nbcp_walk(d, limit, [&](uint16_t type, uint16_t) {
        switch (type) {
            case K2_FIELD1:
                rec.field1 = nbcp_get_u8(d);
                return true;
            case K2_FIELD2:
                rec.field2 = nbcp_get_u8(d);
                return true;
            case K2_FIELD3:
                rec.field3 = nbcp_get_u8(d);
                return true;
            case K2_ADDRESS:
                nbcp_get_mac(d, rec.address.data());
                return true;
            case K2_ENTRY_COUNT:
                rec.entry_count = nbcp_get_u8(d);
                nbcp_walk_items(d, limit, rec.entry_count, NBCP_LONG_LIST_MAX, K2_ENTRY_END,
                                [&](uint32_t i, uint16_t t, uint16_t len) {
                                    return read_kind2_entry(d, t, len,
                                                            nbcp_touch(touched, rec.entries[i]));
                                });
                return true;
            default:
                return false;
        }
    });
}

void nbcp_parse_kind2_fixed(const uint8_t *datagram, size_t size, uint32_t, nbcp_msg &msg,
                            nbcp_touched *touched) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind2 &rec = msg.m.kind2;
    rec.field1 = nbcp_get_u8(d);
    rec.field2 = nbcp_get_u8(d);
    rec.field3 = nbcp_get_u8(d);
    nbcp_get_mac(d, rec.address.data());
    rec.entry_count = nbcp_get_u8(d);
    uint32_t n = long_list_items(rec.entry_count);
    for (uint32_t i = 0; i < n && !nbcp_exhausted(d); ++i) {
        nbcp_kind2_entry &e = nbcp_touch(touched, rec.entries[i]);
        nbcp_get_mac(d, e.address.data());
        e.field2 = nbcp_get_u8(d);
        e.field3 = nbcp_get_u8(d);
        e.value = nbcp_get_u32(d);
        // Up to four 3-byte groups follow, not carried; a larger count means none follow.
        uint8_t groups = nbcp_get_u8(d);
        if (groups < 5) {
            nbcp_skip(d, groups * 3u);
        }
    }
}

void nbcp_parse_kind3_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind3 &rec = msg.m.kind3;
    nbcp_walk(d, limit, [&](uint16_t type, uint16_t len) {
        switch (type) {
            case K3_FIELD1:
                rec.field1 = nbcp_get_u8(d);
                return true;
            case K3_FIELD2:
                rec.field2 = nbcp_get_u8(d);
                return true;
            case K3_FIELD3:
                rec.field3 = nbcp_get_u8(d);
                return true;
            case K3_ADDRESS:
                nbcp_get_mac(d, rec.address.data());
                return true;
            case K3_FIELD5:
                rec.field5 = nbcp_get_u8(d);
                return true;
            case K3_ITEM_COUNT:
                rec.item_count = nbcp_get_u8(d);
                read_item4_list(d, limit, rec.item_count, K3_ITEM_END, K3_ITEM_BYTE1, rec.items);
                return true;
            case K3_VALUE:
                rec.value = nbcp_get_u32(d);
                return true;
            case K3_TEXT1:
                nbcp_get_string(d, len, rec.text1, sizeof rec.text1);
                return true;
            case K3_TEXT2:
                nbcp_get_string(d, len, rec.text2, sizeof rec.text2);
                return true;
            case K3_TEXT3:
                nbcp_get_string(d, len, rec.text3, sizeof rec.text3);
                return true;
            case K3_TEXT4:
                nbcp_get_string(d, len, rec.text4, sizeof rec.text4);
                return true;
            default:
                return false;
        }
    });
}

void nbcp_parse_kind3_fixed(const uint8_t *datagram, size_t size, uint32_t, nbcp_msg &msg,
                            nbcp_touched *) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind3 &rec = msg.m.kind3;
    rec.field1 = nbcp_get_u8(d);
    rec.field2 = nbcp_get_u8(d);
    rec.field3 = nbcp_get_u8(d);
    nbcp_get_mac(d, rec.address.data());
    rec.field5 = nbcp_get_u8(d);
    rec.item_count = nbcp_get_u8(d);
    read_fixed_items(d, rec.item_count, 3, rec.items);
    rec.value = nbcp_get_u32(d);
    // Raw bytes, terminated or not, exactly as wide as the fields.
    nbcp_read(d, reinterpret_cast<uint8_t *>(rec.text1), sizeof rec.text1);
    nbcp_read(d, reinterpret_cast<uint8_t *>(rec.text2), sizeof rec.text2);
    nbcp_read(d, reinterpret_cast<uint8_t *>(rec.text3), sizeof rec.text3);
    nbcp_read(d, reinterpret_cast<uint8_t *>(rec.text4), sizeof rec.text4);
}

void nbcp_parse_kind4_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *touched) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind4 &rec = msg.m.kind4;
    auto read_entry = [&](uint32_t i, uint16_t type, uint16_t) {
        nbcp_kind4_entry &e = nbcp_touch(touched, rec.entries[i]);
        switch (type) {
            case K4_ENTRY_ADDRESS:
                nbcp_get_mac(d, e.address.data());
                return true;
            case K4_ITEM_COUNT:
                e.item_count = nbcp_get_u8(d);
                read_item4_list(d, limit, e.item_count, K4_ITEM_END, K4_ITEM_BYTE1, e.items);
                return true;
            default:
                return false;
        }
    };
    nbcp_walk(d, limit, [&](uint16_t type, uint16_t) {
        switch (type) {
            case K4_ADDRESS:
                nbcp_get_mac(d, rec.address.data());
                return true;
            case K4_ENTRY_COUNT:
                rec.entry_count = nbcp_get_u8(d);
                nbcp_walk_items(d, limit, rec.entry_count, NBCP_LONG_LIST_MAX, K4_ENTRY_END,
                                read_entry);
                return true;
            default:
                return false;
        }
    });
}

void nbcp_parse_kind4_fixed(const uint8_t *datagram, size_t size, uint32_t, nbcp_msg &msg,
                            nbcp_touched *touched) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind4 &rec = msg.m.kind4;
    nbcp_get_mac(d, rec.address.data());
    rec.entry_count = nbcp_get_u8(d);
    uint32_t n = long_list_items(rec.entry_count);
    for (uint32_t i = 0; i < n && !nbcp_exhausted(d); ++i) {
        nbcp_kind4_entry &e = nbcp_touch(touched, rec.entries[i]);
        nbcp_get_mac(d, e.address.data());
        e.item_count = nbcp_get_u8(d);
        read_fixed_items(d, e.item_count, ITEM_BYTES, e.items);
    }
}

void nbcp_parse_kind5_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *touched) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind5 &rec = msg.m.kind5;
    nbcp_walk(d, limit, [&](uint16_t type, uint16_t) {
        switch (type) {
            case K5_VALUE:
                rec.value = nbcp_get_u32(d);
                return true;
            case K5_ENTRY_COUNT:
                rec.entry_count = nbcp_get_u32(d);
                nbcp_walk_items(d, limit, rec.entry_count, NBCP_LONG_LIST_MAX, K5_ENTRY_END,
                                [&](uint32_t i, uint16_t t, uint16_t) {
                                    return read_kind5_entry(
                                        d, limit, t, kind5_entry(touched, rec.entries[i]), touched);
                                });
                return true;
            default:
                return false;
        }
    });
}

void nbcp_parse_kind5_fixed(const uint8_t *datagram, size_t size, uint32_t, nbcp_msg &msg,
                            nbcp_touched *touched) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind5 &rec = msg.m.kind5;
    rec.value = nbcp_get_u32(d);
    rec.entry_count = nbcp_get_u32(d);
    uint32_t entries = long_list_items(rec.entry_count);
    for (uint32_t i = 0; i < entries && !nbcp_exhausted(d); ++i) {
        nbcp_kind5_entry &e = kind5_entry(touched, rec.entries[i]);
        e.field1 = nbcp_get_u8(d);
        e.radio_count = nbcp_get_u8(d);
        e.neighbor_count = nbcp_get_u8(d);
        nbcp_get_mac(d, e.address.data());
        e.value1 = nbcp_get_u32(d);
        e.value2 = nbcp_get_u32(d);
        read_fixed_items(d, e.radio_count, 3, e.radios);
        uint32_t neighbors = long_list_items(e.neighbor_count);
        for (uint32_t j = 0; j < neighbors && !nbcp_exhausted(d); ++j) {
            nbcp_kind5_neighbor &n = nbcp_touch(touched, e.neighbors[j]);
            nbcp_get_mac(d, n.address.data());
            n.item_count = nbcp_get_u8(d);
            read_fixed_items(d, n.item_count, ITEM_BYTES, n.items);
        }
    }
}

void nbcp_parse_kind6_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *touched) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind6 &rec = msg.m.kind6;
    nbcp_walk(d, limit, [&](uint16_t type, uint16_t) {
        switch (type) {
            case K6_FIELD1:
                rec.field1 = nbcp_get_u8(d);
                return true;
            case K6_VALUE1:
                rec.value1 = nbcp_get_u32(d);
                return true;
            case K6_VALUE2:
                rec.value2 = nbcp_get_u32(d);
                return true;
            case K6_ENTRY_COUNT:
                rec.entry_count = nbcp_get_u8(d);
                nbcp_walk_items(d, limit, rec.entry_count, NBCP_LONG_LIST_MAX, K6_ENTRY_END,
                                [&](uint32_t i, uint16_t t, uint16_t) {
                                    if (t != K6_ENTRY_ADDRESS) {
                                        return false;
                                    }
                                    nbcp_get_mac(d, nbcp_touch(touched, rec.entries[i]).data());
                                    return true;
                                });
                return true;
            default:
                return false;
        }
    });
}

void nbcp_parse_kind6_fixed(const uint8_t *datagram, size_t size, uint32_t, nbcp_msg &msg,
                            nbcp_touched *touched) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_kind6 &rec = msg.m.kind6;
    rec.field1 = nbcp_get_u8(d);
    rec.value1 = nbcp_get_u32(d);
    rec.entry_count = nbcp_get_u8(d);
    uint32_t n = long_list_items(rec.entry_count);
    for (uint32_t i = 0; i < n && !nbcp_exhausted(d); ++i) {
        nbcp_get_mac(d, nbcp_touch(touched, rec.entries[i]).data());
    }
    rec.value2 = nbcp_get_u32(d);
}

void nbcp_parse_type15(const uint8_t *datagram, size_t size, uint32_t, nbcp_msg &msg,
                       nbcp_touched *) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_type15 &rec = msg.m.type15;
    rec.subtype = nbcp_get_u16(d);
    uint32_t value = nbcp_get_u32(d);
    mac_addr address;
    nbcp_get_mac(d, address.data());
    switch (rec.subtype) {
        case 1:
            rec.value = 0;
            break;
        case 2:
            rec.value = value;
            if (rec.hdr.flag != 0) {
                rec.address = address;
            }
            break;
        case 3:
        case 4:
            rec.value = value;
            rec.address = address;
            break;
        default:
            break;
    }
}

void nbcp_parse_type16(const uint8_t *datagram, size_t size, uint32_t, nbcp_msg &msg,
                       nbcp_touched *touched) {
    nbcp_decoder d = nbcp_body(datagram, size);
    nbcp_type16 &rec = msg.m.type16;
    rec.count = nbcp_get_u8(d);
    nbcp_get_mac(d, rec.address.data());
    for (uint32_t i = 0; i < rec.count && !nbcp_exhausted(d); ++i) {
        nbcp_read(d, nbcp_touch(touched, rec.groups[i]), sizeof rec.groups[i]);
    }
}
