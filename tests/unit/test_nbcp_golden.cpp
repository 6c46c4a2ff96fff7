// The decoder's records field by field: each seed of the fuzz corpora and each hostile datagram
// or list built here (lengths that lie, texts and radios at their limits and past them, every
// type's walk limit) against the fields its bytes carry by the formats, and a seeded stream of
// random datagrams of every type, decoded in one reused area as the receive thread does,
// against the same datagrams decoded alone. A failure names the row or the datagram, and the
// field.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "core/local_msg.h"
#include "core/recv_area.h"
#include "proto/nbcp.h"
#include "proto/nbcp_codes.h"
#include "proto/nbcp_wire.h"

namespace {

using bytes = std::vector<uint8_t>;
// Field name to value, for the non-zero fields only.
using fields = std::map<std::string, std::string>;

std::string hex(const uint8_t *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += {digits[p[i] >> 4], digits[p[i] & 15]};
    }
    return s;
}

std::string at(const std::string &name, size_t i) {
    return name + "[" + std::to_string(i) + "]";
}

// Records are mostly zero: their zero list entries are passed over without naming each field.
template <typename T>
bool all_zero(const T &value) {
    const auto *p = reinterpret_cast<const uint8_t *>(&value);
    return std::all_of(p, p + sizeof value, [](uint8_t b) { return b == 0; });
}

// The put of a record: its members, each under the name it is written with ("r.a" is "a").
#define MEMBERS(type, ...)                             \
    void put(const std::string &name, const type &r) { \
        put_each(name, #__VA_ARGS__, __VA_ARGS__);     \
    }

// The non-zero fields of a record as "name=value": bytes in decimal, wider numbers in hex,
// addresses and item bytes in hex, strings up to their NUL. Members of a class, so that each
// overload sees all the others whatever their order.
class field_list {
  public:
    fields got;

    template <typename T, typename = std::enable_if_t<std::is_unsigned_v<T>>>
    void put(const std::string &name, T v) {
        char text[16];
        snprintf(text, sizeof text, sizeof v == 1 ? "%u" : "0x%x", unsigned(v));
        put_if(v != 0, name, text);
    }
    template <size_t N>
    void put(const std::string &name, const std::array<uint8_t, N> &a) {
        put_raw(name, a.data(), N);
    }
    void put(const std::string &name, const nbcp_item4 &i) { put_raw(name, i.byte, 4); }
    template <size_t N>
    void put(const std::string &name, const uint8_t (&b)[N]) {
        put_raw(name, b, N);
    }
    // Bytes after the NUL (a clearing that missed them) show.
    template <size_t N>
    void put(const std::string &name, const char (&s)[N]) {
        size_t n = strnlen(s, N);
        bool after = std::any_of(s + n, s + N, [](char c) { return c != 0; });
        put_if(n > 0 || after, name, std::string(s, n) + (after ? " (bytes after the end)" : ""));
    }
    template <typename T, size_t N>
    void put(const std::string &name, const T (&list)[N]) {
        for (size_t i = 0; i < N; ++i) {
            if (!all_zero(list[i])) {
                put(at(name, i), list[i]);
            }
        }
    }

    MEMBERS(nbcp_hdr, r.flag, r.type, r.arg1, r.arg2, r.arg3)
    MEMBERS(radio_info, r.radioid, r.channel, r.txpower, r.rssi, r.bandwidth)
    MEMBERS(ap_info, r.ip, r.ip6, r.qv_ip, r.mac, r.tenantId, r.state, r.version, r.name,
            r.radiocnt, r.radio, r.pvc_ip, r.cluster_id, r.pvc_mac, r.cluster_flag)
    // Records below leave out their header: describe() names it for every kind.
    MEMBERS(nbcp_ndrp, r.kind_flag, r.mode, r.ip, r.ip6, r.mac)
    MEMBERS(nbcp_ndsp, r.kind_flag, r.mode, r.ip, r.mac, r.info, r.pvc_ip, r.cluster_id, r.pvc_mac,
            r.cluster_flag)
    MEMBERS(nbcp_kind1, r.field1, r.field2, r.field3, r.address, r.field5, r.item_count, r.items)
    MEMBERS(nbcp_kind2_entry, r.address, r.field2, r.field3, r.value, r.text, r.field6)
    MEMBERS(nbcp_kind2, r.field1, r.field2, r.field3, r.address, r.entry_count, r.entries)
    MEMBERS(nbcp_kind3, r.field1, r.field2, r.field3, r.address, r.field5, r.item_count, r.items,
            r.value, r.text1, r.text2, r.text3, r.text4)
    MEMBERS(nbcp_kind4_entry, r.address, r.item_count, r.items)
    MEMBERS(nbcp_kind4, r.address, r.entry_count, r.entries)
    MEMBERS(nbcp_kind5_neighbor, r.address, r.item_count, r.items)
    MEMBERS(nbcp_kind5_entry, r.field1, r.radio_count, r.neighbor_count, r.address, r.value1,
            r.value2, r.radios, r.neighbors)
    MEMBERS(nbcp_kind5, r.value, r.entry_count, r.entries)
    MEMBERS(nbcp_kind6, r.field1, r.value1, r.value2, r.entry_count, r.entries)
    MEMBERS(nbcp_type15, r.subtype, r.value, r.address)
    MEMBERS(nbcp_type16, r.count, r.address, r.groups)

  private:
    void put_if(bool nonzero, const std::string &name, const std::string &value) {
        if (nonzero) {
            got[name] = value;
        }
    }
    void put_raw(const std::string &name, const uint8_t *p, size_t n) {
        put_if(std::any_of(p, p + n, [](uint8_t b) { return b != 0; }), name, hex(p, n));
    }
    template <typename... T>
    void put_each(const std::string &name, const char *members, const T &...values) {
        std::istringstream names(members);
        auto next = [&, member = std::string()]() mutable {
            std::getline(names, member, ',');
            return (name.empty() ? "" : name + ".") + member.substr(member.find('.') + 1);
        };
        (put(next(), values), ...);
    }
};
#undef MEMBERS

// Calls use with the record that a decode of this kind fills; unknown kinds fill the header
// alone, which every record begins with.
template <typename Use>
void on_record(const nbcp_msg &msg, Use use) {
    // clang-format off
    switch (msg.kind) {
        case NBCP_TYPE_NDRP: return use(msg.m.ndrp);
        case NBCP_TYPE_NDSP: return use(msg.m.ndsp);
        case 1: return use(msg.m.kind1);
        case 2: return use(msg.m.kind2);
        case 3: return use(msg.m.kind3);
        case 4: return use(msg.m.kind4);
        case 5: return use(msg.m.kind5);
        case 6: return use(msg.m.kind6);
        case NBCP_TYPE_15: return use(msg.m.type15);
        case NBCP_TYPE_16: return use(msg.m.type16);
        default: return;
    }
    // clang-format on
}

fields describe(const nbcp_msg &msg) {
    field_list f;
    f.put("kind", msg.kind);
    f.put("hdr", msg.m.hdr);
    on_record(msg, [&](const auto &record) { f.put("", record); });
    return f.got;
}

// Every difference between two field lists, one line per field: "name: got X, expected Y".
std::string differences(const fields &got, const fields &expected) {
    fields names = got;
    names.insert(expected.begin(), expected.end());
    std::string out;
    for (const auto &[name, unused] : names) {
        const std::string g = got.count(name) ? got.at(name) : "(zero)",
                          e = expected.count(name) ? expected.at(name) : "(zero)";
        if (g != e) {
            out += name + ": got " + g + ", expected " + e + "\n";
        }
    }
    return out;
}

// A standard engine: the same stream on every platform and library.
struct random_bytes {
    std::mt19937_64 next;
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }
    uint8_t byte() { return static_cast<uint8_t>(next()); }
    // Mostly small bytes: counts and lengths that keep a list walk inside its datagram.
    void append_small(bytes &out, uint32_t n) {
        for (; n > 0; --n) {
            out.push_back(below(4) == 0 ? byte() : static_cast<uint8_t>(below(7)));
        }
    }
};

// The codes that the elements of each type with elements are mostly drawn from: first code and
// count. Other types draw from all.
const std::map<uint8_t, std::pair<uint16_t, uint16_t>> CODES = {
    {1, {15, 11}},  {2, {31, 12}},  {3, {51, 16}},  {4, {70, 10}},  {5, {89, 22}},
    {6, {81, 6}},   {21, {15, 11}}, {22, {31, 12}}, {23, {51, 16}}, {24, {70, 10}},
    {25, {89, 22}}, {26, {81, 6}},  {10, {128, 5}}, {11, {134, 23}}};

// A header whose flag is mostly zero, then fixed-layout bytes (or garbage) or elements: an
// element's code is mostly one the type knows, its length mostly one of the value forms (u8,
// u32, mac, address, string). Elements end with a zero type or not; some datagrams are cut
// short, possibly inside the header.
bytes random_datagram(random_bytes &rng, uint8_t type) {
    static const uint32_t forms[] = {1, 1, 1, 1, 4, 6, 16};
    auto known = CODES.find(type);
    auto [first, codes] =
        known == CODES.end() ? std::pair<uint16_t, uint16_t>{1, 160} : known->second;
    bytes d = {rng.below(2) == 0 ? uint8_t{0} : rng.byte(), rng.byte(), rng.byte(), type};
    while (d.size() < 10) {
        d.push_back(rng.byte());
    }
    if (rng.below(4) == 0) {
        rng.append_small(d, rng.below(700));
    } else {
        for (uint32_t n = rng.below(120); n > 0; --n) {
            uint32_t code = rng.below(8) == 0 ? rng.below(256) : first + rng.below(codes);
            uint32_t len = rng.below(8) == 0 ? rng.below(48) : forms[rng.below(7)];
            d.insert(d.end(), {uint8_t(code >> 8), uint8_t(code), uint8_t(len >> 8), uint8_t(len)});
            rng.append_small(d, len);
        }
        if (rng.below(2) == 0) {
            d.insert(d.end(), {0, 0});
        }
    }
    if (rng.below(6) == 0) {
        d.resize(rng.below(static_cast<uint32_t>(d.size()) + 1));
    }
    return d;
}

// Many datagrams of each type that is parsed, a few of every other, in a random order.
std::vector<bytes> random_datagrams() {
    random_bytes rng{std::mt19937_64(0x7461726e)};
    std::vector<bytes> all;
    for (int type = 0; type < 256; ++type) {
        bool parsed = CODES.count(uint8_t(type)) || type == NBCP_TYPE_15 || type == NBCP_TYPE_16;
        for (int n = parsed ? 200 : 4; n > 0; --n) {
            all.push_back(random_datagram(rng, uint8_t(type)));
        }
    }
    for (size_t i = all.size() - 1; i > 0; --i) {
        std::swap(all[i], all[rng.below(uint32_t(i + 1))]);
    }
    return all;
}

// Expected fields, written from the formats and the values fuzz/make_corpus.py puts in each
// seed: "name=value" words, where MAC and IP6 stand for the seeds' own. A field named with 0 or
// not named at all is zero.
fields expect(const std::string &named) {
    const fields seed_values = {{"MAC", "001122334455"},
                                {"IP6", "fe800000000000000000000000000001"}};
    fields out;
    std::istringstream words(named);
    for (std::string word; words >> word;) {
        const std::string value = word.substr(word.find('=') + 1);
        if (value != "0") {
            out[word.substr(0, word.find('='))] =
                seed_values.count(value) ? seed_values.at(value) : value;
        }
    }
    return out;
}

// A seed's radios: radio i carries 10i, 10i+1, ... in its fields, in the order of the format;
// short radios carry only the first two (id and channel).
std::string radios(const std::string &prefix, int count, int fields_sent = 5) {
    const char *order[] = {"radioid", "channel", "txpower", "rssi", "bandwidth"};
    std::string out;
    for (int i = 0; i < std::min(count, AP_RADIO_MAX); ++i) {
        for (int k = 0; k < fields_sent; ++k) {
            out += " " + at(prefix, size_t(i)) + "." + order[k] + "=" + std::to_string(10 * i + k);
        }
    }
    return out;
}

// ndsp(radiocnt) of the corpus script.
std::string answer(int radiocnt) {
    return "kind=11 hdr.type=11 kind_flag=1 mode=3 ip=0xc0a8010a mac=MAC pvc_ip=0xc0a80101 "
           "cluster_id=0x2a pvc_mac=MAC cluster_flag=1 info.ip=0xc0a8010a info.ip6=IP6 "
           "info.qv_ip=0xa000001 info.mac=MAC info.tenantId=tenant-1 info.version=2.4.1.1000 "
           "info.name=AP-Lobby info.radiocnt=" +
           std::to_string(radiocnt) + radios("info.radio", radiocnt);
}

// list_entry(radiocnt, name) of the corpus script, as entry i of the reader's array.
std::string list_entry(size_t i, int radiocnt, const std::string &name) {
    const std::string p = " " + at("entries", i) + ".";
    std::string out = p + "name=" + name;
    for (const char *field :
         {"ip=0xa000005", "ip6=IP6", "qv_ip=0xa000001", "mac=MAC", "tenantId=tenant-1",
          "version=2.4.1", "cluster_id=0x7", "pvc_mac=MAC", "cluster_flag=1"}) {
        out += p + field;
    }
    return out + p + "radiocnt=" + std::to_string(radiocnt) +
           radios(p.substr(1) + "radio", radiocnt);
}

// The seeds of fuzz/corpus/parse that these rows name.
std::map<std::string, std::string> parse_seeds_expected() {
    return {
        {"ndrp_golden", "kind=10 hdr.type=10 ip=0xc0a8010a mac=MAC"},
        {"ndrp_mode3", "kind=10 hdr.type=10 mode=3 ip=0xc0a8010a mac=MAC"},
        {"ndsp_no_radio", answer(0)},
        {"ndsp_no_terminator", answer(2)},
        {"unknown_type_12", "kind=12 hdr.type=12"},
        {"kind1_tlv",
         "kind=1 hdr.type=21 field1=1 address=MAC field5=5 item_count=2 items[0]=00010203 "
         "items[1]=0a0b0c0d"},
        {"kind2_tlv",
         "kind=2 hdr.type=22 field1=1 address=MAC entry_count=1 entries[0].address=MAC "
         "entries[0].field2=2 entries[0].value=0x9 entries[0].text=text entries[0].field6=1"},
        {"kind3_tlv",
         "kind=3 hdr.type=23 field1=1 item_count=1 items[0]=00010203 value=0x3 text1=a text2=b "
         "text3=c text4=d"},
        {"kind4_tlv",
         "kind=4 hdr.type=24 address=MAC entry_count=1 entries[0].address=MAC "
         "entries[0].item_count=1 entries[0].items[0]=00010203"},
        {"kind5_tlv",
         "kind=5 hdr.type=25 value=0x1 entry_count=0x1 entries[0].field1=1 "
         "entries[0].radio_count=1 entries[0].radios[0]=00010203 entries[0].neighbor_count=1 "
         "entries[0].neighbors[0].address=MAC entries[0].neighbors[0].item_count=1 "
         "entries[0].neighbors[0].items[0]=00010203 entries[0].address=MAC entries[0].value1=0x1 "
         "entries[0].value2=0x2"},
        {"kind6_tlv",
         "kind=6 hdr.type=26 field1=1 value1=0x2 entry_count=2 entries[0]=MAC entries[1]=MAC "
         "value2=0x3"},
        // Fixed layouts: items of three bytes, the fourth left zero.
        {"kind1_fixed",
         "kind=1 hdr.type=1 field1=1 field2=2 field3=3 address=MAC field5=5 item_count=2 "
         "items[0]=01020300 items[1]=04050600"},
        {"kind2_fixed",
         "kind=2 hdr.type=2 field1=1 field2=2 field3=3 address=MAC entry_count=1 "
         "entries[0].address=MAC entries[0].field2=1 entries[0].field3=2 entries[0].value=0x7"},
        {"kind3_fixed",
         "kind=3 hdr.type=3 field1=1 field2=2 field3=3 address=MAC field5=5 item_count=1 "
         "items[0]=01020300 value=0x7 text1=" +
             std::string(16, 'x') + " text2=" + std::string(32, 'x') +
             " text3=" + std::string(32, 'x') + " text4=" + std::string(32, 'x')},
        {"kind4_fixed",
         "kind=4 hdr.type=4 address=MAC entry_count=1 entries[0].address=MAC "
         "entries[0].item_count=1 entries[0].items[0]=01020304"},
        {"kind5_fixed",
         "kind=5 hdr.type=5 value=0x1 entry_count=0x1 entries[0].field1=1 "
         "entries[0].radio_count=1 entries[0].neighbor_count=1 entries[0].address=MAC "
         "entries[0].value1=0x2 entries[0].value2=0x3 entries[0].radios[0]=01020300 "
         "entries[0].neighbors[0].address=MAC entries[0].neighbors[0].item_count=1 "
         "entries[0].neighbors[0].items[0]=01020304"},
        {"kind6_fixed",
         "kind=6 hdr.type=6 field1=1 value1=0x2 entry_count=1 entries[0]=MAC value2=0x3"},
        {"type15_subtype2_flag",
         "kind=15 hdr.type=15 hdr.flag=1 subtype=0x2 value=0x5 address=MAC"},
        {"type15_subtype3", "kind=15 hdr.type=15 subtype=0x3 value=0x5 address=MAC"},
        {"type16", "kind=16 hdr.type=16 count=2 address=MAC groups[0]=010203 groups[1]=040506"},
    };
}

// The seeds of fuzz/corpus/list, as list_read() gives them.
std::map<std::string, std::string> list_seeds_expected() {
    // 80 entries of 181 bytes (names AP-0 to AP-9) and 182 bytes: the close of entry 65 starts
    // at byte 11,997 of the walk and ends it past 12,000, before entry 66 begins.
    std::string long_list = "count=0x42";
    for (size_t i = 0; i <= 65; ++i) {
        long_list += list_entry(i, 2, "AP-" + std::to_string(i));
    }
    return {
        {"list_empty", "count=0"},
        {"list_two_entries", "count=0x2" + list_entry(0, 0, "AP-1") + list_entry(1, 2, "AP-2")},
        {"list_no_terminator", "count=0x1" + list_entry(0, 1, "AP-1")},
        // The second entry's fields are stored, but without its close it is not counted.
        {"list_unclosed_entry", "count=0x1" + list_entry(0, 1, "AP-1") + list_entry(1, 1, "AP-1")},
        {"list_long", long_list},
    };
}

// A zeroed record, decoded from exactly the datagram's bytes (a read past them is caught).
fields decoded_alone(const bytes &datagram) {
    static nbcp_msg *msg = new nbcp_msg();
    const bytes copy = datagram;
    nbcp_decode(copy.data(), copy.size(), msg);
    fields got = describe(*msg);
    size_t record = sizeof(nbcp_hdr);
    on_record(*msg, [&](const auto &r) { record = sizeof r; });
    memset(static_cast<void *>(msg), 0, offsetof(nbcp_msg, m) + record);
    return got;
}

// The reader's array as `tarn show` holds it (67 entries), and the count it returned.
fields list_read(const bytes &reply) {
    constexpr size_t CAPACITY = 67;
    const bytes copy = reply;
    std::vector<ap_info> entries(CAPACITY);
    field_list f;
    f.put("count", uint32_t(nbcp_list_read(copy.data(), copy.size(), entries.data(), CAPACITY)));
    for (size_t i = 0; i < CAPACITY; ++i) {
        f.put(at("entries", i), entries[i]);
    }
    return f.got;
}

// A datagram or list reply written element by element after its header; an element's length
// field need not match its value.
struct tlv {
    bytes b;
    tlv &el(uint16_t code, const bytes &value, int len = -1) {
        const auto n = static_cast<uint16_t>(len < 0 ? value.size() : size_t(len));
        b.insert(b.end(), {uint8_t(code >> 8), uint8_t(code), uint8_t(n >> 8), uint8_t(n)});
        b.insert(b.end(), value.begin(), value.end());
        return *this;
    }
    tlv &u8(uint16_t code, uint8_t v) { return el(code, {v}); }
    tlv &u32(uint16_t code, uint32_t v) {
        return el(code, {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
    }
    tlv &str(uint16_t code, const std::string &s) { return el(code, bytes(s.begin(), s.end())); }
    tlv &end() {
        b.insert(b.end(), {0, 0});
        return *this;
    }
};

tlv datagram(uint8_t type) {
    return {{0, 0, 0, type, 0, 0, 0, 0, 0, 0}};
}
tlv list_reply() {
    return {{0, 0, 0, 0, 51, 0, 0, 0}};
}

// A list of count entries whose addresses number them from 10.0.0.0.
bytes numbered_list(uint32_t count) {
    bytes out(NBCP_LIST_MAX, 0);
    local_msg_hdr hdr{};
    uint32_t off = nbcp_list_put(out.data(), nullptr, &hdr, NBCP_LIST_PIECE_HEADER);
    for (uint32_t i = 0; i < count; ++i) {
        ap_info ap{};
        ap.ip = 0x0A000000 + i;
        off += nbcp_list_put(out.data() + off, &ap, nullptr, NBCP_LIST_PIECE_ENTRY);
    }
    off += nbcp_list_put(out.data() + off, nullptr, nullptr, NBCP_LIST_PIECE_END);
    out.resize(off);
    return out;
}

struct built_row {
    std::string name;
    fields (*decode)(const bytes &);
    bytes input;
    std::string expected;
};

// Answers and lists whose lengths lie or whose texts and radios are at their limits and past.
std::vector<built_row> hostile_rows() {
    const std::string ndsp = "kind=11 hdr.type=11 ";
    // Texts at their fields' capacity less one (name 31, version 15, tenant 63), and one more,
    // which is cut there; the element after them is read.
    auto texts = [](size_t extra) {
        return datagram(11)
            .str(142, std::string(31 + extra, 'n'))
            .str(141, std::string(15 + extra, 'v'))
            .str(154, std::string(63 + extra, 't'))
            .u8(135, 7)
            .end()
            .b;
    };
    const std::string texts_kept = ndsp + "mode=7 info.name=" + std::string(31, 'n') +
                                   " info.version=" + std::string(15, 'v') +
                                   " info.tenantId=" + std::string(63, 't');
    std::string first_67 = "count=0x43";
    for (uint8_t i = 0; i < 67; ++i) {
        first_67 += " " + at("entries", i) + ".ip=0xa0000" + hex(&i, 1);
    }
    std::vector<built_row> rows = {
        {"texts that fit", &decoded_alone, texts(0), texts_kept},
        {"texts one too long", &decoded_alone, texts(1), texts_kept},
        {"string longer than the datagram", &decoded_alone,
         datagram(11).el(142, {'a', 'b'}, 9000).b, ndsp + "info.name=ab"},
        {"fixed-width elements ignore their length field", &decoded_alone,
         datagram(11).el(135, {3}, 4).el(136, {0, 0, 1, 2}, 1).end().b, ndsp + "mode=3 ip=0x102"},
        {"fewer radios than promised run on to the walk limit", &decoded_alone,
         datagram(11).u8(143, 2).u8(145, 1).u8(144, 0).end().u8(135, 3).b,
         ndsp + "info.radiocnt=2 info.radio[0].radioid=1"},
        // The client's 67 entries: a list of 67 fills them, one of 68 stops at them.
        {"count at the capacity", &list_read, numbered_list(67), first_67},
        {"count one past the capacity", &list_read, numbered_list(68), first_67},
    };
    // Four radios, whole or only id and channel, are all kept; of five, four are kept, the
    // count is stored and what follows is read: in an answer, and in a list entry followed by
    // an unknown element and a second entry. Codes in the order of radios(), then the close.
    const uint16_t answer_codes[] = {145, 146, 147, 148, 155, 144};
    const uint16_t list_codes[] = {13, 14, 15, 16, 23, 12};
    for (uint8_t count : {4, 5}) {
        for (int fields_sent : {5, 2}) {
            const std::string name =
                std::to_string(count) + " radios of " + std::to_string(fields_sent) + " fields";
            tlv answer = datagram(11).u8(135, 2).str(142, "before").u8(143, count);
            tlv list = list_reply().u32(6, 1).u8(11, count);
            for (uint8_t i = 0; i < count; ++i) {
                for (int k = 0; k < fields_sent; ++k) {
                    answer.u8(answer_codes[k], uint8_t(10 * i + k));
                    list.u8(list_codes[k], uint8_t(10 * i + k));
                }
                answer.u8(answer_codes[5], 0);
                list.u8(list_codes[5], 0);
            }
            const std::string radiocnt = "radiocnt=" + std::to_string(count);
            rows.push_back({name + " in an answer", &decoded_alone, answer.str(141, "v2").end().b,
                            ndsp + "mode=2 info.name=before info.version=v2 info." + radiocnt +
                                radios("info.radio", count, fields_sent)});
            rows.push_back({name + " in a list entry", &list_read,
                            list.el(99, bytes(300, 0xEE)).u8(60, 0).u32(6, 2).u8(60, 0).end().b,
                            "count=0x2 entries[0].ip=0x1 entries[0]." + radiocnt +
                                radios("entries[0].radio", count, fields_sent) +
                                " entries[1].ip=0x2"});
        }
    }
    return rows;
}

// Each type walks its body up to its own count of consumed bytes: an element that starts one
// byte before that count is read, one that starts at it is not. An unknown element fills the
// body up to it.
std::vector<built_row> walk_limit_rows() {
    const struct {
        uint8_t type;
        uint32_t limit;
        uint16_t code;  // a field of the record's head
        uint16_t width;
        std::string read;  // the fields it gives, after the kind and the header
    } walks[] = {
        {10, 1008, NDRP_MODE, 1, "kind=10 hdr.type=10 mode=90"},
        {11, 1008, NDSP_MODE, 1, "kind=11 hdr.type=11 mode=90"},
        {21, 1008, 15, 1, "kind=1 hdr.type=21 field1=90"},
        {22, 65535, 31, 1, "kind=2 hdr.type=22 field1=90"},
        {23, 1008, 51, 1, "kind=3 hdr.type=23 field1=90"},
        {24, 1008, 70, 6, "kind=4 hdr.type=24 address=5a5a5a5a5a5a"},
        {25, 2008, 89, 4, "kind=5 hdr.type=25 value=0x5a5a5a5a"},
        {26, 1008, 81, 1, "kind=6 hdr.type=26 field1=90"},
    };
    std::vector<built_row> rows;
    for (const auto &w : walks) {
        for (uint32_t start : {w.limit - 1, w.limit}) {
            const std::string unread = w.read.substr(0, w.read.rfind(' '));
            rows.push_back(
                {"type " + std::to_string(w.type) + ", element at " + std::to_string(start),
                 &decoded_alone,
                 datagram(w.type)
                     .el(0xFFFF, bytes(start - NBCP_TL_LEN, 0xEE))
                     .el(w.code, bytes(w.width, 0x5A))
                     .end()
                     .b,
                 start < w.limit ? w.read : unread});
        }
    }
    return rows;
}

// The fuzz corpora of this source tree.
const std::string CORPUS =
    std::string(__FILE__).substr(0, std::string(__FILE__).rfind("/tests/unit/")) + "/fuzz/corpus/";

TEST(NbcpGolden, SeedsGiveTheFieldsTheirBytesCarry) {
    for (const auto &[target, decode, rows] :
         {std::tuple{"parse", &decoded_alone, parse_seeds_expected()},
          std::tuple{"list", &list_read, list_seeds_expected()}}) {
        for (const auto &[name, expected] : rows) {
            std::ifstream in(CORPUS + target + "/" + name, std::ios::binary);
            const bytes seed(std::istreambuf_iterator<char>(in), {});
            ASSERT_FALSE(seed.empty()) << "no seed " << target << "/" << name;
            EXPECT_EQ(differences(decode(seed), expect(expected)), "") << target << "/" << name;
        }
    }
}

TEST(NbcpGolden, HostileDatagramsAndWalkLimitsGiveTheFieldsTheirBytesCarry) {
    for (const auto &rows : {hostile_rows(), walk_limit_rows()}) {
        for (const built_row &row : rows) {
            EXPECT_EQ(differences(row.decode(row.input), expect(row.expected)), "") << row.name;
        }
    }
}

// Random datagrams of every type through one decode area, which clears only what the previous
// datagram wrote: each leaves the fields it gives when decoded alone.
TEST(NbcpGolden, ReusedAreaGivesTheFieldsOfADecodeAlone) {
    const std::vector<bytes> datagrams = random_datagrams();
    auto area = std::make_unique<nbcp_decode_area>();
    size_t differing = 0;
    for (size_t i = 0; i < datagrams.size() && differing < 3; ++i) {
        const bytes copy = datagrams[i];
        testing::internal::CaptureStdout();
        area->parse(copy.data(), copy.size());
        testing::internal::GetCapturedStdout();
        std::string diff = differences(describe(area->msg), decoded_alone(copy));
        if (!diff.empty()) {
            ADD_FAILURE() << "datagram " << i << " (" << hex(copy.data(), copy.size()) << "):\n"
                          << diff;
            ++differing;
        }
    }
}
}  // namespace
