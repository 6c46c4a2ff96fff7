// The decoder's records field by field: each seed of the fuzz corpora against the fields its
// bytes carry by the formats, and a seeded stream of random datagrams of every type, decoded in
// one reused area as the receive thread does, against the same datagrams decoded alone. A
// failure names the seed or the datagram, and the field.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/recv_area.h"
#include "proto/nbcp.h"

namespace {

using bytes = std::vector<uint8_t>;

std::string hex(const uint8_t *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

// splitmix64: the same stream on every platform and library.
class random_bytes {
  public:
    explicit random_bytes(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        uint64_t z = (state_ += 0x9e3779b97f4a7c15);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }
    uint8_t byte() { return static_cast<uint8_t>(next()); }
    // Mostly small: counts and lengths that keep a list walk inside its datagram.
    uint8_t small_byte() { return below(4) == 0 ? byte() : static_cast<uint8_t>(below(7)); }

  private:
    uint64_t state_;
};

// The non-zero fields of a record as "name=value": numbers in decimal (u16 and u32 in hex),
// MACs and IPv6 addresses as text, strings up to their field's end, item bytes in hex.
class fields {
  public:
    using list = std::map<std::string, std::string>;

    void num(const std::string &name, uint32_t v, bool wide = false) {
        if (v != 0) {
            char text[16];
            snprintf(text, sizeof text, wide ? "0x%x" : "%u", v);
            got_[name] = text;
        }
    }
    void wide(const std::string &name, uint32_t v) { num(name, v, true); }
    void mac(const std::string &name, const mac_addr &m) {
        if (m != mac_addr{}) {
            char text[18];
            snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3],
                     m[4], m[5]);
            got_[name] = text;
        }
    }
    void raw(const std::string &name, const uint8_t *p, size_t n) {
        if (std::any_of(p, p + n, [](uint8_t b) { return b != 0; })) {
            got_[name] = hex(p, n);
        }
    }
    // A string field up to its NUL; bytes after the NUL (a clearing that missed them) show.
    void text(const std::string &name, const char *p, size_t capacity) {
        size_t n = strnlen(p, capacity);
        bool after = std::any_of(p + n, p + capacity, [](char c) { return c != 0; });
        if (n > 0 || after) {
            got_[name] = std::string(p, n) + (after ? " (bytes after the end)" : "");
        }
    }
    const list &got() const { return got_; }

  private:
    list got_;
};

// Most records are mostly zero: their zero entries are passed over without naming each field.
template <typename T>
bool all_zero(const T &value) {
    const auto *p = reinterpret_cast<const uint8_t *>(&value);
    return std::all_of(p, p + sizeof value, [](uint8_t b) { return b == 0; });
}

std::string at(const std::string &name, size_t i) {
    return name + "[" + std::to_string(i) + "]";
}

void describe(fields &f, const nbcp_hdr &h) {
    f.num("hdr.flag", h.flag);
    f.num("hdr.type", h.type);
    f.wide("hdr.arg1", h.arg1);
    f.wide("hdr.arg2", h.arg2);
    f.wide("hdr.arg3", h.arg3);
}

void describe(fields &f, const std::string &p, const ap_info &info) {
    f.wide(p + "ip", info.ip);
    f.raw(p + "ip6", info.ip6.data(), info.ip6.size());
    f.wide(p + "qv_ip", info.qv_ip);
    f.mac(p + "mac", info.mac);
    f.text(p + "tenantId", info.tenantId, sizeof info.tenantId);
    f.num(p + "state", info.state);
    f.text(p + "version", info.version, sizeof info.version);
    f.text(p + "name", info.name, sizeof info.name);
    f.num(p + "radiocnt", info.radiocnt);
    for (size_t i = 0; i < AP_RADIO_MAX; ++i) {
        const radio_info &r = info.radio[i];
        const std::string radio = at(p + "radio", i);
        f.num(radio + ".radioid", r.radioid);
        f.num(radio + ".channel", r.channel);
        f.num(radio + ".txpower", r.txpower);
        f.num(radio + ".rssi", r.rssi);
        f.num(radio + ".bandwidth", r.bandwidth);
    }
    f.wide(p + "pvc_ip", info.pvc_ip);
    f.wide(p + "cluster_id", info.cluster_id);
    f.mac(p + "pvc_mac", info.pvc_mac);
    f.num(p + "cluster_flag", info.cluster_flag);
}

template <size_t N>
void describe_items(fields &f, const std::string &name, const nbcp_item4 (&items)[N]) {
    for (size_t i = 0; i < N; ++i) {
        f.raw(at(name, i), items[i].byte, sizeof items[i].byte);
    }
}

// The fields of the record a decode left, by the kind it stored.
fields::list describe(const nbcp_msg &msg) {
    fields f;
    f.num("kind", msg.kind);
    describe(f, msg.m.hdr);
    switch (msg.kind) {
        case NBCP_TYPE_NDRP: {
            const nbcp_ndrp &r = msg.m.ndrp;
            f.num("kind_flag", r.kind_flag);
            f.num("mode", r.mode);
            f.wide("ip", r.ip);
            f.raw("ip6", r.ip6.data(), r.ip6.size());
            f.mac("mac", r.mac);
            break;
        }
        case NBCP_TYPE_NDSP: {
            const nbcp_ndsp &r = msg.m.ndsp;
            f.num("kind_flag", r.kind_flag);
            f.num("mode", r.mode);
            f.wide("ip", r.ip);
            f.mac("mac", r.mac);
            describe(f, "info.", r.info);
            f.wide("pvc_ip", r.pvc_ip);
            f.wide("cluster_id", r.cluster_id);
            f.mac("pvc_mac", r.pvc_mac);
            f.num("cluster_flag", r.cluster_flag);
            break;
        }
        case 1: {
            const nbcp_kind1 &r = msg.m.kind1;
            f.num("field1", r.field1);
            f.num("field2", r.field2);
            f.num("field3", r.field3);
            f.mac("address", r.address);
            f.num("field5", r.field5);
            f.num("item_count", r.item_count);
            describe_items(f, "items", r.items);
            break;
        }
        case 2: {
            const nbcp_kind2 &r = msg.m.kind2;
            f.num("field1", r.field1);
            f.num("field2", r.field2);
            f.num("field3", r.field3);
            f.mac("address", r.address);
            f.num("entry_count", r.entry_count);
            for (size_t i = 0; i < NBCP_LONG_LIST_MAX; ++i) {
                const nbcp_kind2_entry &e = r.entries[i];
                if (all_zero(e)) {
                    continue;
                }
                const std::string p = at("entries", i);
                f.mac(p + ".address", e.address);
                f.num(p + ".field2", e.field2);
                f.num(p + ".field3", e.field3);
                f.wide(p + ".value", e.value);
                f.text(p + ".text", e.text, sizeof e.text);
                f.num(p + ".field6", e.field6);
            }
            break;
        }
        case 3: {
            const nbcp_kind3 &r = msg.m.kind3;
            f.num("field1", r.field1);
            f.num("field2", r.field2);
            f.num("field3", r.field3);
            f.mac("address", r.address);
            f.num("field5", r.field5);
            f.num("item_count", r.item_count);
            describe_items(f, "items", r.items);
            f.wide("value", r.value);
            f.text("text1", r.text1, sizeof r.text1);
            f.text("text2", r.text2, sizeof r.text2);
            f.text("text3", r.text3, sizeof r.text3);
            f.text("text4", r.text4, sizeof r.text4);
            break;
        }
        case 4: {
            const nbcp_kind4 &r = msg.m.kind4;
            f.mac("address", r.address);
            f.num("entry_count", r.entry_count);
            for (size_t i = 0; i < NBCP_LONG_LIST_MAX; ++i) {
                if (all_zero(r.entries[i])) {
                    continue;
                }
                const std::string p = at("entries", i);
                f.mac(p + ".address", r.entries[i].address);
                f.num(p + ".item_count", r.entries[i].item_count);
                describe_items(f, p + ".items", r.entries[i].items);
            }
            break;
        }
        case 5: {
            const nbcp_kind5 &r = msg.m.kind5;
            f.wide("value", r.value);
            f.wide("entry_count", r.entry_count);
            for (size_t i = 0; i < NBCP_LONG_LIST_MAX; ++i) {
                const nbcp_kind5_entry &e = r.entries[i];
                if (all_zero(e)) {
                    continue;
                }
                const std::string p = at("entries", i);
                f.num(p + ".field1", e.field1);
                f.num(p + ".radio_count", e.radio_count);
                f.num(p + ".neighbor_count", e.neighbor_count);
                f.mac(p + ".address", e.address);
                f.wide(p + ".value1", e.value1);
                f.wide(p + ".value2", e.value2);
                describe_items(f, p + ".radios", e.radios);
                for (size_t n = 0; n < NBCP_LONG_LIST_MAX; ++n) {
                    if (all_zero(e.neighbors[n])) {
                        continue;
                    }
                    const std::string q = at(p + ".neighbors", n);
                    f.mac(q + ".address", e.neighbors[n].address);
                    f.num(q + ".item_count", e.neighbors[n].item_count);
                    describe_items(f, q + ".items", e.neighbors[n].items);
                }
            }
            break;
        }
        case 6: {
            const nbcp_kind6 &r = msg.m.kind6;
            f.num("field1", r.field1);
            f.wide("value1", r.value1);
            f.wide("value2", r.value2);
            f.num("entry_count", r.entry_count);
            for (size_t i = 0; i < NBCP_LONG_LIST_MAX; ++i) {
                if (!all_zero(r.entries[i])) {
                    f.mac(at("entries", i), r.entries[i]);
                }
            }
            break;
        }
        case NBCP_TYPE_15: {
            const nbcp_type15 &r = msg.m.type15;
            f.wide("subtype", r.subtype);
            f.wide("value", r.value);
            f.mac("address", r.address);
            break;
        }
        case NBCP_TYPE_16: {
            const nbcp_type16 &r = msg.m.type16;
            f.num("count", r.count);
            f.mac("address", r.address);
            for (size_t i = 0; i < std::size(r.groups); ++i) {
                if (!all_zero(r.groups[i])) {
                    f.raw(at("groups", i), r.groups[i], sizeof r.groups[i]);
                }
            }
            break;
        }
        default:
            break;
    }
    return f.got();
}

// Every difference between two field lists, one line per field: "name: got X, expected Y".
std::string differences(const fields::list &got, const fields::list &expected) {
    std::string out;
    auto value = [](const fields::list &l, const std::string &name) {
        auto it = l.find(name);
        return it == l.end() ? std::string("(zero)") : it->second;
    };
    std::vector<std::string> names;
    for (const auto &l : {got, expected}) {
        for (const auto &field : l) {
            names.push_back(field.first);
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    for (const std::string &name : names) {
        if (value(got, name) != value(expected, name)) {
            out +=
                name + ": got " + value(got, name) + ", expected " + value(expected, name) + "\n";
        }
    }
    return out;
}
std::string source_dir() {
    std::string file = __FILE__;
    return file.substr(0, file.rfind("/tests/unit/"));
}

// An element whose code comes mostly from the codes the type knows, with a length that is
// mostly one of the value forms (u8, u32, mac, address, string) and a value of small bytes.
void put_element(random_bytes &rng, bytes &out, uint16_t first_code, uint16_t codes) {
    uint16_t code = rng.below(8) == 0 ? static_cast<uint16_t>(rng.below(256))
                                      : static_cast<uint16_t>(first_code + rng.below(codes));
    static const uint16_t forms[] = {1, 1, 1, 1, 4, 6, 16};
    uint16_t len = rng.below(8) == 0 ? static_cast<uint16_t>(rng.below(48))
                                     : forms[rng.below(std::size(forms))];
    out.insert(out.end(), {static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code),
                           static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)});
    for (uint16_t i = 0; i < len; ++i) {
        out.push_back(rng.small_byte());
    }
}

// The codes each type's elements are mostly drawn from: first code and count.
std::pair<uint16_t, uint16_t> code_range(uint8_t type) {
    static const std::pair<uint16_t, uint16_t> kinds[] = {{15, 11}, {31, 12}, {51, 16},
                                                          {70, 10}, {89, 22}, {81, 6}};
    if (type == NBCP_TYPE_NDRP) {
        return {128, 5};
    }
    if (type == NBCP_TYPE_NDSP) {
        return {134, 23};
    }
    uint8_t kind = type > NBCP_KIND_TLV_OFFSET ? type - NBCP_KIND_TLV_OFFSET : type;
    if (kind >= NBCP_KIND_MIN && kind <= NBCP_KIND_MAX) {
        return kinds[kind - NBCP_KIND_MIN];
    }
    return {1, 160};
}

bytes random_datagram(random_bytes &rng, uint8_t type) {
    bytes d = {rng.below(2) == 0 ? uint8_t{0} : rng.byte(), rng.byte(), rng.byte(), type};
    for (int i = 0; i < 6; ++i) {
        d.push_back(rng.byte());
    }
    switch (rng.below(4)) {
        case 0:  // fixed-layout bytes, or garbage
            for (uint32_t n = rng.below(700); n > 0; --n) {
                d.push_back(rng.small_byte());
            }
            break;
        default: {  // elements, ended by a zero type or not
            auto [first, codes] = code_range(type);
            for (uint32_t n = rng.below(120); n > 0; --n) {
                put_element(rng, d, first, codes);
            }
            if (rng.below(2) == 0) {
                d.insert(d.end(), {0, 0});
            }
        }
    }
    if (rng.below(6) == 0) {  // truncated, possibly inside the header
        d.resize(rng.below(static_cast<uint32_t>(d.size()) + 1));
    }
    return d;
}

std::vector<bytes> random_datagrams() {
    random_bytes rng(0x7461726e);
    std::vector<bytes> all;
    for (int type = 0; type < 256; ++type) {
        const nbcp_msg_type known[] = {NBCP_TYPE_NDRP, NBCP_TYPE_NDSP, NBCP_TYPE_15, NBCP_TYPE_16};
        bool parsed = (type >= 1 && type <= 6) || (type >= 21 && type <= 26) ||
                      std::find(std::begin(known), std::end(known), type) != std::end(known);
        for (int n = parsed ? 200 : 4; n > 0; --n) {
            all.push_back(random_datagram(rng, static_cast<uint8_t>(type)));
        }
    }
    return all;
}

// The seeds' MAC and IPv6 address.
const std::string MAC = "00:11:22:33:44:55";
const std::string IP6 = "fe800000000000000000000000000001";

// Expected fields, written from the formats and the values fuzz/make_corpus.py puts in each
// seed: "name=value" words (MAC and IP6 stand for the seeds' own); every field not named is zero.
fields::list expect(const std::string &named) {
    fields::list out;
    std::istringstream words(named);
    for (std::string word; words >> word;) {
        const std::string name = word.substr(0, word.find('='));
        const std::string value = word.substr(word.find('=') + 1);
        out[name] = value == "MAC" ? MAC : value == "IP6" ? IP6 : value;
    }
    return out;
}

void add(fields::list &to, const fields::list &more) {
    to.insert(more.begin(), more.end());
}

// Radio i of a seed carries 10i, 10i+1, ... in its fields, in the order given.
fields::list radios(const std::string &prefix, int count,
                    std::initializer_list<const char *> order) {
    fields::list out;
    for (int i = 0; i < count; ++i) {
        int k = 0;
        for (const char *field : order) {
            if (10 * i + k != 0) {
                out[at(prefix, size_t(i)) + "." + field] = std::to_string(10 * i + k);
            }
            ++k;
        }
    }
    return out;
}

// ndsp(radiocnt, sent) of the corpus script.
fields::list answer(int radiocnt, int sent) {
    fields::list f = expect(
        "kind=11 hdr.type=11 kind_flag=1 mode=3 ip=0xc0a8010a mac=MAC pvc_ip=0xc0a80101 "
        "cluster_id=0x2a pvc_mac=MAC cluster_flag=1 info.ip=0xc0a8010a info.ip6=IP6 "
        "info.qv_ip=0xa000001 info.mac=MAC info.tenantId=tenant-1 info.version=2.4.1.1000 "
        "info.name=AP-Lobby");
    f["info.radiocnt"] = std::to_string(radiocnt);
    if (radiocnt == 0) {
        f.erase("info.radiocnt");
    }
    add(f, radios("info.radio", std::min(sent, AP_RADIO_MAX),
                  {"radioid", "channel", "txpower", "rssi", "bandwidth"}));
    return f;
}

// list_entry(radiocnt, name) of the corpus script, as entry i of the reader's array.
fields::list list_entry(size_t i, int radiocnt, const std::string &name) {
    const std::string p = at("entries", i) + ".";
    fields::list f = {{p + "ip", "0xa000005"},      {p + "ip6", IP6},
                      {p + "qv_ip", "0xa000001"},   {p + "mac", MAC},
                      {p + "tenantId", "tenant-1"}, {p + "version", "2.4.1"},
                      {p + "name", name},           {p + "cluster_id", "0x7"},
                      {p + "pvc_mac", MAC},         {p + "cluster_flag", "1"}};
    if (radiocnt != 0) {
        f[p + "radiocnt"] = std::to_string(radiocnt);
    }
    add(f, radios(p + "radio", std::min(radiocnt, AP_RADIO_MAX),
                  {"radioid", "channel", "txpower", "rssi", "bandwidth"}));
    return f;
}

// Seeds are checked by name: a seed added to the corpus needs its row here.
std::map<std::string, fields::list> parse_seeds_expected() {
    return {
        {"ndrp_golden", expect("kind=10 hdr.type=10 ip=0xc0a8010a mac=MAC")},
        {"ndrp_mode3", expect("kind=10 hdr.type=10 mode=3 ip=0xc0a8010a mac=MAC")},
        {"ndsp_no_radio", answer(0, 0)},
        {"ndsp_four_radios", answer(4, 4)},
        {"ndsp_six_radios", answer(6, 6)},
        {"ndsp_no_terminator", answer(2, 2)},
        {"ndsp_radio_count_above_sent", answer(3, 1)},
        // The name keeps its field's 31 characters and its NUL.
        {"ndsp_long_name",
         expect("kind=11 hdr.type=11 info.name=" + std::string(31, 'n') + " info.state=2")},
        {"unknown_type_12", expect("kind=12 hdr.type=12")},
        {"kind1_tlv", expect("kind=1 hdr.type=21 field1=1 address=MAC field5=5 item_count=2 "
                             "items[0]=00010203 items[1]=0a0b0c0d")},
        {"kind2_tlv",
         expect(
             "kind=2 hdr.type=22 field1=1 address=MAC entry_count=1 entries[0].address=MAC "
             "entries[0].field2=2 entries[0].value=0x9 entries[0].text=text entries[0].field6=1")},
        {"kind3_tlv", expect("kind=3 hdr.type=23 field1=1 item_count=1 items[0]=00010203 value=0x3 "
                             "text1=a text2=b text3=c text4=d")},
        {"kind4_tlv", expect("kind=4 hdr.type=24 address=MAC entry_count=1 entries[0].address=MAC "
                             "entries[0].item_count=1 entries[0].items[0]=00010203")},
        {"kind5_tlv",
         expect("kind=5 hdr.type=25 value=0x1 entry_count=0x1 entries[0].field1=1 "
                "entries[0].radio_count=1 entries[0].radios[0]=00010203 "
                "entries[0].neighbor_count=1 entries[0].neighbors[0].address=MAC "
                "entries[0].neighbors[0].item_count=1 entries[0].neighbors[0].items[0]=00010203 "
                "entries[0].address=MAC entries[0].value1=0x1 entries[0].value2=0x2")},
        {"kind6_tlv", expect("kind=6 hdr.type=26 field1=1 value1=0x2 entry_count=2 entries[0]=MAC "
                             "entries[1]=MAC value2=0x3")},
        // Fixed layouts: items of three bytes, the fourth left zero.
        {"kind1_fixed", expect("kind=1 hdr.type=1 field1=1 field2=2 field3=3 address=MAC field5=5 "
                               "item_count=2 items[0]=01020300 items[1]=04050600")},
        {"kind2_fixed", expect("kind=2 hdr.type=2 field1=1 field2=2 field3=3 address=MAC "
                               "entry_count=1 entries[0].address=MAC entries[0].field2=1 "
                               "entries[0].field3=2 entries[0].value=0x7")},
        {"kind3_fixed", expect("kind=3 hdr.type=3 field1=1 field2=2 field3=3 address=MAC field5=5 "
                               "item_count=1 items[0]=01020300 value=0x7 text1=" +
                               std::string(16, 'x') + " text2=" + std::string(32, 'x') + " text3=" +
                               std::string(32, 'x') + " text4=" + std::string(32, 'x'))},
        {"kind4_fixed", expect("kind=4 hdr.type=4 address=MAC entry_count=1 entries[0].address=MAC "
                               "entries[0].item_count=1 entries[0].items[0]=01020304")},
        {"kind5_fixed",
         expect("kind=5 hdr.type=5 value=0x1 entry_count=0x1 entries[0].field1=1 "
                "entries[0].radio_count=1 entries[0].neighbor_count=1 entries[0].address=MAC "
                "entries[0].value1=0x2 entries[0].value2=0x3 entries[0].radios[0]=01020300 "
                "entries[0].neighbors[0].address=MAC entries[0].neighbors[0].item_count=1 "
                "entries[0].neighbors[0].items[0]=01020304")},
        {"kind6_fixed",
         expect("kind=6 hdr.type=6 field1=1 value1=0x2 entry_count=1 entries[0]=MAC value2=0x3")},
        {"type15_subtype2_flag",
         expect("kind=15 hdr.type=15 hdr.flag=1 subtype=0x2 value=0x5 address=MAC")},
        {"type15_subtype3", expect("kind=15 hdr.type=15 subtype=0x3 value=0x5 address=MAC")},
        {"type16",
         expect("kind=16 hdr.type=16 count=2 address=MAC groups[0]=010203 groups[1]=040506")},
    };
}

// The reader's array as `tarn show` holds it (67 entries), and the count it returned.
std::map<std::string, fields::list> list_seeds_expected() {
    auto entries = [](const std::string &count,
                      std::initializer_list<std::pair<int, const char *>> radios_and_names) {
        fields::list f = {{"count", count}};
        size_t i = 0;
        for (const auto &e : radios_and_names) {
            add(f, list_entry(i++, e.first, e.second));
        }
        return f;
    };
    // 80 entries of 181 bytes (names AP-0 to AP-9) and 182 bytes: the close of entry 65 starts
    // at byte 11,997 of the walk and ends it past 12,000, before entry 66 begins.
    fields::list long_list = {{"count", "66"}};
    for (size_t i = 0; i <= 65; ++i) {
        add(long_list, list_entry(i, 2, "AP-" + std::to_string(i)));
    }
    return {
        {"list_empty", {}},
        {"list_two_entries", entries("2", {{0, "AP-1"}, {2, "AP-2"}})},
        {"list_four_radios", entries("1", {{4, "AP-1"}})},
        {"list_no_terminator", entries("1", {{1, "AP-1"}})},
        {"list_six_radios_entry", entries("1", {{6, "AP-1"}})},
        // The second entry's fields are stored, but without its close it is not counted.
        {"list_unclosed_entry", entries("1", {{1, "AP-1"}, {1, "AP-1"}})},
        {"list_long", long_list},
    };
}

// The bytes of a seed of fuzz/corpus/<target>, or none when there is no such file.
bytes seed_bytes(const std::string &target, const std::string &name) {
    std::ifstream in(source_dir() + "/fuzz/corpus/" + target + "/" + name, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The bytes of the union member that a record of this kind fills (the header for unknown kinds).
size_t record_bytes(uint8_t kind) {
    static const std::pair<uint8_t, size_t> sizes[] = {
        {1, sizeof(nbcp_kind1)},   {2, sizeof(nbcp_kind2)}, {3, sizeof(nbcp_kind3)},
        {4, sizeof(nbcp_kind4)},   {5, sizeof(nbcp_kind5)}, {6, sizeof(nbcp_kind6)},
        {10, sizeof(nbcp_ndrp)},   {11, sizeof(nbcp_ndsp)}, {15, sizeof(nbcp_type15)},
        {16, sizeof(nbcp_type16)},
    };
    for (const auto &s : sizes) {
        if (s.first == kind) {
            return s.second;
        }
    }
    return sizeof(nbcp_hdr);
}

// A zeroed record, decoded from exactly the datagram's bytes (a read past them is caught).
fields::list decoded_alone(const bytes &datagram) {
    static nbcp_msg *msg = new nbcp_msg();
    const bytes copy = datagram;
    nbcp_decode(copy.data(), copy.size(), msg);
    fields::list got = describe(*msg);
    memset(static_cast<void *>(msg), 0, offsetof(nbcp_msg, m) + record_bytes(msg->kind));
    return got;
}

TEST(NbcpGolden, ParseSeedsGiveTheFieldsTheirBytesCarry) {
    for (const auto &[name, expected] : parse_seeds_expected()) {
        const bytes seed = seed_bytes("parse", name);
        ASSERT_FALSE(seed.empty()) << "no seed " << name;
        EXPECT_EQ(differences(decoded_alone(seed), expected), "") << name;
    }
}

TEST(NbcpGolden, ListSeedsGiveTheEntriesTheirBytesCarry) {
    constexpr size_t CAPACITY = 67;
    for (const auto &[name, expected] : list_seeds_expected()) {
        const bytes seed = seed_bytes("list", name);
        ASSERT_FALSE(seed.empty()) << "no seed " << name;
        std::vector<ap_info> entries(CAPACITY);
        fields f;
        f.num("count",
              uint32_t(nbcp_list_read(seed.data(), seed.size(), entries.data(), CAPACITY)));
        for (size_t i = 0; i < CAPACITY; ++i) {
            describe(f, at("entries", i) + ".", entries[i]);
        }
        EXPECT_EQ(differences(f.got(), expected), "") << name;
    }
}

// Random datagrams of every type in a shuffled order through one decode area, which clears
// only what the previous datagram wrote: each leaves the fields it gives when decoded alone.
TEST(NbcpGolden, ReusedAreaGivesTheFieldsOfADecodeAlone) {
    std::vector<bytes> datagrams = random_datagrams();
    random_bytes rng(0x72657573);
    for (size_t i = datagrams.size() - 1; i > 0; --i) {
        std::swap(datagrams[i], datagrams[rng.below(uint32_t(i + 1))]);
    }
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
