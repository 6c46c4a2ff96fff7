// The nbcp codec: golden bytes of the three built messages, and the answer parser and the list
// reader against hostile lengths. The decode of every type over random datagrams is held by the
// golden digests of test_nbcp_golden, and the round trips of answers and lists by the fuzz
// targets, which re-encode what they decode.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/local_msg.h"
#include "proto/nbcp.h"

namespace {

using bytes = std::vector<uint8_t>;

// A datagram or a neighbor list written element by element.
class tlv_bytes {
  public:
    static tlv_bytes message(uint8_t type, uint8_t flag = 0) {
        tlv_bytes t;
        t.b_ = {flag, 0, 0, type, 0, 0, 0, 0, 0, 0};
        return t;
    }
    // The 8-byte local header of a neighbor list (op 51, little-endian host).
    static tlv_bytes list_reply() {
        tlv_bytes t;
        t.b_ = {0, 0, 0, 0, 51, 0, 0, 0};
        return t;
    }

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
    bytes b_;
};

bytes hex(const std::string &text) {
    std::string digits;
    std::copy_if(text.begin(), text.end(), std::back_inserter(digits),
                 [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
    bytes out;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

// Value-initialised, so every byte (padding included) starts at zero.
std::unique_ptr<nbcp_msg> zeroed_msg() {
    return std::unique_ptr<nbcp_msg>(new nbcp_msg());
}

// nbcp_decode over a heap copy of exactly the datagram's size: a read past its end fails the
// sanitizer build.
std::unique_ptr<nbcp_msg> decode_exact(const bytes &datagram) {
    std::unique_ptr<uint8_t[]> exact(new uint8_t[std::max<size_t>(datagram.size(), 1)]);
    std::copy(datagram.begin(), datagram.end(), exact.get());
    std::unique_ptr<nbcp_msg> msg = zeroed_msg();
    EXPECT_EQ(nbcp_decode(exact.get(), datagram.size(), msg.get()), 1);
    return msg;
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

    // An empty list: the header and the end mark.
    out_buffer empty;
    n = nbcp_list_put(empty.b.data(), nullptr, &hdr, NBCP_LIST_PIECE_HEADER);
    n += nbcp_list_put(empty.b.data() + n, nullptr, nullptr, NBCP_LIST_PIECE_END);
    empty.expect(n, "00 00 00 00 33 00 00 00 00 00");
}

std::string ndsp_summary(const nbcp_msg &m) {
    const nbcp_ndsp &r = m.m.ndsp;
    std::string s = "mode " + std::to_string(r.mode) + " ip " + std::to_string(r.ip) + " state " +
                    std::to_string(r.info.state) + " name [" + r.info.name + "] version [" +
                    r.info.version + "] radios " + std::to_string(r.info.radiocnt);
    for (const radio_info &radio : r.info.radio) {
        s += " " + std::to_string(radio.radioid) + "/" + std::to_string(radio.channel);
    }
    return s;
}

// An answer whose first element is unknown and consumes pad bytes, then mode 9.
bytes mode_after(uint16_t pad) {
    return tlv_bytes::message(11).filler(0x7777, pad - 4).u8(135, 9).end().get();
}

tlv_bytes six_radio_answer() {
    tlv_bytes t = tlv_bytes::message(11);
    t.u8(135, 2).str(142, "before").u8(143, 6);
    for (uint8_t i = 1; i <= 6; ++i) {
        t.u8(145, i).u8(146, 30 + i).u8(144, 0);
    }
    return t.str(141, "v2");
}

struct hostile_case {
    const char *name;
    bytes datagram;
    std::string expected;
};

// Every datagram sits in a heap block of exactly its size, most of them cut short or lying
// about their lengths; the answer parser keeps its fields in step and never reads past the end.
TEST(NbcpParse, HostileAnswers) {
    const std::string none = " 0/0 0/0 0/0 0/0";
    const hostile_case cases[] = {
        {"six radios: four kept, count stored, what follows read", six_radio_answer().end().get(),
         "mode 2 ip 0 state 0 name [before] version [v2] radios 6 1/31 2/32 3/33 4/34"},
        {"no terminator", six_radio_answer().get(),
         "mode 2 ip 0 state 0 name [before] version [v2] radios 6 1/31 2/32 3/33 4/34"},
        {"string longer than the datagram",
         tlv_bytes::message(11).el_len(142, 9000, {'a', 'b'}).get(),
         "mode 0 ip 0 state 0 name [ab] version [] radios 0" + none},
        {"string longer than its field keeps capacity less one",
         tlv_bytes::message(11).str(142, std::string(40, 'n')).u8(140, 4).end().get(),
         "mode 0 ip 0 state 4 name [" + std::string(31, 'n') + "] version [] radios 0" + none},
        {"fixed-width elements ignore their length field",
         tlv_bytes::message(11)
             .el_len(135, 4, {3})
             .u8(140, 1)
             .el_len(136, 1, {0, 0, 1, 2})
             .u8(140, 2)
             .end()
             .get(),
         "mode 3 ip 258 state 2 name [] version [] radios 0" + none},
        {"radio elements outside a radio",
         tlv_bytes::message(11).u8(145, 9).u8(146, 9).u8(144, 0).u8(135, 1).end().get(),
         "mode 1 ip 0 state 0 name [] version [] radios 0" + none},
        {"fewer radios than promised run on to the walk limit",
         tlv_bytes::message(11).u8(143, 2).u8(145, 1).u8(144, 0).end().u8(135, 3).get(),
         "mode 0 ip 0 state 0 name [] version [] radios 2 1/0 0/0 0/0 0/0"},
        {"radio count cut off", tlv_bytes::message(11).u8(143, 4).u8(145, 1).get(),
         "mode 0 ip 0 state 0 name [] version [] radios 4 1/0 0/0 0/0 0/0"},
        {"type read below 1008 consumed bytes", mode_after(1007),
         "mode 9 ip 0 state 0 name [] version [] radios 0" + none},
        {"type at 1008 consumed bytes not read", mode_after(1008),
         "mode 0 ip 0 state 0 name [] version [] radios 0" + none},
        {"header cut short", hex("00 00 00 0B 01"),
         "mode 0 ip 0 state 0 name [] version [] radios 0" + none},
    };
    for (const hostile_case &c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<nbcp_msg> msg = decode_exact(c.datagram);
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

struct list_case {
    const char *name;
    bytes reply;
    size_t capacity;
    size_t expected;
    uint32_t last_ip;  // ip of the last entry counted
};

// The list reader in a heap block of exactly the reply's size and an array of exactly its
// capacity: it stops at either, at its 12000-byte walk and at entries without their end.
TEST(NbcpListRead, HostileLists) {
    bytes no_entry_end = build_list(3);
    no_entry_end.resize(no_entry_end.size() - 2 - 5);  // the end mark and the last entry's end
    tlv_bytes six_radios = tlv_bytes::list_reply().u32(6, 1).u8(11, 6);
    for (uint8_t i = 0; i < 6; ++i) {
        six_radios.u8(13, i).u8(14, 36 + i).u8(12, 0);
    }
    six_radios.filler(99, 300).u8(60, 0).u32(6, 2).u8(60, 0).end();
    const list_case cases[] = {
        {"capacity below the count", build_list(10), 3, 3, 0x0A000002},
        {"capacity zero", build_list(10), 0, 0, 0},
        {"walk ends at 12000 bytes: entry 115 is not finished", build_list(130), 200, 115,
         0x0A000072},
        {"entry without its end element", no_entry_end, 8, 2, 0x0A000001},
        {"six radios and an unknown code", six_radios.get(), 8, 2, 2},
        {"shorter than its header", hex("00 00 00 00 33"), 4, 0, 0},
    };
    for (const list_case &c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<uint8_t[]> reply(new uint8_t[c.reply.size()]);
        std::copy(c.reply.begin(), c.reply.end(), reply.get());
        std::unique_ptr<ap_info[]> entries(new ap_info[std::max<size_t>(c.capacity, 1)]());
        size_t got = nbcp_list_read(reply.get(), c.reply.size(), entries.get(), c.capacity);
        ASSERT_EQ(got, c.expected);
        if (got > 0) {
            EXPECT_EQ(entries[got - 1].ip, c.last_ip);
        }
    }
}

}  // namespace
