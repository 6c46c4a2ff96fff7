// The nbcp codec: golden bytes of the three built messages, and the answer parser and the list
// reader against hostile lengths. test_nbcp_golden holds the decode of every type field by
// field, and the fuzz targets the round trips of answers and lists.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/local_msg.h"
#include "proto/nbcp.h"
#include "proto/nbcp_codes.h"
#include "proto/nbcp_wire.h"

namespace {

using bytes = std::vector<uint8_t>;

// An answer datagram or a neighbor list (op 51, little-endian host), written element by
// element after its header.
class tlv_bytes {
  public:
    static tlv_bytes answer() { return tlv_bytes({0, 0, 0, 11, 0, 0, 0, 0, 0, 0}); }
    static tlv_bytes list_reply() { return tlv_bytes({0, 0, 0, 0, 51, 0, 0, 0}); }

    tlv_bytes &raw(const bytes &v) {
        b_.insert(b_.end(), v.begin(), v.end());
        return *this;
    }
    tlv_bytes &be16(uint16_t v) { return raw({uint8_t(v >> 8), uint8_t(v)}); }
    // An element whose length field need not match its value.
    tlv_bytes &el_len(uint16_t type, uint16_t len, const bytes &value) {
        be16(type);
        be16(len);
        return raw(value);
    }
    tlv_bytes &el(uint16_t type, const bytes &v) { return el_len(type, uint16_t(v.size()), v); }
    tlv_bytes &u8(uint16_t type, uint8_t v) { return el(type, {v}); }
    tlv_bytes &u32(uint16_t type, uint32_t v) {
        return el(type, {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
    }
    tlv_bytes &str(uint16_t type, const std::string &s) {
        return el(type, bytes(s.begin(), s.end()));
    }
    tlv_bytes &filler(uint16_t type, uint16_t len) { return el(type, bytes(len, 0xEE)); }
    tlv_bytes &end() { return be16(0); }
    const bytes &get() const { return b_; }

  private:
    explicit tlv_bytes(bytes header) : b_(std::move(header)) {}
    bytes b_;
};

bytes hex(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    bytes out;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return out;
}

// A heap copy of exactly the input's size: a read past its end fails the sanitizer build.
std::unique_ptr<uint8_t[]> exact_copy(const bytes &input) {
    std::unique_ptr<uint8_t[]> copy(new uint8_t[input.size()]);
    std::copy(input.begin(), input.end(), copy.get());
    return copy;
}

// Room for the longest output plus a canary region that must stay untouched.
struct out_buffer {
    bytes b = bytes(NBCP_LIST_MAX + 64, 0xCC);
    // The n bytes written are the golden ones, and nothing was written after them.
    void expect(size_t n, const std::string &golden_hex) const {
        const bytes golden = hex(golden_hex);
        ASSERT_EQ(n, golden.size());
        EXPECT_EQ(bytes(b.begin(), b.begin() + n), golden);
        EXPECT_TRUE(std::all_of(b.begin() + n, b.end(), [](uint8_t x) { return x == 0xCC; }));
    }
};

const mac_addr MAC_A = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const mac_addr MAC_B = {0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};

ap_info one_radio_ap() {
    ap_info info{};
    info.ip = 0xC0A8010A;
    info.ip6 = {0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
    info.qv_ip = 0x0A000064;
    std::strcpy(info.tenantId, "t");
    std::strcpy(info.version, "1.2");
    std::strcpy(info.name, "ap");
    info.radiocnt = 1;
    info.radio[0] = {0, 36, 20, 40, 80};
    return info;
}

TEST(NbcpBuild, Probe) {
    nbcp_ndrp rec{};
    rec.ip = 0xC0A8010A;
    rec.mac = MAC_A;
    out_buffer out;
    out.expect(
        nbcp_build_ndrp(out.b.data(), &rec),
        "00 00 00 0A 00 00 00 00 00 00  00 80 00 01 00  00 81 00 01 00  00 82 00 04 C0 A8 01 0A"
        "00 84 00 10 00000000 00000000 00000000 00000000  00 83 00 06 00 11 22 33 44 55  00 00");
}

TEST(NbcpBuild, Answer) {
    nbcp_ndsp rec{};
    rec.kind_flag = 1;
    rec.mode = 3;
    rec.ip = 0xC0A8010A;
    rec.mac = MAC_A;
    rec.pvc_ip = 0x0A000001;
    rec.cluster_id = 7;
    rec.pvc_mac = MAC_B;
    rec.cluster_flag = 1;
    rec.info = one_radio_ap();
    out_buffer out;
    out.expect(nbcp_build_ndsp(out.b.data(), &rec),
               "00 00 00 0B 00 00 00 00 00 00"
               "00 86 00 01 01  00 87 00 01 03  00 88 00 04 C0 A8 01 0A"
               "00 89 00 06 00 11 22 33 44 55  00 96 00 04 0A 00 00 01"
               "00 97 00 04 00 00 00 07  00 98 00 06 00 AA BB CC DD EE  00 99 00 01 01"
               "00 8A 00 04 C0 A8 01 0A  00 9C 00 10 FD000000 00000000 00000000 00000001"
               "00 95 00 04 0A 00 00 64  00 8B 00 06 00 00 00 00 00 00  00 8C 00 01 00"
               "00 9A 00 01 74  00 8D 00 03 31 2E 32  00 8E 00 02 61 70  00 8F 00 01 01"
               "00 91 00 01 00  00 92 00 01 24  00 93 00 01 14  00 94 00 01 28"
               "00 9B 00 01 50  00 90 00 01 00  00 00");
    // The decoder takes the answer's head in one piece only where it lies as the table says.
    size_t at = NBCP_HDR_LEN;
    for (const nbcp_fixed &element : NDSP_FIXED_HEAD) {
        EXPECT_EQ(out.b[at] << 8 | out.b[at + 1], element.code) << "at byte " << at;
        EXPECT_EQ(out.b[at + 2] << 8 | out.b[at + 3], element.width) << "at byte " << at;
        at += NBCP_TL_LEN + element.width;
    }
}

TEST(NbcpBuild, NeighborList) {
    ap_info info = one_radio_ap();
    info.mac = MAC_A;
    info.state = 3;
    info.pvc_ip = 0x0A000001;
    info.cluster_id = 7;
    info.pvc_mac = MAC_B;
    info.cluster_flag = 1;
    local_msg_hdr hdr{};
    hdr.op = TARN_MSG_DUMP_NGBR;  // replaced by the reply code
    out_buffer out;
    uint32_t n = nbcp_list_put(out.b.data(), nullptr, &hdr, NBCP_LIST_PIECE_HEADER);
    n += nbcp_list_put(out.b.data() + n, &info, nullptr, NBCP_LIST_PIECE_ENTRY);
    n += nbcp_list_put(out.b.data() + n, nullptr, nullptr, NBCP_LIST_PIECE_END);
    out.expect(n,
               "00 00 00 00 33 00 00 00"
               "00 06 00 04 C0 A8 01 0A  00 18 00 10 FD000000 00000000 00000000 00000001"
               "00 11 00 04 0A 00 00 64  00 07 00 06 00 11 22 33 44 55  00 08 00 01 03"
               "00 16 00 01 74  00 09 00 03 31 2E 32  00 0A 00 02 61 70"
               "00 12 00 04 0A 00 00 01  00 13 00 04 00 00 00 07"
               "00 14 00 06 00 AA BB CC DD EE  00 15 00 01 01  00 0B 00 01 01"
               "00 0D 00 01 00  00 0E 00 01 24  00 0F 00 01 14  00 10 00 01 28"
               "00 17 00 01 50  00 0C 00 01 00  00 3C 00 01 00  00 00");
}

// One radio writer serves the answer and the list entry: the count goes out as stored, at most
// four radios follow, and the reader gets both back. At four radios and full strings each
// message is as long as its stated maximum, and a larger count adds nothing.
TEST(NbcpBuild, RadioCountAtAndPastFour) {
    for (uint8_t count : {0, 3, 4, 5, 255}) {
        SCOPED_TRACE("radiocnt " + std::to_string(count));
        ap_info info = one_radio_ap();
        std::memset(info.tenantId, 't', sizeof info.tenantId - 1);
        std::memset(info.version, 'v', sizeof info.version - 1);
        std::memset(info.name, 'n', sizeof info.name - 1);
        info.radiocnt = count;
        for (uint8_t i = 0; i < AP_RADIO_MAX; ++i) {
            info.radio[i] = {i, uint8_t(36 + i), uint8_t(20 + i), uint8_t(40 + i), 80};
        }
        const uint32_t sent = std::min<uint32_t>(count, AP_RADIO_MAX);
        const uint32_t strings = NBCP_NDSP_MAX - NBCP_NDSP_BASE_LEN - AP_RADIO_MAX * NBCP_RADIO_LEN;

        out_buffer answer_out;
        nbcp_ndsp rec{};
        rec.info = info;
        const uint32_t answer_len = nbcp_build_ndsp(answer_out.b.data(), &rec);
        EXPECT_EQ(answer_len, NBCP_NDSP_BASE_LEN + strings + sent * NBCP_RADIO_LEN);
        EXPECT_LE(answer_len, NBCP_NDSP_MAX);
        auto msg = std::make_unique<nbcp_msg>();
        ASSERT_EQ(nbcp_decode(answer_out.b.data(), answer_len, msg.get()), 1);

        out_buffer list_out;
        local_msg_hdr hdr{};
        uint32_t list_len = nbcp_list_put(list_out.b.data(), nullptr, &hdr, NBCP_LIST_PIECE_HEADER);
        const uint32_t entry_len =
            nbcp_list_put(list_out.b.data() + list_len, &info, nullptr, NBCP_LIST_PIECE_ENTRY);
        EXPECT_EQ(entry_len, NBCP_LIST_ENTRY_BASE_LEN + strings + sent * NBCP_RADIO_LEN);
        EXPECT_LE(entry_len, NBCP_LIST_ENTRY_MAX);
        list_len += entry_len;
        list_len +=
            nbcp_list_put(list_out.b.data() + list_len, nullptr, nullptr, NBCP_LIST_PIECE_END);
        ap_info listed[1] = {};
        ASSERT_EQ(nbcp_list_read(list_out.b.data(), list_len, listed, 1), 1u);

        for (const ap_info &back : {msg->m.ndsp.info, listed[0]}) {
            EXPECT_EQ(back.radiocnt, count);
            for (uint32_t i = 0; i < AP_RADIO_MAX; ++i) {
                const radio_info want = i < sent ? info.radio[i] : radio_info{};
                EXPECT_EQ(std::memcmp(&back.radio[i], &want, sizeof want), 0) << "radio " << i;
            }
        }
    }
}

// Each type walks its body up to its own count of consumed bytes: an element that starts one
// byte before that count is read, one that starts at it is not.
TEST(NbcpParse, WalkLimitOfEachType) {
    struct row {
        uint8_t type;
        uint32_t limit;
        uint16_t code;   // a field of the record's head
        uint16_t width;  // of its value
        uint8_t (*first_byte)(const nbcp_msg &);
    };
    const row rows[] = {
        {10, 1008, NDRP_MODE, 1, [](const nbcp_msg &m) { return m.m.ndrp.mode; }},
        {11, 1008, NDSP_MODE, 1, [](const nbcp_msg &m) { return m.m.ndsp.mode; }},
        {21, 1008, 15, 1, [](const nbcp_msg &m) { return m.m.kind1.field1; }},
        {22, 65535, 31, 1, [](const nbcp_msg &m) { return m.m.kind2.field1; }},
        {23, 1008, 51, 1, [](const nbcp_msg &m) { return m.m.kind3.field1; }},
        {24, 1008, 70, 6, [](const nbcp_msg &m) { return m.m.kind4.address[0]; }},
        {25, 2008, 89, 4, [](const nbcp_msg &m) { return uint8_t(m.m.kind5.value >> 24); }},
        {26, 1008, 81, 1, [](const nbcp_msg &m) { return m.m.kind6.field1; }},
    };
    auto msg = std::make_unique<nbcp_msg>();
    for (const row &r : rows) {
        for (uint32_t start : {r.limit - 1, r.limit}) {
            SCOPED_TRACE("type " + std::to_string(r.type) + ", element at " +
                         std::to_string(start));
            bytes datagram = {0, 0, 0, r.type, 0, 0, 0, 0, 0, 0};
            // An unknown element that ends where the known one starts.
            const uint32_t filler = start - NBCP_TL_LEN;
            datagram.insert(datagram.end(), {0xFF, 0xFF, uint8_t(filler >> 8), uint8_t(filler)});
            datagram.resize(datagram.size() + filler, 0xEE);
            datagram.insert(datagram.end(),
                            {uint8_t(r.code >> 8), uint8_t(r.code), 0, uint8_t(r.width)});
            datagram.resize(datagram.size() + r.width, 0x5A);
            datagram.insert(datagram.end(), {0, 0});
            const std::unique_ptr<uint8_t[]> copy = exact_copy(datagram);
            nbcp_msg_reset(msg.get(), copy.get(), datagram.size());
            ASSERT_EQ(nbcp_decode(copy.get(), datagram.size(), msg.get()), 1);
            EXPECT_EQ(r.first_byte(*msg), start < r.limit ? 0x5A : 0);
        }
    }
}

// The fields after the four radio slots, which no answer or list entry here carries.
bool after_radios_clear(const ap_info &info) {
    return info.pvc_ip == 0 && info.cluster_id == 0 && info.pvc_mac == mac_addr{} &&
           info.cluster_flag == 0;
}

std::string ndsp_summary(const nbcp_msg &m) {
    const nbcp_ndsp &r = m.m.ndsp;
    std::string s =
        "mode " + std::to_string(r.mode) + " ip " + std::to_string(r.ip) + " state " +
        std::to_string(r.info.state) + " name [" + r.info.name + "] version [" + r.info.version +
        "] radios " + std::to_string(r.info.radiocnt) +
        (r.info.tenantId[0] != 0 ? " tenant [" + std::string(r.info.tenantId) + "]" : "");
    for (const radio_info &radio : r.info.radio) {
        s += " " + std::to_string(radio.radioid) + "/" + std::to_string(radio.channel);
    }
    return s + (after_radios_clear(r.info) ? "" : " (written past the radios)");
}

// Whole radios, in the order the builder writes them, or only id and channel.
tlv_bytes answer_with_radios(uint8_t count, bool whole) {
    tlv_bytes t = tlv_bytes::answer();
    t.u8(135, 2).str(142, "before").u8(143, count);
    for (uint8_t i = 1; i <= count; ++i) {
        t.u8(145, i).u8(146, 30 + i);
        if (whole) {
            t.u8(147, 20).u8(148, 40).u8(155, 80);
        }
        t.u8(144, 0);
    }
    return t.str(141, "v2");
}

// Every datagram sits in a heap block of exactly its size, most of them cut short or lying
// about their lengths; the answer parser keeps its fields in step and never reads past the end.
TEST(NbcpParse, HostileAnswers) {
    const std::string none = " 0/0 0/0 0/0 0/0";
    // Texts at their fields' capacity less one (name 31, version 15, tenant 63), and one more,
    // which is cut there; the element after them is read.
    auto texts = [](size_t extra) {
        return tlv_bytes::answer()
            .str(142, std::string(31 + extra, 'n'))
            .str(141, std::string(15 + extra, 'v'))
            .str(154, std::string(63 + extra, 't'))
            .u8(135, 7)
            .end()
            .get();
    };
    const std::string texts_kept = "mode 7 ip 0 state 0 name [" + std::string(31, 'n') +
                                   "] version [" + std::string(15, 'v') + "] radios 0 tenant [" +
                                   std::string(63, 't') + "]" + none;
    struct hostile_case {
        std::string name;
        bytes datagram;
        std::string expected;
    };
    std::vector<hostile_case> cases = {
        {"texts that fit", texts(0), texts_kept},
        {"texts one too long", texts(1), texts_kept},
        {"string longer than the datagram", tlv_bytes::answer().el_len(142, 9000, {'a', 'b'}).get(),
         "mode 0 ip 0 state 0 name [ab] version [] radios 0" + none},
        {"fixed-width elements ignore their length field",
         tlv_bytes::answer().el_len(135, 4, {3}).el_len(136, 1, {0, 0, 1, 2}).end().get(),
         "mode 3 ip 258 state 0 name [] version [] radios 0" + none},
        {"fewer radios than promised run on to the walk limit",
         tlv_bytes::answer().u8(143, 2).u8(145, 1).u8(144, 0).end().u8(135, 3).get(),
         "mode 0 ip 0 state 0 name [] version [] radios 2 1/0 0/0 0/0 0/0"},
        {"unknown element, then a type read below 1008 consumed bytes",
         tlv_bytes::answer().filler(0x7777, 1003).u8(135, 9).end().get(),
         "mode 9 ip 0 state 0 name [] version [] radios 0" + none},
        {"unknown element, then a type at 1008 consumed bytes not read",
         tlv_bytes::answer().filler(0x7777, 1004).u8(135, 9).end().get(),
         "mode 0 ip 0 state 0 name [] version [] radios 0" + none},
    };
    // Four radios, whole or only id and channel, are all kept; of five, four are kept, the
    // count is stored and what follows is read.
    for (uint8_t count : {4, 5}) {
        for (bool whole : {true, false}) {
            cases.push_back({std::to_string(count) + (whole ? " whole" : " short") + " radios",
                             answer_with_radios(count, whole).end().get(),
                             "mode 2 ip 0 state 0 name [before] version [v2] radios " +
                                 std::to_string(count) + " 1/31 2/32 3/33 4/34"});
        }
    }
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<nbcp_msg> msg(new nbcp_msg());  // value-initialised: all bytes zero
        ASSERT_EQ(nbcp_decode(exact_copy(c.datagram).get(), c.datagram.size(), msg.get()), 1);
        EXPECT_EQ(msg->kind, NBCP_TYPE_NDSP);
        EXPECT_EQ(ndsp_summary(*msg), c.expected);
    }
}

// A list of count entries whose addresses number them from 10.0.0.0.
bytes build_list(uint32_t count) {
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

// The list reader in a heap block of exactly the reply's size and an array of exactly its
// capacity: it stops at either, and at its 12000-byte walk, where an entry is left unfinished.
TEST(NbcpListRead, HostileLists) {
    // Entries of 4 and 5 radios; the fifth radio is read past without being stored.
    auto with_radios = [](uint8_t count, bool whole) {
        tlv_bytes t = tlv_bytes::list_reply().u32(6, 1).u8(11, count);
        for (uint8_t i = 0; i < count; ++i) {
            t.u8(13, i).u8(14, 36 + i);
            if (whole) {
                t.u8(15, 20).u8(16, 40).u8(23, 80);
            }
            t.u8(12, 0);
        }
        return t.filler(99, 300).u8(60, 0).u32(6, 2).u8(60, 0).end().get();
    };
    struct list_case {
        std::string name;
        bytes reply;
        size_t capacity;
        size_t expected;
        uint32_t last_ip;            // ip of the last entry counted
        uint8_t fourth_channel = 0;  // of the first entry's fourth radio
    };
    std::vector<list_case> cases = {
        {"capacity below the count", build_list(10), 3, 3, 0x0A000002},
        // The client's 67 entries: a list of 67 fills them, one of 68 stops at them.
        {"count at the capacity", build_list(67), 67, 67, 0x0A000042},
        {"count one past the capacity", build_list(68), 67, 67, 0x0A000042},
        {"walk ends at 12000 bytes: entry 115 is not finished", build_list(130), 200, 115,
         0x0A000072},
    };
    for (uint8_t count : {4, 5}) {
        for (bool whole : {true, false}) {
            cases.push_back({std::to_string(count) + (whole ? " whole" : " short") +
                                 " radios and an unknown code",
                             with_radios(count, whole), 8, 2, 2, 39});
        }
    }
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<ap_info[]> entries(new ap_info[c.capacity]());
        size_t got =
            nbcp_list_read(exact_copy(c.reply).get(), c.reply.size(), entries.get(), c.capacity);
        ASSERT_EQ(got, c.expected);
        EXPECT_EQ(entries[got - 1].ip, c.last_ip);
        EXPECT_EQ(entries[0].radio[3].channel, c.fourth_channel);
        for (size_t i = 0; i < got; ++i) {
            EXPECT_TRUE(after_radios_clear(entries[i])) << "entry " << i;
        }
    }
}

}  // namespace
