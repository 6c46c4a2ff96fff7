#include "proto/nbcp_kinds.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <utility>

#include "proto/nbcp_walk.h"

namespace {

// How a value is read and stored.
enum class form : uint8_t {
    u8,
    u32,   // big-endian on the wire, host order in the record
    mac,   // six bytes
    text,  // TLV string element into a char field of `size` bytes (nbcp_get_string)
    raw,   // fixed layouts: `size` bytes as they stand, terminated or not
    list,  // fixed layouts: the items counted by the field at `offset`, `size` bytes wide
    // Kind 2's fixed-layout entry: a byte n, then n groups of 3 bytes that are not carried,
    // but only when n is below 5; a larger n means no groups follow.
    groups_skipped,
};

// When the TLV form marks a list item as written: items of the long lists are marked on their
// own, so that a list with few items does not count (and later clear) the room for 255.
enum class mark : uint8_t {
    never,       // the item lies in the part of the record the dispatch marks
    on_element,  // at every element met inside the item, known or not (fixed: every item)
    on_store,    // when one of the item's codes is stored
};

struct list_desc;

// One field of a record or of a list item. In a TLV table, code selects the field and a field
// with a list is the count that opens it. In a fixed layout, the fields follow in table order.
struct field_desc {
    uint16_t code;
    form how;
    uint32_t offset;  // from the record's (or the item's) first byte
    uint16_t size = 0;
    const list_desc *list = nullptr;
};

struct fields_ref {
    const field_desc *first;
    size_t count;
};

template <size_t N>
constexpr fields_ref fields(const field_desc (&table)[N]) {
    return {table, N};
}

template <size_t N>
constexpr fields_ref fields(const std::array<field_desc, N> &table) {
    return {table.data(), N};
}

struct list_desc {
    uint32_t items;   // offset of the first item from the first byte of what holds the count
    uint32_t stride;  // bytes per item
    uint32_t max;     // items read at most; a larger count is stored as received
    uint16_t end;     // TLV code that closes an item
    // Bytes of an item, from its start, marked as written, and when. Fixed layouts meet every
    // item they read; a marked list there also stops at the end of the datagram, where each
    // further item would read as zeros and only add lines to clear.
    uint32_t marked;
    mark when;
    fields_ref item;
};

// Items of four u8 elements whose codes run from first_code to first_code + 3.
constexpr std::array<field_desc, 4> item_bytes(uint16_t first_code) {
    std::array<field_desc, 4> f{};
    for (uint16_t i = 0; i < 4; ++i) {
        f[i] = {static_cast<uint16_t>(first_code + i), form::u8, i};
    }
    return f;
}

constexpr list_desc item4_list(uint32_t items, uint16_t end, const std::array<field_desc, 4> &f) {
    return {items, sizeof(nbcp_item4), NBCP_SMALL_LIST_MAX, end, 0, mark::never, fields(f)};
}

// Fixed-layout items carry only their first `width` bytes.
constexpr field_desc ITEM_3_BYTES[] = {{0, form::raw, 0, 3}};
constexpr field_desc ITEM_4_BYTES[] = {{0, form::raw, 0, 4}};

constexpr list_desc fixed_items(uint32_t items, const field_desc (&item)[1]) {
    return {items, sizeof(nbcp_item4), NBCP_SMALL_LIST_MAX, 0, 0, mark::never, fields(item)};
}

template <typename Entry>
constexpr list_desc long_list(uint32_t items, uint16_t end, uint32_t marked, mark when,
                              fields_ref item) {
    return {items, sizeof(Entry), NBCP_LONG_LIST_MAX, end, marked, when, item};
}

// A fixed-layout step that reads the list counted by a u8 or u32 field read before it.
constexpr field_desc counted(uint32_t count_offset, uint16_t count_size, const list_desc &list) {
    return {0, form::list, count_offset, count_size, &list};
}

#define AT(record, member) static_cast<uint32_t>(offsetof(record, member))
#define CAPACITY(record, member) static_cast<uint16_t>(sizeof(record::member))

// Kind 1 (types 1 and 21).
constexpr auto K1_ITEM = item_bytes(22);
constexpr list_desc K1_ITEMS = item4_list(AT(nbcp_kind1, items), 21, K1_ITEM);
constexpr field_desc K1_TLV[] = {
    {15, form::u8, AT(nbcp_kind1, field1)},
    {16, form::u8, AT(nbcp_kind1, field2)},
    {17, form::u8, AT(nbcp_kind1, field3)},
    {18, form::mac, AT(nbcp_kind1, address)},
    {19, form::u8, AT(nbcp_kind1, field5)},
    {20, form::u8, AT(nbcp_kind1, item_count), 0, &K1_ITEMS},
};
constexpr list_desc K1_FIXED_ITEMS = fixed_items(AT(nbcp_kind1, items), ITEM_3_BYTES);
constexpr field_desc K1_FIXED[] = {
    {0, form::u8, AT(nbcp_kind1, field1)},
    {0, form::u8, AT(nbcp_kind1, field2)},
    {0, form::u8, AT(nbcp_kind1, field3)},
    {0, form::mac, AT(nbcp_kind1, address)},
    {0, form::u8, AT(nbcp_kind1, field5)},
    {0, form::u8, AT(nbcp_kind1, item_count)},
    counted(AT(nbcp_kind1, item_count), 1, K1_FIXED_ITEMS),
};

// Kind 2 (types 2 and 22).
constexpr field_desc K2_ENTRY[] = {
    {37, form::mac, AT(nbcp_kind2_entry, address)},
    {38, form::u8, AT(nbcp_kind2_entry, field2)},
    {39, form::u8, AT(nbcp_kind2_entry, field3)},
    {40, form::u32, AT(nbcp_kind2_entry, value)},
    {41, form::text, AT(nbcp_kind2_entry, text), CAPACITY(nbcp_kind2_entry, text)},
    {42, form::u8, AT(nbcp_kind2_entry, field6)},
};
constexpr list_desc K2_ENTRIES = long_list<nbcp_kind2_entry>(
    AT(nbcp_kind2, entries), 36, sizeof(nbcp_kind2_entry), mark::on_element, fields(K2_ENTRY));
constexpr field_desc K2_TLV[] = {
    {31, form::u8, AT(nbcp_kind2, field1)},
    {32, form::u8, AT(nbcp_kind2, field2)},
    {33, form::u8, AT(nbcp_kind2, field3)},
    {34, form::mac, AT(nbcp_kind2, address)},
    {35, form::u8, AT(nbcp_kind2, entry_count), 0, &K2_ENTRIES},
};
constexpr field_desc K2_FIXED_ENTRY[] = {
    {0, form::mac, AT(nbcp_kind2_entry, address)},
    {0, form::u8, AT(nbcp_kind2_entry, field2)},
    {0, form::u8, AT(nbcp_kind2_entry, field3)},
    {0, form::u32, AT(nbcp_kind2_entry, value)},
    {0, form::groups_skipped, 0},
};
constexpr list_desc K2_FIXED_ENTRIES = long_list<nbcp_kind2_entry>(
    AT(nbcp_kind2, entries), 0, sizeof(nbcp_kind2_entry), mark::on_element, fields(K2_FIXED_ENTRY));
constexpr field_desc K2_FIXED[] = {
    {0, form::u8, AT(nbcp_kind2, field1)},
    {0, form::u8, AT(nbcp_kind2, field2)},
    {0, form::u8, AT(nbcp_kind2, field3)},
    {0, form::mac, AT(nbcp_kind2, address)},
    {0, form::u8, AT(nbcp_kind2, entry_count)},
    counted(AT(nbcp_kind2, entry_count), 1, K2_FIXED_ENTRIES),
};

// Kind 3 (types 3 and 23).
constexpr auto K3_ITEM = item_bytes(61);
constexpr list_desc K3_ITEMS = item4_list(AT(nbcp_kind3, items), 60, K3_ITEM);
constexpr field_desc K3_TLV[] = {
    {51, form::u8, AT(nbcp_kind3, field1)},
    {52, form::u8, AT(nbcp_kind3, field2)},
    {53, form::u8, AT(nbcp_kind3, field3)},
    {54, form::mac, AT(nbcp_kind3, address)},
    {55, form::u8, AT(nbcp_kind3, field5)},
    {59, form::u8, AT(nbcp_kind3, item_count), 0, &K3_ITEMS},
    {56, form::u32, AT(nbcp_kind3, value)},
    {57, form::text, AT(nbcp_kind3, text1), CAPACITY(nbcp_kind3, text1)},
    {58, form::text, AT(nbcp_kind3, text2), CAPACITY(nbcp_kind3, text2)},
    {65, form::text, AT(nbcp_kind3, text3), CAPACITY(nbcp_kind3, text3)},
    {66, form::text, AT(nbcp_kind3, text4), CAPACITY(nbcp_kind3, text4)},
};
constexpr list_desc K3_FIXED_ITEMS = fixed_items(AT(nbcp_kind3, items), ITEM_3_BYTES);
constexpr field_desc K3_FIXED[] = {
    {0, form::u8, AT(nbcp_kind3, field1)},
    {0, form::u8, AT(nbcp_kind3, field2)},
    {0, form::u8, AT(nbcp_kind3, field3)},
    {0, form::mac, AT(nbcp_kind3, address)},
    {0, form::u8, AT(nbcp_kind3, field5)},
    {0, form::u8, AT(nbcp_kind3, item_count)},
    counted(AT(nbcp_kind3, item_count), 1, K3_FIXED_ITEMS),
    {0, form::u32, AT(nbcp_kind3, value)},
    {0, form::raw, AT(nbcp_kind3, text1), CAPACITY(nbcp_kind3, text1)},
    {0, form::raw, AT(nbcp_kind3, text2), CAPACITY(nbcp_kind3, text2)},
    {0, form::raw, AT(nbcp_kind3, text3), CAPACITY(nbcp_kind3, text3)},
    {0, form::raw, AT(nbcp_kind3, text4), CAPACITY(nbcp_kind3, text4)},
};

// Kind 4 (types 4 and 24).
constexpr auto K4_ITEM = item_bytes(76);
constexpr list_desc K4_ITEMS = item4_list(AT(nbcp_kind4_entry, items), 75, K4_ITEM);
constexpr field_desc K4_ENTRY[] = {
    {73, form::mac, AT(nbcp_kind4_entry, address)},
    {74, form::u8, AT(nbcp_kind4_entry, item_count), 0, &K4_ITEMS},
};
constexpr list_desc K4_ENTRIES = long_list<nbcp_kind4_entry>(
    AT(nbcp_kind4, entries), 72, sizeof(nbcp_kind4_entry), mark::on_element, fields(K4_ENTRY));
constexpr field_desc K4_TLV[] = {
    {70, form::mac, AT(nbcp_kind4, address)},
    {71, form::u8, AT(nbcp_kind4, entry_count), 0, &K4_ENTRIES},
};
constexpr list_desc K4_FIXED_ITEMS = fixed_items(AT(nbcp_kind4_entry, items), ITEM_4_BYTES);
constexpr field_desc K4_FIXED_ENTRY[] = {
    {0, form::mac, AT(nbcp_kind4_entry, address)},
    {0, form::u8, AT(nbcp_kind4_entry, item_count)},
    counted(AT(nbcp_kind4_entry, item_count), 1, K4_FIXED_ITEMS),
};
constexpr list_desc K4_FIXED_ENTRIES = long_list<nbcp_kind4_entry>(
    AT(nbcp_kind4, entries), 0, sizeof(nbcp_kind4_entry), mark::on_element, fields(K4_FIXED_ENTRY));
constexpr field_desc K4_FIXED[] = {
    {0, form::mac, AT(nbcp_kind4, address)},
    {0, form::u8, AT(nbcp_kind4, entry_count)},
    counted(AT(nbcp_kind4, entry_count), 1, K4_FIXED_ENTRIES),
};

// Kind 5 (types 5 and 25). An entry is marked up to its neighbors, which are marked one by one.
constexpr uint32_t K5_ENTRY_HEAD = AT(nbcp_kind5_entry, neighbors);
constexpr auto K5_RADIO = item_bytes(98);
constexpr list_desc K5_RADIOS = item4_list(AT(nbcp_kind5_entry, radios), 97, K5_RADIO);
constexpr auto K5_ITEM = item_bytes(107);
constexpr list_desc K5_ITEMS = item4_list(AT(nbcp_kind5_neighbor, items), 106, K5_ITEM);
constexpr field_desc K5_NEIGHBOR[] = {
    {104, form::mac, AT(nbcp_kind5_neighbor, address)},
    {105, form::u8, AT(nbcp_kind5_neighbor, item_count), 0, &K5_ITEMS},
};
constexpr list_desc K5_NEIGHBORS = long_list<nbcp_kind5_neighbor>(
    AT(nbcp_kind5_entry, neighbors), 103, sizeof(nbcp_kind5_neighbor), mark::on_element,
    fields(K5_NEIGHBOR));
constexpr field_desc K5_ENTRY[] = {
    {92, form::u8, AT(nbcp_kind5_entry, field1)},
    {96, form::u8, AT(nbcp_kind5_entry, radio_count), 0, &K5_RADIOS},
    {102, form::u8, AT(nbcp_kind5_entry, neighbor_count), 0, &K5_NEIGHBORS},
    {93, form::mac, AT(nbcp_kind5_entry, address)},
    {94, form::u32, AT(nbcp_kind5_entry, value1)},
    {95, form::u32, AT(nbcp_kind5_entry, value2)},
};
constexpr list_desc K5_ENTRIES = long_list<nbcp_kind5_entry>(
    AT(nbcp_kind5, entries), 91, K5_ENTRY_HEAD, mark::on_element, fields(K5_ENTRY));
constexpr field_desc K5_TLV[] = {
    {89, form::u32, AT(nbcp_kind5, value)},
    {90, form::u32, AT(nbcp_kind5, entry_count), 0, &K5_ENTRIES},
};
constexpr list_desc K5_FIXED_RADIOS = fixed_items(AT(nbcp_kind5_entry, radios), ITEM_3_BYTES);
constexpr list_desc K5_FIXED_ITEMS = fixed_items(AT(nbcp_kind5_neighbor, items), ITEM_4_BYTES);
constexpr field_desc K5_FIXED_NEIGHBOR[] = {
    {0, form::mac, AT(nbcp_kind5_neighbor, address)},
    {0, form::u8, AT(nbcp_kind5_neighbor, item_count)},
    counted(AT(nbcp_kind5_neighbor, item_count), 1, K5_FIXED_ITEMS),
};
constexpr list_desc K5_FIXED_NEIGHBORS =
    long_list<nbcp_kind5_neighbor>(AT(nbcp_kind5_entry, neighbors), 0, sizeof(nbcp_kind5_neighbor),
                                   mark::on_element, fields(K5_FIXED_NEIGHBOR));
constexpr field_desc K5_FIXED_ENTRY[] = {
    {0, form::u8, AT(nbcp_kind5_entry, field1)},
    {0, form::u8, AT(nbcp_kind5_entry, radio_count)},
    {0, form::u8, AT(nbcp_kind5_entry, neighbor_count)},
    {0, form::mac, AT(nbcp_kind5_entry, address)},
    {0, form::u32, AT(nbcp_kind5_entry, value1)},
    {0, form::u32, AT(nbcp_kind5_entry, value2)},
    counted(AT(nbcp_kind5_entry, radio_count), 1, K5_FIXED_RADIOS),
    counted(AT(nbcp_kind5_entry, neighbor_count), 1, K5_FIXED_NEIGHBORS),
};
constexpr list_desc K5_FIXED_ENTRIES = long_list<nbcp_kind5_entry>(
    AT(nbcp_kind5, entries), 0, K5_ENTRY_HEAD, mark::on_element, fields(K5_FIXED_ENTRY));
constexpr field_desc K5_FIXED[] = {
    {0, form::u32, AT(nbcp_kind5, value)},
    {0, form::u32, AT(nbcp_kind5, entry_count)},
    counted(AT(nbcp_kind5, entry_count), 4, K5_FIXED_ENTRIES),
};

// Kind 6 (types 6 and 26).
constexpr field_desc K6_ENTRY[] = {{85, form::mac, 0}};
constexpr list_desc K6_ENTRIES = long_list<mac_addr>(AT(nbcp_kind6, entries), 84, sizeof(mac_addr),
                                                     mark::on_store, fields(K6_ENTRY));
constexpr field_desc K6_TLV[] = {
    {81, form::u8, AT(nbcp_kind6, field1)},
    {82, form::u32, AT(nbcp_kind6, value1)},
    {86, form::u32, AT(nbcp_kind6, value2)},
    {83, form::u8, AT(nbcp_kind6, entry_count), 0, &K6_ENTRIES},
};
constexpr list_desc K6_FIXED_ENTRIES = long_list<mac_addr>(
    AT(nbcp_kind6, entries), 0, sizeof(mac_addr), mark::on_element, fields(K6_ENTRY));
constexpr field_desc K6_FIXED[] = {
    {0, form::u8, AT(nbcp_kind6, field1)},
    {0, form::u32, AT(nbcp_kind6, value1)},
    {0, form::u8, AT(nbcp_kind6, entry_count)},
    counted(AT(nbcp_kind6, entry_count), 1, K6_FIXED_ENTRIES),
    {0, form::u32, AT(nbcp_kind6, value2)},
};

// Type 16 (fixed layout only): a count, an address, then count groups of 3 bytes.
constexpr field_desc T16_GROUP[] = {{0, form::raw, 0, 3}};
constexpr list_desc T16_GROUPS =
    long_list<uint8_t[3]>(AT(nbcp_type16, groups), 0, 3, mark::on_element, fields(T16_GROUP));
constexpr field_desc T16_FIXED[] = {
    {0, form::u8, AT(nbcp_type16, count)},
    {0, form::mac, AT(nbcp_type16, address)},
    counted(AT(nbcp_type16, count), 1, T16_GROUPS),
};

#undef AT
#undef CAPACITY

void mark_item(nbcp_touched *touched, const list_desc &list, uint8_t *item) {
    if (touched != nullptr) {
        touched->mark(item, list.marked);
    }
}

uint32_t stored_count(const uint8_t *base, uint32_t offset, size_t size) {
    if (size == 1) {
        return base[offset];
    }
    uint32_t count;
    std::memcpy(&count, base + offset, sizeof count);
    return count;
}

// Reads the value of f at the cursor into at. len is the element's length, which only the TLV
// strings use: the other forms take their own width whatever the length says.
NBCP_INLINE void read_value(nbcp_decoder &d, const field_desc &f, uint8_t *at, uint16_t len) {
    switch (f.how) {
        case form::u8:
            *at = nbcp_get_u8(d);
            break;
        case form::u32: {
            uint32_t value = nbcp_get_u32(d);
            std::memcpy(at, &value, sizeof value);
            break;
        }
        case form::mac:
            nbcp_get_mac(d, at);
            break;
        case form::text:
            nbcp_get_string(d, len, reinterpret_cast<char *>(at), f.size);
            break;
        case form::raw:
            nbcp_read(d, at, f.size);
            break;
        case form::groups_skipped: {
            uint8_t groups = nbcp_get_u8(d);
            if (groups < 5) {
                nbcp_skip(d, groups * 3u);
            }
            break;
        }
        case form::list:  // read by the caller, which knows where the count lies
            break;
    }
}

// The TLV walk of one record: its cursor, its consumed-byte limit and the lines it marks.
struct tlv_walk {
    nbcp_decoder d;
    uint32_t limit;
    nbcp_touched *touched;
};

const field_desc *find_code(fields_ref table, uint16_t code) {
    const field_desc *end = table.first + table.count;
    const field_desc *f =
        std::find_if(table.first, end, [&](const field_desc &x) { return x.code == code; });
    return f != end ? f : nullptr;
}

void read_element(tlv_walk &w, const field_desc &f, uint8_t *base, uint16_t len);

void read_tlv_list(tlv_walk &w, const list_desc &list, uint8_t *base, uint32_t count) {
    uint8_t *first = base + list.items;
    nbcp_walk_items(
        w.d, w.limit, count, list.max, list.end, [&](uint32_t i, uint16_t type, uint16_t len) {
            uint8_t *item = first + i * list.stride;
            const field_desc *f = find_code(list.item, type);
            if (list.when == mark::on_element || (list.when == mark::on_store && f != nullptr)) {
                mark_item(w.touched, list, item);
            }
            if (f == nullptr) {
                return false;
            }
            read_element(w, *f, item, len);
            return true;
        });
}

// Stores one known element; a count goes on to read the items it opens.
void read_element(tlv_walk &w, const field_desc &f, uint8_t *base, uint16_t len) {
    read_value(w.d, f, base + f.offset, len);
    if (f.list != nullptr) {
        read_tlv_list(w, *f.list, base, stored_count(base, f.offset, f.how == form::u8 ? 1 : 4));
    }
}

// The fixed layouts are read by code generated from their tables: every field's form and offset
// is a constant, so an item of a long list (a crafted datagram holds 255 of them) is read by
// straight-line code instead of a loop that looks up each field. The readers take the cursor by
// value and return how far it got: a cursor whose address never escapes stays in registers,
// where the record's byte stores cannot alias it.
// Measured: 255 kind-5 entry heads cost 372 µs of CPU read so, 482-487 µs through the tables.
template <const auto &Table>
struct table_layout {
    static constexpr fields_ref get() { return fields(Table); }
};

template <const list_desc &List>
struct item_layout {
    static constexpr fields_ref get() { return List.item; }
};

template <const list_desc &List>
uint32_t read_fixed_list(nbcp_decoder d, uint8_t *base, uint32_t count, nbcp_touched *touched);

template <typename Layout, size_t I>
NBCP_INLINE void read_fixed_field(nbcp_decoder &d, uint8_t *base, nbcp_touched *touched) {
    constexpr field_desc f = Layout::get().first[I];
    if constexpr (f.how == form::list) {
        const uint32_t count = stored_count(base, f.offset, f.size);
        d.consumed = read_fixed_list<*f.list>(d, base, count, touched);
    } else {
        read_value(d, f, base + f.offset, 0);
    }
}

template <typename Layout, size_t... I>
uint32_t read_fixed_fields(nbcp_decoder d, uint8_t *base, nbcp_touched *touched,
                           std::index_sequence<I...>) {
    (read_fixed_field<Layout, I>(d, base, touched), ...);
    return d.consumed;
}

template <typename Layout>
uint32_t read_fixed(nbcp_decoder d, uint8_t *base, nbcp_touched *touched) {
    constexpr size_t count = Layout::get().count;
    return read_fixed_fields<Layout>(d, base, touched, std::make_index_sequence<count>{});
}

template <const list_desc &List>
uint32_t read_fixed_list(nbcp_decoder d, uint8_t *base, uint32_t count, nbcp_touched *touched) {
    constexpr bool marked = List.when != mark::never;
    const uint32_t n = std::min(count, List.max);
    for (uint32_t i = 0; i < n && !(marked && nbcp_exhausted(d)); ++i) {
        uint8_t *item = base + List.items + i * List.stride;
        if constexpr (marked) {
            mark_item(touched, List, item);
        }
        d.consumed = read_fixed<item_layout<List>>(d, item, touched);
    }
    return d.consumed;
}

// Reads a whole record in its fixed layout.
using fixed_reader = uint32_t (*)(nbcp_decoder d, uint8_t *base, nbcp_touched *touched);

template <const auto &Table>
constexpr fixed_reader fixed = read_fixed<table_layout<Table>>;

struct kind_desc {
    fields_ref tlv;
    fixed_reader fixed;
};

constexpr kind_desc KINDS[NBCP_KIND_MAX] = {
    {fields(K1_TLV), fixed<K1_FIXED>}, {fields(K2_TLV), fixed<K2_FIXED>},
    {fields(K3_TLV), fixed<K3_FIXED>}, {fields(K4_TLV), fixed<K4_FIXED>},
    {fields(K5_TLV), fixed<K5_FIXED>}, {fields(K6_TLV), fixed<K6_FIXED>},
};

uint8_t *record_bytes(nbcp_msg &msg) {
    return reinterpret_cast<uint8_t *>(&msg.m);
}

bool is_kind(uint8_t kind) {
    return kind >= NBCP_KIND_MIN && kind <= NBCP_KIND_MAX;
}

}  // namespace

void nbcp_parse_kind_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                         nbcp_touched *touched) {
    if (!is_kind(msg.kind)) {
        return;
    }
    const fields_ref table = KINDS[msg.kind - NBCP_KIND_MIN].tlv;
    uint8_t *base = record_bytes(msg);
    tlv_walk w{nbcp_body(datagram, size), limit, touched};
    nbcp_walk(w.d, limit, [&](uint16_t type, uint16_t len) {
        const field_desc *f = find_code(table, type);
        if (f == nullptr) {
            return false;
        }
        read_element(w, *f, base, len);
        return true;
    });
}

void nbcp_parse_kind_fixed(const uint8_t *datagram, size_t size, uint32_t, nbcp_msg &msg,
                           nbcp_touched *touched) {
    fixed_reader read;
    if (msg.kind == NBCP_TYPE_16) {
        read = fixed<T16_FIXED>;
    } else if (is_kind(msg.kind)) {
        read = KINDS[msg.kind - NBCP_KIND_MIN].fixed;
    } else {
        return;
    }
    read(nbcp_body(datagram, size), record_bytes(msg), touched);
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
