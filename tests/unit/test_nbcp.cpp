// The nbcp codec: the wire primitives, the builders (golden bytes), the readers of the answer,
// the probe, the passive kinds and the neighbor list with their quirks and walk limits, and
// property tests with a fixed seed (round trips, element order, the cheap record reset).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/local_msg.h"
#include "proto/nbcp.h"
#include "proto/nbcp_wire.h"

namespace {

class tlv_bytes {
  public:
    // Header with the given type, all other header fields zero unless given.
    static tlv_bytes message(uint8_t type, uint8_t flag = 0) {
        tlv_bytes t;
        t.b_ = {flag, 0, 0, type, 0, 0, 0, 0, 0, 0};
        return t;
    }
    // The 8-byte local header of a neighbor-list reply (op 51 in host order).
    static tlv_bytes list_reply() {
        tlv_bytes t;
        t.b_.assign(8, 0);
        uint16_t op = 51;
        std::memcpy(&t.b_[4], &op, 2);
        return t;
    }

    tlv_bytes &raw(const std::vector<uint8_t> &bytes) {
        b_.insert(b_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    tlv_bytes &be16(uint16_t v) { return raw({uint8_t(v >> 8), uint8_t(v)}); }
    tlv_bytes &be32(uint32_t v) {
        return raw({uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
    }
    // Element whose length field is the size of value.
    tlv_bytes &el(uint16_t type, const std::vector<uint8_t> &value) {
        return el_len(type, static_cast<uint16_t>(value.size()), value);
    }
    // Element with an arbitrary length field in front of value.
    tlv_bytes &el_len(uint16_t type, uint16_t len, const std::vector<uint8_t> &value) {
        be16(type);
        be16(len);
        return raw(value);
    }
    tlv_bytes &u8(uint16_t type, uint8_t v) { return el(type, {v}); }
    tlv_bytes &u32(uint16_t type, uint32_t v) {
        return el(type, {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
    }
    template <size_t N>
    tlv_bytes &bytes(uint16_t type, const std::array<uint8_t, N> &a) {
        return el(type, std::vector<uint8_t>(a.begin(), a.end()));
    }
    tlv_bytes &str(uint16_t type, const std::string &s) {
        return el(type, std::vector<uint8_t>(s.begin(), s.end()));
    }
    // Unknown element of len filler bytes.
    tlv_bytes &filler(uint16_t type, uint16_t len) {
        return el(type, std::vector<uint8_t>(len, 0xEE));
    }
    tlv_bytes &end() { return be16(0); }

    const std::vector<uint8_t> &bytes() const { return b_; }
    size_t size() const { return b_.size(); }

  private:
    std::vector<uint8_t> b_;
};

// Value-initialised, so every byte (padding included) starts at zero.
inline std::unique_ptr<nbcp_msg> zeroed_msg() {
    return std::unique_ptr<nbcp_msg>(new nbcp_msg());
}

struct parse_outcome {
    int result;
    std::string out;
};

// nbcp_parse over a heap copy of exactly the datagram's size, with standard output captured.
inline parse_outcome parse_captured(const std::vector<uint8_t> &datagram, nbcp_msg *msg) {
    std::unique_ptr<uint8_t[]> exact(new uint8_t[datagram.size() + (datagram.empty() ? 1 : 0)]);
    if (!datagram.empty()) {
        std::memcpy(exact.get(), datagram.data(), datagram.size());
    }
    testing::internal::CaptureStdout();
    int result = nbcp_parse(exact.get(), datagram.size(), msg);
    std::fflush(stdout);
    return parse_outcome{result, testing::internal::GetCapturedStdout()};
}

inline std::vector<uint8_t> hex(const std::string &text) {
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c))) {
            digits += c;
        }
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

// Element types of a TLV body, in order, read without the codec (stops at a zero type).
inline std::vector<uint16_t> element_types(const uint8_t *p, size_t len) {
    std::vector<uint16_t> types;
    size_t pos = 0;
    while (pos + 4 <= len) {
        uint16_t type = static_cast<uint16_t>(p[pos] << 8 | p[pos + 1]);
        uint16_t vlen = static_cast<uint16_t>(p[pos + 2] << 8 | p[pos + 3]);
        if (type == 0) {
            break;
        }
        types.push_back(type);
        pos += 4 + vlen;
    }
    return types;
}

std::vector<uint8_t> written(const uint8_t *start, const nbcp_encoder &e) {
    return std::vector<uint8_t>(start, static_cast<const uint8_t *>(e.pos));
}

TEST(NbcpPut, StringWithoutTerminatorStopsAtItsBound) {
    char field[8];
    std::memset(field, 'x', sizeof field);  // no NUL anywhere in the field
    uint8_t out[32];
    std::memset(out, 0xCC, sizeof out);
    nbcp_encoder e{out, 0};
    nbcp_put_field_string(e, 9, field);
    EXPECT_EQ(written(out, e), hex("00 09 00 07 78 78 78 78 78 78 78"));
}

TEST(NbcpHdr, EncodesWireOrder) {
    nbcp_hdr hdr{};
    hdr.arg1 = 0x0102;
    hdr.arg2 = 0x0304;
    hdr.arg3 = 0x05060708;
    hdr.type = 11;
    uint8_t out[10];
    ASSERT_EQ(nbcp_hdr_encode(out, &hdr), 1);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 10), hex("00 03 04 0B 01 02 05 06 07 08"));
    hdr.flag = 0x9A;
    nbcp_hdr_encode(out, &hdr);
    EXPECT_EQ(out[0], 0x9A);
    EXPECT_EQ(nbcp_hdr_encode(nullptr, &hdr), 0);
    EXPECT_EQ(nbcp_hdr_encode(out, nullptr), 0);
}

TEST(NbcpHdr, ShortDatagramReadsZerosForMissingBytes) {
    std::vector<uint8_t> wire = hex("00 12 34 0A 56");  // stops inside arg1
    auto msg = zeroed_msg();
    msg->m.hdr.arg3 = 0xFFFFFFFF;
    ASSERT_EQ(nbcp_hdr_decode(wire.data(), wire.size(), msg.get()), 1);
    EXPECT_EQ(msg->m.hdr.type, 10);
    EXPECT_EQ(msg->m.hdr.arg2, 0x1234);
    EXPECT_EQ(msg->m.hdr.arg1, 0x5600);
    EXPECT_EQ(msg->m.hdr.arg3, 0u);
    EXPECT_EQ(nbcp_hdr_decode(nullptr, 10, msg.get()), 0);
    EXPECT_EQ(nbcp_hdr_decode(wire.data(), wire.size(), nullptr), 0);
}

TEST(NbcpGet, BytesPastTheRegionReadAsZero) {
    // Heap buffer of exactly the readable size: an over-read would be caught by the sanitizer.
    std::unique_ptr<uint8_t[]> in(new uint8_t[3]{0xAB, 0xCD, 0xEF});
    nbcp_decoder d = nbcp_decoder_at(in.get(), 3, 1);
    EXPECT_EQ(nbcp_get_u32(d), 0xCDEF0000u);  // straddles the end
    EXPECT_EQ(nbcp_get_u16(d), 0u);
    ip6_addr a;
    a.fill(0x55);
    nbcp_get_addr6(d, a.data());
    EXPECT_EQ(a, ip6_addr{});
    EXPECT_EQ(d.consumed, 22u);
    nbcp_skip(d, 60000);
    EXPECT_EQ(nbcp_get_u8(d), 0);
    EXPECT_EQ(d.consumed, 60023u);
}

TEST(NbcpGet, StringClearsTheOldValueAndStaysTerminated) {
    struct {
        const char *name;
        std::string old_value;
        std::string wire_value;
        std::string expected;
    } cases[] = {
        {"shorter replaces longer", "longname", "ab", "ab"},
        {"empty clears", "longname", "", ""},
        {"fits exactly", "", "1234567", "1234567"},
        {"longer than the field keeps capacity - 1", "x", "123456789ABC", "1234567"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        char field[8] = {};
        std::memcpy(field, c.old_value.data(), c.old_value.size());
        std::vector<uint8_t> in(c.wire_value.begin(), c.wire_value.end());
        in.push_back(0x77);  // the byte after the element
        nbcp_decoder d = nbcp_decoder_at(in.data(), in.size(), 0);
        nbcp_get_string(d, c.wire_value.size(), field, sizeof field);
        EXPECT_EQ(std::string(field), c.expected);
        EXPECT_EQ(field[7], '\0');
        EXPECT_EQ(d.consumed, c.wire_value.size()) << "the whole element is consumed";
        EXPECT_EQ(nbcp_get_u8(d), 0x77);
    }
}

TEST(NbcpGet, StringLongerThanTheDatagramReadsZerosAndConsumesItsLength) {
    std::unique_ptr<uint8_t[]> in(new uint8_t[2]{'h', 'i'});
    char field[16] = "previous";
    nbcp_decoder d = nbcp_decoder_at(in.get(), 2, 0);
    nbcp_get_string(d, 500, field, sizeof field);
    EXPECT_STREQ(field, "hi");
    EXPECT_EQ(d.consumed, 500u);
}

// Room for the longest message plus a canary region that must stay untouched.
constexpr size_t CANARY = 64;

struct out_buffer {
    std::vector<uint8_t> bytes;
    explicit out_buffer(size_t size) : bytes(size + CANARY, 0xCC) {}
    uint8_t *data() { return bytes.data(); }
    std::vector<uint8_t> first(size_t n) const { return {bytes.begin(), bytes.begin() + n}; }
    bool untouched_after(size_t n) const {
        return std::all_of(bytes.begin() + n, bytes.end(), [](uint8_t b) { return b == 0xCC; });
    }
};

TEST(NbcpBuildNdrp, GoldenProbe) {
    nbcp_ndrp rec{};
    rec.ip = 0xC0A8010A;
    rec.mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    out_buffer out(NBCP_NDRP_LEN);
    ASSERT_EQ(nbcp_build_ndrp(out.data(), &rec), 60u);
    EXPECT_EQ(out.first(60), hex("00 00 00 0A 00 00 00 00 00 00"
                                 "00 80 00 01 00"
                                 "00 81 00 01 00"
                                 "00 82 00 04 C0 A8 01 0A"
                                 "00 84 00 10 00000000 00000000 00000000 00000000"
                                 "00 83 00 06 00 11 22 33 44 55"
                                 "00 00"));
    EXPECT_EQ(rec.hdr.type, NBCP_TYPE_NDRP);
    EXPECT_TRUE(out.untouched_after(60));
}

TEST(NbcpBuildNdsp, SizeGrowsThirtyBytesPerRadioUpToFour) {
    for (int radiocnt = 0; radiocnt <= 8; ++radiocnt) {
        SCOPED_TRACE(radiocnt);
        nbcp_ndsp rec{};
        rec.info.radiocnt = static_cast<uint8_t>(radiocnt);
        out_buffer out(NBCP_NDSP_MAX);
        uint32_t n = nbcp_build_ndsp(out.data(), &rec);
        EXPECT_EQ(n, 139u + 30u * std::min(radiocnt, 4));
        EXPECT_TRUE(out.untouched_after(n));
        std::vector<uint16_t> types = element_types(out.data() + 10, n - 10);
        EXPECT_EQ(std::count(types.begin(), types.end(), 144), std::min(radiocnt, 4));
        // The count element carries the stored count, even above four.
        EXPECT_EQ(out.bytes[n - 2 - 30 * std::min(radiocnt, 4) - 1], radiocnt);
    }
    nbcp_ndsp six{};
    six.info.radiocnt = 6;
    out_buffer out(NBCP_NDSP_MAX);
    EXPECT_EQ(nbcp_build_ndsp(out.data(), &six), 259u);
}

TEST(NbcpBuildNdsp, ElementOrder) {
    nbcp_ndsp rec{};
    rec.info.radiocnt = 1;
    std::strcpy(rec.info.name, "ap");
    out_buffer out(NBCP_NDSP_MAX);
    uint32_t n = nbcp_build_ndsp(out.data(), &rec);
    EXPECT_EQ(element_types(out.data() + 10, n - 10),
              (std::vector<uint16_t>{134, 135, 136, 137, 150, 151, 152, 153, 138, 156, 149, 139,
                                     140, 154, 141, 142, 143, 145, 146, 147, 148, 155, 144}));
    EXPECT_EQ(out.bytes[3], NBCP_TYPE_NDSP);
    EXPECT_EQ(out.bytes[n - 2], 0);
    EXPECT_EQ(out.bytes[n - 1], 0);
}

TEST(NbcpBuildNdsp, EmptyVersionIsAZeroLengthElement) {
    nbcp_ndsp rec{};
    std::strcpy(rec.info.tenantId, "t");
    out_buffer out(NBCP_NDSP_MAX);
    uint32_t n = nbcp_build_ndsp(out.data(), &rec);
    EXPECT_EQ(n, 140u);
    // tenantId (154) starts 110 bytes into the body; version (141) and name (142) follow.
    EXPECT_EQ(std::vector<uint8_t>(out.bytes.begin() + 120, out.bytes.begin() + 133),
              hex("00 9A 00 01 74  00 8D 00 00  00 8E 00 00"));
}

TEST(NbcpBuildNdsp, UnterminatedStringsStayWithinTheLargestSize) {
    nbcp_ndsp rec{};
    std::memset(rec.info.tenantId, 'T', sizeof rec.info.tenantId);
    std::memset(rec.info.version, 'V', sizeof rec.info.version);
    std::memset(rec.info.name, 'N', sizeof rec.info.name);
    rec.info.radiocnt = 255;
    out_buffer out(NBCP_NDSP_MAX);
    EXPECT_EQ(nbcp_build_ndsp(out.data(), &rec), NBCP_NDSP_MAX);
    EXPECT_TRUE(out.untouched_after(NBCP_NDSP_MAX));
}

TEST(NbcpListPut, EntrySizeGrowsThirtyBytesPerRadio) {
    for (int radiocnt = 0; radiocnt <= 6; ++radiocnt) {
        SCOPED_TRACE(radiocnt);
        ap_info info{};
        info.radiocnt = static_cast<uint8_t>(radiocnt);
        out_buffer out(NBCP_LIST_ENTRY_MAX);
        uint32_t n = nbcp_list_put(out.data(), &info, nullptr, NBCP_LIST_PIECE_ENTRY);
        EXPECT_EQ(n, 104u + 30u * std::min(radiocnt, 4));
        EXPECT_TRUE(out.untouched_after(n));
    }
}

TEST(NbcpListPut, EntryElementOrder) {
    ap_info info{};
    info.radiocnt = 1;
    out_buffer out(NBCP_LIST_ENTRY_MAX);
    uint32_t n = nbcp_list_put(out.data(), &info, nullptr, 7);  // any selector but 1 and 2
    EXPECT_EQ(element_types(out.data(), n),
              (std::vector<uint16_t>{6,  24, 17, 7,  8,  22, 9,  10, 18, 19,
                                     20, 21, 11, 13, 14, 15, 16, 23, 12, 60}));
}

TEST(NbcpListPut, LongestEntryWithUnterminatedStrings) {
    ap_info info{};
    std::memset(info.tenantId, 'T', sizeof info.tenantId);
    std::memset(info.version, 'V', sizeof info.version);
    std::memset(info.name, 'N', sizeof info.name);
    info.radiocnt = 4;
    out_buffer out(NBCP_LIST_ENTRY_MAX);
    EXPECT_EQ(nbcp_list_put(out.data(), &info, nullptr, NBCP_LIST_PIECE_ENTRY),
              NBCP_LIST_ENTRY_MAX);
    EXPECT_TRUE(out.untouched_after(NBCP_LIST_ENTRY_MAX));
}

TEST(NbcpListPut, EmptyListIsHeaderAndEnd) {
    local_msg_hdr hdr{};
    hdr.op = TARN_MSG_DUMP_NGBR;  // replaced by the reply code
    out_buffer out(16);
    uint32_t off = nbcp_list_put(out.data(), nullptr, &hdr, NBCP_LIST_PIECE_HEADER);
    EXPECT_EQ(off, 8u);
    off += nbcp_list_put(out.data() + off, nullptr, nullptr, NBCP_LIST_PIECE_END);
    ASSERT_EQ(off, 10u);
    uint16_t op = TARN_MSG_LIST_REPLY;
    std::vector<uint8_t> expected(10, 0);
    std::memcpy(&expected[4], &op, 2);
    EXPECT_EQ(out.first(10), expected);
    EXPECT_EQ(hdr.op, TARN_MSG_LIST_REPLY);
    EXPECT_TRUE(out.untouched_after(10));
}

TEST(NbcpListPut, HeaderKeepsValueAndZeroesTheReservedBytes) {
    local_msg_hdr hdr;
    std::memset(&hdr, 0xAB, sizeof hdr);
    hdr.value = 7;
    out_buffer out(8);
    ASSERT_EQ(nbcp_list_put(out.data(), nullptr, &hdr, NBCP_LIST_PIECE_HEADER), 8u);
    local_msg_hdr back;
    std::memcpy(&back, out.data(), sizeof back);
    EXPECT_EQ(back.value, 7);
    EXPECT_EQ(back.op, TARN_MSG_LIST_REPLY);
    EXPECT_EQ(out.bytes[1] | out.bytes[2] | out.bytes[3] | out.bytes[6] | out.bytes[7], 0);
}

const std::vector<uint8_t> GOLDEN_NDRP =
    hex("00 00 00 0A 00 00 00 00 00 00  00 80 00 01 00  00 81 00 01 00  00 82 00 04 C0 A8 01 0A"
        "00 84 00 10 00000000 00000000 00000000 00000000  00 83 00 06 00 11 22 33 44 55  00 00");

bool all_zero(const void *p, size_t n) {
    const uint8_t *b = static_cast<const uint8_t *>(p);
    for (size_t i = 0; i < n; ++i) {
        if (b[i] != 0) {
            return false;
        }
    }
    return true;
}

TEST(NbcpParse, PrintsTheTypeLineAndDecodesTheProbe) {
    auto msg = zeroed_msg();
    parse_outcome r = parse_captured(GOLDEN_NDRP, msg.get());
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(r.out, "nbcp protocol type 10!\n");
    EXPECT_EQ(msg->kind, NBCP_TYPE_NDRP);
    EXPECT_EQ(msg->m.ndrp.hdr.type, NBCP_TYPE_NDRP);
    EXPECT_EQ(msg->m.ndrp.ip, 0xC0A8010Au);
    EXPECT_EQ(msg->m.ndrp.mac, (mac_addr{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}));
    EXPECT_EQ(msg->m.ndrp.mode, 0);
}

TEST(NbcpParse, UnknownTypePrintsBothLinesAndKeepsOnlyTheHeader) {
    std::vector<uint8_t> dg = tlv_bytes::message(12).u8(134, 1).u8(135, 3).end().bytes();
    auto msg = zeroed_msg();
    parse_outcome r = parse_captured(dg, msg.get());
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.out, "nbcp protocol type 12!\nnbcp protocol do not have this type!\n");
    EXPECT_EQ(msg->kind, 12);
    EXPECT_EQ(msg->m.hdr.type, 12);
    EXPECT_TRUE(all_zero(reinterpret_cast<uint8_t *>(&msg->m) + sizeof(nbcp_hdr),
                         sizeof(nbcp_ndsp) - sizeof(nbcp_hdr)));
}

TEST(NbcpParse, TypesAndTheKindsTheyAreStoredAs) {
    for (int type = 0; type < 256; ++type) {
        SCOPED_TRACE(type);
        bool fixed = type >= 1 && type <= 6;
        bool tlv = type >= 21 && type <= 26;
        bool other = type == 10 || type == 11 || type == 15 || type == 16;
        int expected_kind = tlv ? type - 20 : type;
        std::vector<uint8_t> dg = tlv_bytes::message(static_cast<uint8_t>(type)).end().bytes();
        auto msg = zeroed_msg();
        parse_outcome r = parse_captured(dg, msg.get());
        EXPECT_EQ(r.result, (fixed || tlv || other) ? 1 : 0);
        EXPECT_EQ(msg->kind, expected_kind);
        EXPECT_EQ(msg->m.hdr.type, type);
        EXPECT_EQ(r.out.rfind("nbcp protocol type " + std::to_string(type) + "!\n", 0), 0u);
    }
}

TEST(NbcpParse, EmptyOrTinyDatagramsAreHarmless) {
    auto msg = zeroed_msg();
    parse_outcome r = parse_captured({}, msg.get());
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.out, "nbcp protocol type 0!\nnbcp protocol do not have this type!\n");
    r = parse_captured(hex("00 00 00 0B"), msg.get());  // header cut short, no body
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(msg->kind, NBCP_TYPE_NDSP);
}

// An answer with six radios, each radio's bytes distinct, and elements after the radios.
tlv_bytes six_radio_answer() {
    tlv_bytes t = tlv_bytes::message(11);
    t.u8(135, 2).str(142, "before").u8(143, 6);
    for (uint8_t i = 0; i < 6; ++i) {
        uint8_t base = static_cast<uint8_t>(10 * (i + 1));
        t.u8(145, base).u8(146, base + 1).u8(147, base + 2).u8(148, base + 3).u8(155, base + 4);
        t.u8(144, 0);
    }
    t.str(141, "v2.0").u32(151, 77).bytes(152, mac_addr{1, 2, 3, 4, 5, 6});
    return t;
}

TEST(NbcpParseNdsp, SixRadiosStoreTheCountFillFourAndKeepWhatFollows) {
    std::vector<uint8_t> dg = six_radio_answer().end().bytes();
    auto msg = zeroed_msg();
    ASSERT_EQ(parse_captured(dg, msg.get()).result, 1);
    const nbcp_ndsp &rec = msg->m.ndsp;
    EXPECT_EQ(rec.info.radiocnt, 6);
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        uint8_t base = static_cast<uint8_t>(10 * (i + 1));
        EXPECT_EQ(rec.info.radio[i].radioid, base);
        EXPECT_EQ(rec.info.radio[i].channel, base + 1);
        EXPECT_EQ(rec.info.radio[i].txpower, base + 2);
        EXPECT_EQ(rec.info.radio[i].rssi, base + 3);
        EXPECT_EQ(rec.info.radio[i].bandwidth, base + 4);
    }
    EXPECT_EQ(rec.mode, 2);
    EXPECT_STREQ(rec.info.name, "before");
    EXPECT_STREQ(rec.info.version, "v2.0");
    EXPECT_EQ(rec.cluster_id, 77u);
    EXPECT_EQ(rec.pvc_mac, (mac_addr{1, 2, 3, 4, 5, 6}));
}

TEST(NbcpParseNdsp, MissingTerminatorParsesLikeTheTerminatedBody) {
    std::vector<uint8_t> with_end = six_radio_answer().end().bytes();
    std::vector<uint8_t> without_end = six_radio_answer().bytes();
    auto a = zeroed_msg();
    auto b = zeroed_msg();
    parse_captured(with_end, a.get());
    // Exactly the datagram's bytes, no zero guard: the walk must read zeros past the end.
    parse_captured(without_end, b.get());
    EXPECT_EQ(std::memcmp(&a->m.ndsp, &b->m.ndsp, sizeof(nbcp_ndsp)), 0);
    EXPECT_EQ(a->kind, b->kind);
    // The receive path hands over the datagram inside a larger zeroed buffer: same result.
    std::vector<uint8_t> guarded = without_end;
    guarded.resize(without_end.size() + 256, 0);
    auto c = zeroed_msg();
    EXPECT_EQ(nbcp_decode(guarded.data(), guarded.size(), c.get()), 1);
    EXPECT_EQ(std::memcmp(&a->m.ndsp, &c->m.ndsp, sizeof(nbcp_ndsp)), 0);
}

TEST(NbcpParseNdsp, StringLongerThanItsFieldKeepsCapacityLessOne) {
    std::string long_name(40, 'n');
    long_name[30] = 'X';  // the last character kept
    std::vector<uint8_t> dg = tlv_bytes::message(11)
                                  .str(142, long_name)
                                  .str(154, std::string(300, 't'))
                                  .u8(140, 4)
                                  .end()
                                  .bytes();
    auto msg = zeroed_msg();
    parse_captured(dg, msg.get());
    const ap_info &info = msg->m.ndsp.info;
    EXPECT_EQ(std::string(info.name), long_name.substr(0, 31));
    EXPECT_EQ(info.name[31], '\0');
    EXPECT_EQ(std::string(info.tenantId), std::string(63, 't'));
    EXPECT_EQ(info.state, 4) << "the walk stays in step after the long strings";
    EXPECT_EQ(info.version[0], '\0') << "nothing spilled into the next field";
}

TEST(NbcpParseNdsp, FixedWidthElementsIgnoreTheirLengthField) {
    // 135 claims 4 bytes but is read as one; the walk goes on at the next byte, where a whole
    // element 134 follows. 136 claims 1 byte but four are read.
    std::vector<uint8_t> dg = tlv_bytes::message(11)
                                  .el_len(135, 4, {3})
                                  .u8(134, 1)
                                  .el_len(136, 1, {0xC0, 0xA8, 0x01, 0x0A})
                                  .el_len(137, 0, {1, 2, 3, 4, 5, 6})
                                  .el_len(156, 2, std::vector<uint8_t>(16, 0x66))
                                  .u8(140, 2)
                                  .end()
                                  .bytes();
    auto msg = zeroed_msg();
    parse_captured(dg, msg.get());
    const nbcp_ndsp &rec = msg->m.ndsp;
    EXPECT_EQ(rec.mode, 3);
    EXPECT_EQ(rec.kind_flag, 1);
    EXPECT_EQ(rec.ip, 0xC0A8010Au);
    EXPECT_EQ(rec.mac, (mac_addr{1, 2, 3, 4, 5, 6}));
    ip6_addr all_66;
    all_66.fill(0x66);
    EXPECT_EQ(rec.info.ip6, all_66);
    EXPECT_EQ(rec.info.state, 2);
}

TEST(NbcpParseNdsp, RadioElementsOutsideARadioAreSkipped) {
    std::vector<uint8_t> dg =
        tlv_bytes::message(11).u8(145, 9).u8(147, 9).u8(144, 0).u8(135, 1).end().bytes();
    auto msg = zeroed_msg();
    parse_captured(dg, msg.get());
    EXPECT_EQ(msg->m.ndsp.info.radio[0].radioid, 0);
    EXPECT_EQ(msg->m.ndsp.info.radio[0].txpower, 0);
    EXPECT_EQ(msg->m.ndsp.mode, 1);
}

TEST(NbcpParseNdsp, RadioListRunsOnOverZerosUntilTheLimit) {
    // Two radios promised, one sent: the inner walk eats the terminator and the zeros after it
    // and whatever elements follow, until the walk limit; nothing after is stored.
    std::vector<uint8_t> dg =
        tlv_bytes::message(11).u8(143, 2).u8(145, 1).u8(144, 0).end().u8(135, 3).bytes();
    auto msg = zeroed_msg();
    parse_captured(dg, msg.get());
    EXPECT_EQ(msg->m.ndsp.info.radiocnt, 2);
    EXPECT_EQ(msg->m.ndsp.info.radio[0].radioid, 1);
    EXPECT_EQ(msg->m.ndsp.mode, 0);
}

// An answer whose first element is unknown and consumes `pad` bytes, then element 135.
std::vector<uint8_t> mode_after(uint16_t pad) {
    return tlv_bytes::message(11).filler(0x7777, pad - 4).u8(135, 9).end().bytes();
}

TEST(NbcpParseNdsp, WalkReadsATypeStartingBelow1008ConsumedBytes) {
    auto msg = zeroed_msg();
    parse_captured(mode_after(1007), msg.get());
    EXPECT_EQ(msg->m.ndsp.mode, 9);
    msg = zeroed_msg();
    parse_captured(mode_after(1008), msg.get());
    EXPECT_EQ(msg->m.ndsp.mode, 0);
}

TEST(NbcpParse, DatagramAtTheVeryEndOfAnExactBuffer) {
    // Each datagram sits in a heap block of exactly its size; every parser must stop reading
    // at the block's end (the sanitizer build turns a stray read into a failure).
    std::vector<std::vector<uint8_t>> datagrams = {
        six_radio_answer().bytes(),
        tlv_bytes::message(10).u8(129, 3).bytes(),
        tlv_bytes::message(11).el_len(142, 9000, {'a', 'b'}).bytes(),
        tlv_bytes::message(11).u8(143, 4).u8(145, 1).bytes(),
        hex("00 00 00 05 00 00 00 00 00 00 FF FF FF FF 00 00 00 FF"),
        hex("00 00 00 02 00 00 00 00 00 00 01 02"),
        hex("00 00 00 10 00 00 00 00 00 00 FF 01 02"),
        hex("00 00 00 0F 00 00 00 00 00 00 00 03"),
        tlv_bytes::message(25).el_len(90, 4, {0, 0, 1, 0}).u8(102, 255).bytes(),
        tlv_bytes::message(22).u8(35, 255).bytes(),
    };
    for (const auto &dg : datagrams) {
        auto msg = zeroed_msg();
        parse_outcome r = parse_captured(dg, msg.get());
        EXPECT_EQ(r.result, 1);
        EXPECT_EQ(msg->m.hdr.type, dg[3]);
    }
}

// A list of n entries as the daemon builds it, optionally without its end mark.
std::vector<uint8_t> build_list(const std::vector<ap_info> &aps, bool with_end = true) {
    std::vector<uint8_t> out(NBCP_LIST_MAX, 0);
    local_msg_hdr hdr{};
    uint32_t off = nbcp_list_put(out.data(), nullptr, &hdr, NBCP_LIST_PIECE_HEADER);
    for (const ap_info &ap : aps) {
        off += nbcp_list_put(out.data() + off, &ap, nullptr, NBCP_LIST_PIECE_ENTRY);
    }
    if (with_end) {
        off += nbcp_list_put(out.data() + off, nullptr, nullptr, NBCP_LIST_PIECE_END);
    }
    out.resize(off);
    return out;
}

ap_info numbered_ap(uint32_t i) {
    ap_info ap{};
    ap.ip = 0x0A000000 + i;
    ap.mac = {0x02, 0, 0, 0, 0, static_cast<uint8_t>(i)};
    return ap;
}

// Reads into a heap array of exactly `capacity` records (zero-filled).
size_t read_exact(const std::vector<uint8_t> &reply, std::vector<ap_info> &entries,
                  size_t capacity) {
    entries.assign(capacity, ap_info{});
    std::unique_ptr<uint8_t[]> exact(new uint8_t[reply.size()]);
    std::memcpy(exact.get(), reply.data(), reply.size());
    return nbcp_list_read(exact.get(), reply.size(), entries.data(), capacity);
}

TEST(NbcpListRead, StopsStoringAndCountingAtTheCapacity) {
    std::vector<ap_info> aps;
    for (uint32_t i = 0; i < 10; ++i) {
        aps.push_back(numbered_ap(i));
    }
    std::vector<ap_info> entries;
    EXPECT_EQ(read_exact(build_list(aps), entries, 3), 3u);
    EXPECT_EQ(entries[2].ip, 0x0A000002u);
    EXPECT_EQ(read_exact(build_list(aps), entries, 10), 10u);
    EXPECT_EQ(read_exact(build_list(aps), entries, 67), 10u);
    EXPECT_EQ(read_exact(build_list(aps), entries, 0), 0u);
}

TEST(NbcpListRead, WalkEndsAt12000ConsumedBytes) {
    // Each entry is 104 bytes. Entry k's end element starts at 104k + 99 consumed bytes and is
    // read only while that is below 12000: entries 0 to 114 complete, entry 115 does not.
    std::vector<ap_info> aps;
    for (uint32_t i = 0; i < 130; ++i) {
        aps.push_back(numbered_ap(i));
    }
    std::vector<ap_info> entries;
    EXPECT_EQ(read_exact(build_list(aps), entries, 200), 115u);
    EXPECT_EQ(entries[114].ip, 0x0A000000u + 114);
    EXPECT_EQ(entries[115].ip, 0x0A000000u + 115) << "the unfinished entry was being filled";
    EXPECT_EQ(entries[116].ip, 0u);
}

TEST(NbcpListRead, EntryWithoutItsEndElementIsNotCounted) {
    std::vector<uint8_t> reply = build_list({numbered_ap(1), numbered_ap(2), numbered_ap(3)});
    // Drop the end mark and the last entry's end element (5 bytes), then end the list.
    reply.resize(reply.size() - 2 - 5);
    reply.push_back(0);
    reply.push_back(0);
    std::vector<ap_info> entries;
    EXPECT_EQ(read_exact(reply, entries, 8), 2u);
    // Same reply cut right after the last element, no end mark: zeros end the walk.
    reply.resize(reply.size() - 2);
    EXPECT_EQ(read_exact(reply, entries, 8), 2u);
}

TEST(NbcpListRead, SixRadiosKeepFourAndTheEntryIntact) {
    tlv_bytes t = tlv_bytes::list_reply();
    t.u32(6, 0x01020304).u8(11, 6);
    for (uint8_t i = 0; i < 6; ++i) {
        t.u8(13, i).u8(14, 36 + i).u8(15, 20).u8(16, 40).u8(23, 80).u8(12, 0);
    }
    t.str(10, "after").u8(60, 0).u32(6, 0x05060708).u8(60, 0).end();
    std::vector<ap_info> entries;
    ASSERT_EQ(read_exact(t.bytes(), entries, 8), 2u);
    EXPECT_EQ(entries[0].radiocnt, 6);
    EXPECT_EQ(entries[0].radio[3].radioid, 3);
    EXPECT_EQ(entries[0].radio[3].channel, 39);
    EXPECT_STREQ(entries[0].name, "after");
    EXPECT_EQ(entries[1].ip, 0x05060708u);
    EXPECT_EQ(entries[1].radiocnt, 0);
}

TEST(NbcpListRead, UnknownAndStrayCodesAreSkipped) {
    tlv_bytes t = tlv_bytes::list_reply();
    t.filler(99, 300).u8(13, 7).u8(12, 0).u8(8, 3).u8(60, 0).end();
    std::vector<ap_info> entries;
    ASSERT_EQ(read_exact(t.bytes(), entries, 8), 1u);
    EXPECT_EQ(entries[0].state, 3);
    EXPECT_EQ(entries[0].radio[0].radioid, 0);
}

TEST(NbcpListRead, ReplyShorterThanItsHeader) {
    std::vector<ap_info> entries;
    EXPECT_EQ(read_exact(hex("00 00 00 00 33"), entries, 4), 0u);
}

std::unique_ptr<nbcp_msg> decode(const std::vector<uint8_t> &dg) {
    auto msg = zeroed_msg();
    EXPECT_EQ(parse_captured(dg, msg.get()).result, 1);
    return msg;
}

const mac_addr MAC_A = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
const mac_addr MAC_B = {0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5};

TEST(NbcpKind1, TlvCountAboveTheLimitIsStoredAndExtraItemsSkipped) {
    tlv_bytes t = tlv_bytes::message(21);
    t.u8(15, 1).u8(16, 2).u8(17, 3).bytes(18, MAC_A).u8(20, 6);
    for (uint8_t i = 0; i < 6; ++i) {
        t.u8(22, 10 * i).u8(23, 10 * i + 1).u8(24, 10 * i + 2).u8(25, 10 * i + 3).u8(21, 0);
    }
    t.u8(19, 55).end();
    auto msg = decode(t.bytes());
    EXPECT_EQ(msg->kind, 1);
    const nbcp_kind1 &rec = msg->m.kind1;
    EXPECT_EQ(rec.hdr.type, 21);
    EXPECT_EQ(rec.field1, 1);
    EXPECT_EQ(rec.field2, 2);
    EXPECT_EQ(rec.field3, 3);
    EXPECT_EQ(rec.address, MAC_A);
    EXPECT_EQ(rec.item_count, 6);
    for (int i = 0; i < 4; ++i) {
        for (int b = 0; b < 4; ++b) {
            EXPECT_EQ(rec.items[i].byte[b], 10 * i + b);
        }
    }
    EXPECT_EQ(rec.field5, 55) << "items 5 and 6 were skipped without disturbing field 5";
}

TEST(NbcpKind1, FixedLayoutItemsCarryThreeBytes) {
    auto msg = decode(tlv_bytes::message(1)
                          .raw({1, 2, 3, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 5, 9})
                          .raw({11, 12, 13, 21, 22, 23, 31, 32, 33, 41, 42, 43, 51, 52, 53})
                          .bytes());
    const nbcp_kind1 &rec = msg->m.kind1;
    EXPECT_EQ(msg->kind, 1);
    EXPECT_EQ(rec.address, MAC_A);
    EXPECT_EQ(rec.field5, 5);
    EXPECT_EQ(rec.item_count, 9);
    EXPECT_EQ(rec.items[0].byte[0], 11);
    EXPECT_EQ(rec.items[1].byte[2], 23);
    EXPECT_EQ(rec.items[3].byte[0], 41);
    EXPECT_EQ(rec.items[3].byte[3], 0) << "the fourth byte is not carried";
}

TEST(NbcpKind2, TlvEntriesAndTheWideLimit) {
    tlv_bytes t = tlv_bytes::message(22);
    t.u8(31, 7).bytes(34, MAC_A).u8(35, 2);
    t.bytes(37, MAC_B).u8(38, 1).u8(39, 2).u32(40, 0xDEADBEEF).str(41, "abcdefghijklmnopqrst");
    t.u8(42, 6).u8(36, 0);
    t.u8(38, 21).u8(36, 0);
    // Well past the 1008 bytes most bodies are walked to.
    t.filler(0x4444, 3000).u8(33, 99).end();
    auto msg = decode(t.bytes());
    EXPECT_EQ(msg->kind, 2);
    const nbcp_kind2 &rec = msg->m.kind2;
    EXPECT_EQ(rec.field1, 7);
    EXPECT_EQ(rec.address, MAC_A);
    EXPECT_EQ(rec.entry_count, 2);
    EXPECT_EQ(rec.entries[0].address, MAC_B);
    EXPECT_EQ(rec.entries[0].value, 0xDEADBEEFu);
    EXPECT_STREQ(rec.entries[0].text, "abcdefghijklmno");
    EXPECT_EQ(rec.entries[0].field6, 6);
    EXPECT_EQ(rec.entries[1].field2, 21);
    EXPECT_EQ(rec.field3, 99);
}

TEST(NbcpKind2, FixedLayoutSkipsUpToFourGroups) {
    tlv_bytes t = tlv_bytes::message(2);
    t.raw({1, 2, 3}).raw({0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5}).raw({3});
    t.raw({0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 4, 5}).be32(100).raw({2, 9, 9, 9, 9, 9, 9});
    t.raw({0xC0, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5, 6, 7}).be32(200).raw({5});  // 5: nothing skipped
    t.raw({0xD0, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 8, 9}).be32(300).raw({0});
    auto msg = decode(t.bytes());
    const nbcp_kind2 &rec = msg->m.kind2;
    EXPECT_EQ(rec.entry_count, 3);
    EXPECT_EQ(rec.entries[0].address, MAC_B);
    EXPECT_EQ(rec.entries[0].value, 100u);
    EXPECT_EQ(rec.entries[1].address, (mac_addr{0xC0, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5}));
    EXPECT_EQ(rec.entries[1].field3, 7);
    EXPECT_EQ(rec.entries[1].value, 200u);
    EXPECT_EQ(rec.entries[2].address, (mac_addr{0xD0, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5}));
    EXPECT_EQ(rec.entries[2].value, 300u);
    EXPECT_EQ(rec.entries[2].text[0], '\0');
}

TEST(NbcpKind3, TlvTextsAndItems) {
    tlv_bytes t = tlv_bytes::message(23);
    t.u8(51, 1).bytes(54, MAC_A).u8(59, 1).u8(61, 4).u8(64, 7).u8(60, 0).u32(56, 42);
    t.str(57, "first").str(58, std::string(40, 'b')).str(65, "third").str(66, "fourth").end();
    auto msg = decode(t.bytes());
    EXPECT_EQ(msg->kind, 3);
    const nbcp_kind3 &rec = msg->m.kind3;
    EXPECT_EQ(rec.item_count, 1);
    EXPECT_EQ(rec.items[0].byte[0], 4);
    EXPECT_EQ(rec.items[0].byte[3], 7);
    EXPECT_EQ(rec.value, 42u);
    EXPECT_STREQ(rec.text1, "first");
    EXPECT_EQ(std::string(rec.text2), std::string(31, 'b'));
    EXPECT_STREQ(rec.text3, "third");
    EXPECT_STREQ(rec.text4, "fourth");
}

TEST(NbcpKind3, FixedLayoutTextsAreRawBytes) {
    tlv_bytes t = tlv_bytes::message(3);
    t.raw({1, 2, 3, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 5, 1, 7, 8, 9}).be32(0x01020304);
    t.raw(std::vector<uint8_t>(16, 'x'));
    t.raw(std::vector<uint8_t>(32, 'y')).raw(std::vector<uint8_t>(32, 'z'));
    t.raw({'e', 'n', 'd'});  // text 4 cut short: the rest reads as zero
    auto msg = decode(t.bytes());
    const nbcp_kind3 &rec = msg->m.kind3;
    EXPECT_EQ(rec.items[0].byte[2], 9);
    EXPECT_EQ(rec.value, 0x01020304u);
    EXPECT_EQ(std::string(rec.text1, 16), std::string(16, 'x'));
    EXPECT_EQ(std::string(rec.text3, 32), std::string(32, 'z'));
    EXPECT_STREQ(rec.text4, "end");
}

TEST(NbcpKind4, TlvNestedItemsAndFixedLayout) {
    tlv_bytes t = tlv_bytes::message(24);
    t.bytes(70, MAC_A).u8(71, 2);
    t.bytes(73, MAC_B).u8(74, 1).u8(76, 1).u8(79, 4).u8(75, 0).u8(72, 0);
    t.u8(74, 0).u8(72, 0).end();
    auto msg = decode(t.bytes());
    EXPECT_EQ(msg->kind, 4);
    EXPECT_EQ(msg->m.kind4.entries[0].address, MAC_B);
    EXPECT_EQ(msg->m.kind4.entries[0].items[0].byte[3], 4);
    EXPECT_EQ(msg->m.kind4.entry_count, 2);

    tlv_bytes f = tlv_bytes::message(4);
    f.raw({0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 1}).raw({0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 2});
    f.raw({1, 2, 3, 4, 5, 6, 7, 8});
    auto fixed = decode(f.bytes());
    EXPECT_EQ(fixed->m.kind4.address, MAC_A);
    EXPECT_EQ(fixed->m.kind4.entries[0].item_count, 2);
    EXPECT_EQ(fixed->m.kind4.entries[0].items[1].byte[3], 8);
}

TEST(NbcpKind5, TlvEntriesWithRadiosNeighborsAndItems) {
    tlv_bytes t = tlv_bytes::message(25);
    t.u32(89, 5).u32(90, 300);  // count above 255 is stored as received
    t.u8(92, 1).bytes(93, MAC_A).u32(94, 11).u32(95, 12);
    t.u8(96, 1).u8(98, 3).u8(101, 6).u8(97, 0);
    t.u8(102, 1).bytes(104, MAC_B).u8(105, 1).u8(107, 8).u8(110, 9).u8(106, 0).u8(103, 0);
    t.u8(91, 0).end();
    auto msg = decode(t.bytes());
    EXPECT_EQ(msg->kind, 5);
    const nbcp_kind5 &rec = msg->m.kind5;
    EXPECT_EQ(rec.value, 5u);
    EXPECT_EQ(rec.entry_count, 300u);
    const nbcp_kind5_entry &e = rec.entries[0];
    EXPECT_EQ(e.field1, 1);
    EXPECT_EQ(e.address, MAC_A);
    EXPECT_EQ(e.value1, 11u);
    EXPECT_EQ(e.value2, 12u);
    EXPECT_EQ(e.radios[0].byte[0], 3);
    EXPECT_EQ(e.radios[0].byte[3], 6);
    EXPECT_EQ(e.neighbors[0].address, MAC_B);
    EXPECT_EQ(e.neighbors[0].items[0].byte[0], 8);
    EXPECT_EQ(e.neighbors[0].items[0].byte[3], 9);
}

TEST(NbcpKind5, TlvWalkEndsAt2008ConsumedBytes) {
    auto value_after = [](uint16_t pad) {
        return tlv_bytes::message(25).filler(0x5555, pad - 4).u32(89, 1).end().bytes();
    };
    EXPECT_EQ(decode(value_after(2007))->m.kind5.value, 1u);
    EXPECT_EQ(decode(value_after(2008))->m.kind5.value, 0u);
}

TEST(NbcpKind5, FixedLayout) {
    tlv_bytes t = tlv_bytes::message(5);
    t.be32(7).be32(1);
    t.raw({4, 2, 1}).raw({0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5}).be32(21).be32(22);
    t.raw({1, 2, 3, 4, 5, 6});                                    // two radios of three bytes
    t.raw({0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 1, 7, 8, 9, 10});  // one neighbor, one item
    auto msg = decode(t.bytes());
    const nbcp_kind5 &rec = msg->m.kind5;
    EXPECT_EQ(rec.value, 7u);
    EXPECT_EQ(rec.entries[0].field1, 4);
    EXPECT_EQ(rec.entries[0].value2, 22u);
    EXPECT_EQ(rec.entries[0].radios[1].byte[2], 6);
    EXPECT_EQ(rec.entries[0].neighbors[0].address, MAC_B);
    EXPECT_EQ(rec.entries[0].neighbors[0].items[0].byte[3], 10);
}

TEST(NbcpKind6, TlvAndFixedLayout) {
    tlv_bytes t = tlv_bytes::message(26);
    t.u8(81, 3).u32(82, 100).u8(83, 2).bytes(85, MAC_A).u8(84, 0).bytes(85, MAC_B).u8(84, 0);
    t.u32(86, 200).end();
    auto msg = decode(t.bytes());
    EXPECT_EQ(msg->kind, 6);
    EXPECT_EQ(msg->m.kind6.entries[1], MAC_B);
    EXPECT_EQ(msg->m.kind6.value2, 200u);

    tlv_bytes f = tlv_bytes::message(6);
    f.raw({3}).be32(100).raw({1, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5}).be32(200);
    auto fixed = decode(f.bytes());
    EXPECT_EQ(fixed->m.kind6.field1, 3);
    EXPECT_EQ(fixed->m.kind6.value1, 100u);
    EXPECT_EQ(fixed->m.kind6.entries[0], MAC_A);
    EXPECT_EQ(fixed->m.kind6.value2, 200u);
}

TEST(NbcpType15, SubtypesDecideWhatIsStored) {
    struct {
        uint16_t subtype;
        uint8_t flag;
        uint32_t value;
        bool address;
    } cases[] = {
        {1, 1, 0, false},         {2, 0, 0x11223344, false}, {2, 1, 0x11223344, true},
        {3, 0, 0x11223344, true}, {4, 0, 0x11223344, true},  {5, 1, 0, false},
        {0xFFFF, 1, 0, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "subtype " << c.subtype << " flag " << int(c.flag));
        auto msg = decode(tlv_bytes::message(15, c.flag)
                              .be16(c.subtype)
                              .be32(0x11223344)
                              .raw({0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5})
                              .bytes());
        const nbcp_type15 &rec = msg->m.type15;
        EXPECT_EQ(rec.subtype, c.subtype);
        EXPECT_EQ(rec.value, c.value);
        EXPECT_EQ(rec.address, c.address ? MAC_A : mac_addr{});
        EXPECT_EQ(rec.hdr.flag, c.flag);
    }
}

TEST(NbcpType16, StoresEveryGroup) {
    tlv_bytes t = tlv_bytes::message(16);
    t.raw({255}).raw({0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5});
    for (int i = 0; i < 255; ++i) {
        t.raw({uint8_t(i), uint8_t(i + 1), uint8_t(i + 2)});
    }
    auto msg = decode(t.bytes());
    const nbcp_type16 &rec = msg->m.type16;
    EXPECT_EQ(rec.count, 255);
    EXPECT_EQ(rec.address, MAC_A);
    EXPECT_EQ(rec.groups[0][0], 0);
    EXPECT_EQ(rec.groups[254][0], 254);
    EXPECT_EQ(rec.groups[254][2], 0);  // (254 + 2) wraps in a byte
}

class random_source {
  public:
    explicit random_source(uint32_t seed) : gen_(seed) {}
    uint32_t u32() { return static_cast<uint32_t>(gen_()); }
    uint8_t u8() { return static_cast<uint8_t>(gen_()); }
    uint32_t below(uint32_t n) { return u32() % n; }
    bool chance(uint32_t percent) { return below(100) < percent; }
    template <size_t N>
    void fill(std::array<uint8_t, N> &a) {
        for (auto &b : a) {
            b = u8();
        }
    }
    // A string field: usually terminated at a random length, sometimes filled to the brim
    // without any terminator.
    template <size_t N>
    void fill_string(char (&field)[N]) {
        size_t len = chance(15) ? N : below(N);
        for (size_t i = 0; i < N; ++i) {
            field[i] = i < len ? static_cast<char>(1 + below(255)) : '\0';
        }
    }

  private:
    std::mt19937 gen_;
};

void fill_radios(random_source &rnd, ap_info &info) {
    info.radiocnt = static_cast<uint8_t>(rnd.chance(20) ? rnd.u8() : rnd.below(5));
    for (radio_info &r : info.radio) {
        r = {rnd.u8(), rnd.u8(), rnd.u8(), rnd.u8(), rnd.u8()};
    }
}

ap_info random_ap(random_source &rnd) {
    ap_info info{};
    info.ip = rnd.u32();
    rnd.fill(info.ip6);
    info.qv_ip = rnd.u32();
    rnd.fill(info.mac);
    rnd.fill_string(info.tenantId);
    info.state = rnd.u8();
    rnd.fill_string(info.version);
    rnd.fill_string(info.name);
    fill_radios(rnd, info);
    info.pvc_ip = rnd.u32();
    info.cluster_id = rnd.u32();
    rnd.fill(info.pvc_mac);
    info.cluster_flag = rnd.u8();
    return info;
}

// What a reader holds of a sent string field: at most capacity - 1 characters.
template <size_t N>
std::string sent(const char (&field)[N]) {
    return std::string(field, strnlen(field, N - 1));
}

void expect_radios_carried(const ap_info &got, const ap_info &want) {
    EXPECT_EQ(got.radiocnt, want.radiocnt);
    for (int i = 0; i < AP_RADIO_MAX; ++i) {
        SCOPED_TRACE(i);
        radio_info expected = i < want.radiocnt ? want.radio[i] : radio_info{};
        EXPECT_EQ(got.radio[i].radioid, expected.radioid);
        EXPECT_EQ(got.radio[i].channel, expected.channel);
        EXPECT_EQ(got.radio[i].txpower, expected.txpower);
        EXPECT_EQ(got.radio[i].rssi, expected.rssi);
        EXPECT_EQ(got.radio[i].bandwidth, expected.bandwidth);
    }
}

void expect_strings_carried(const ap_info &got, const ap_info &want) {
    EXPECT_EQ(std::string(got.tenantId), sent(want.tenantId));
    EXPECT_EQ(std::string(got.version), sent(want.version));
    EXPECT_EQ(std::string(got.name), sent(want.name));
}

TEST(NbcpRoundTrip, Probe) {
    random_source rnd(1001);
    for (int iter = 0; iter < 500; ++iter) {
        nbcp_ndrp rec{};
        rec.hdr = {rnd.u8(), 0, static_cast<uint16_t>(rnd.u32()), static_cast<uint16_t>(rnd.u32()),
                   rnd.u32()};
        rec.kind_flag = rnd.u8();
        rec.mode = rnd.u8();
        rec.ip = rnd.u32();
        rnd.fill(rec.ip6);
        rnd.fill(rec.mac);
        uint8_t out[NBCP_NDRP_LEN];
        ASSERT_EQ(nbcp_build_ndrp(out, &rec), NBCP_NDRP_LEN);
        auto msg = zeroed_msg();
        ASSERT_EQ(nbcp_decode(out, sizeof out, msg.get()), 1);
        const nbcp_ndrp &got = msg->m.ndrp;
        EXPECT_EQ(std::memcmp(&got.hdr, &rec.hdr, sizeof rec.hdr), 0);
        EXPECT_EQ(got.kind_flag, rec.kind_flag);
        EXPECT_EQ(got.mode, rec.mode);
        EXPECT_EQ(got.ip, rec.ip);
        EXPECT_EQ(got.mac, rec.mac);
        EXPECT_EQ(got.ip6, ip6_addr{}) << "a probe's IPv6 address is not kept";
    }
}

TEST(NbcpRoundTrip, Answer) {
    random_source rnd(2002);
    for (int iter = 0; iter < 500; ++iter) {
        SCOPED_TRACE(iter);
        nbcp_ndsp rec{};
        rec.hdr.arg3 = rnd.u32();
        rec.kind_flag = rnd.u8();
        rec.mode = rnd.u8();
        rec.ip = rnd.u32();
        rnd.fill(rec.mac);
        rec.info = random_ap(rnd);
        rec.pvc_ip = rnd.u32();
        rec.cluster_id = rnd.u32();
        rnd.fill(rec.pvc_mac);
        rec.cluster_flag = rnd.u8();
        std::vector<uint8_t> out(NBCP_NDSP_MAX);
        uint32_t n = nbcp_build_ndsp(out.data(), &rec);
        ASSERT_LE(n, NBCP_NDSP_MAX);
        auto msg = zeroed_msg();
        ASSERT_EQ(nbcp_decode(out.data(), n, msg.get()), 1);
        const nbcp_ndsp &got = msg->m.ndsp;
        EXPECT_EQ(msg->kind, NBCP_TYPE_NDSP);
        EXPECT_EQ(got.hdr.arg3, rec.hdr.arg3);
        EXPECT_EQ(got.kind_flag, rec.kind_flag);
        EXPECT_EQ(got.mode, rec.mode);
        EXPECT_EQ(got.ip, rec.ip);
        EXPECT_EQ(got.mac, rec.mac);
        EXPECT_EQ(got.pvc_ip, rec.pvc_ip);
        EXPECT_EQ(got.cluster_id, rec.cluster_id);
        EXPECT_EQ(got.pvc_mac, rec.pvc_mac);
        EXPECT_EQ(got.cluster_flag, rec.cluster_flag);
        EXPECT_EQ(got.info.ip, rec.info.ip);
        EXPECT_EQ(got.info.ip6, rec.info.ip6);
        EXPECT_EQ(got.info.qv_ip, rec.info.qv_ip);
        EXPECT_EQ(got.info.mac, rec.info.mac);
        EXPECT_EQ(got.info.state, rec.info.state);
        expect_strings_carried(got.info, rec.info);
        expect_radios_carried(got.info, rec.info);
        // The cluster facts travel in the outer fields only.
        EXPECT_EQ(got.info.pvc_ip, 0u);
        EXPECT_EQ(got.info.cluster_id, 0u);
        EXPECT_EQ(got.info.pvc_mac, mac_addr{});
        EXPECT_EQ(got.info.cluster_flag, 0);
    }
}

TEST(NbcpRoundTrip, NeighborList) {
    random_source rnd(3003);
    for (int iter = 0; iter < 200; ++iter) {
        SCOPED_TRACE(iter);
        // At most 20 of the longest entries stay inside the reader's 12000-byte walk.
        std::vector<ap_info> aps(rnd.below(21));
        for (ap_info &ap : aps) {
            ap = random_ap(rnd);
        }
        std::vector<uint8_t> out(NBCP_LIST_MAX);
        local_msg_hdr hdr{};
        hdr.op = static_cast<uint16_t>(rnd.u32());
        uint32_t off = nbcp_list_put(out.data(), nullptr, &hdr, NBCP_LIST_PIECE_HEADER);
        for (const ap_info &ap : aps) {
            uint32_t n = nbcp_list_put(out.data() + off, &ap, nullptr, NBCP_LIST_PIECE_ENTRY);
            ASSERT_LE(n, NBCP_LIST_ENTRY_MAX);
            off += n;
        }
        off += nbcp_list_put(out.data() + off, nullptr, nullptr, NBCP_LIST_PIECE_END);
        std::vector<ap_info> got(NGB_HASH_SIZE);
        ASSERT_EQ(nbcp_list_read(out.data(), off, got.data(), got.size()), aps.size());
        for (size_t i = 0; i < aps.size(); ++i) {
            SCOPED_TRACE(i);
            const ap_info &want = aps[i];
            EXPECT_EQ(got[i].ip, want.ip);
            EXPECT_EQ(got[i].ip6, want.ip6);
            EXPECT_EQ(got[i].qv_ip, want.qv_ip);
            EXPECT_EQ(got[i].mac, want.mac);
            EXPECT_EQ(got[i].state, want.state);
            EXPECT_EQ(got[i].pvc_ip, want.pvc_ip);
            EXPECT_EQ(got[i].cluster_id, want.cluster_id);
            EXPECT_EQ(got[i].pvc_mac, want.pvc_mac);
            EXPECT_EQ(got[i].cluster_flag, want.cluster_flag);
            expect_strings_carried(got[i], want);
            expect_radios_carried(got[i], want);
        }
    }
}

// Splits a body into its top-level groups: one element each, except that the radio count and
// the radios that follow it stay together.
std::vector<std::vector<uint8_t>> body_groups(const uint8_t *body, size_t len, int radios) {
    std::vector<std::vector<uint8_t>> groups;
    size_t pos = 0;
    while (pos + 4 <= len) {
        uint16_t type = static_cast<uint16_t>(body[pos] << 8 | body[pos + 1]);
        if (type == 0) {
            break;
        }
        size_t end = pos + 4 + (body[pos + 2] << 8 | body[pos + 3]);
        if (type == 143) {
            end += 30 * radios;
        }
        groups.emplace_back(body + pos, body + end);
        pos = end;
    }
    return groups;
}

TEST(NbcpRoundTrip, AnswerDecodesTheSameInAnyElementOrder) {
    random_source rnd(5005);
    for (int iter = 0; iter < 300; ++iter) {
        SCOPED_TRACE(iter);
        nbcp_ndsp rec{};
        rec.mode = rnd.u8();
        rec.ip = rnd.u32();
        rnd.fill(rec.mac);
        rec.info = random_ap(rnd);
        rec.cluster_id = rnd.u32();
        std::vector<uint8_t> out(NBCP_NDSP_MAX);
        out.resize(nbcp_build_ndsp(out.data(), &rec));
        auto groups = body_groups(out.data() + 10, out.size() - 10,
                                  std::min<int>(rec.info.radiocnt, AP_RADIO_MAX));
        std::shuffle(groups.begin(), groups.end(), std::mt19937(rnd.u32()));
        std::vector<uint8_t> shuffled(out.begin(), out.begin() + 10);
        for (const auto &g : groups) {
            shuffled.insert(shuffled.end(), g.begin(), g.end());
        }
        shuffled.push_back(0);
        shuffled.push_back(0);
        ASSERT_EQ(shuffled.size(), out.size());
        auto in_order = zeroed_msg();
        auto any_order = zeroed_msg();
        nbcp_decode(out.data(), out.size(), in_order.get());
        nbcp_decode(shuffled.data(), shuffled.size(), any_order.get());
        EXPECT_EQ(std::memcmp(&in_order->m.ndsp, &any_order->m.ndsp, sizeof(nbcp_ndsp)), 0);
    }
}

// Size of the record a datagram of this type fills (the header alone for unknown types).
size_t record_size(uint8_t type) {
    uint8_t kind = type > 20 && type <= 26 ? type - 20 : type;
    switch (kind) {
        case 1:
            return sizeof(nbcp_kind1);
        case 2:
            return sizeof(nbcp_kind2);
        case 3:
            return sizeof(nbcp_kind3);
        case 4:
            return sizeof(nbcp_kind4);
        case 5:
            return sizeof(nbcp_kind5);
        case 6:
            return sizeof(nbcp_kind6);
        case 10:
            return sizeof(nbcp_ndrp);
        case 11:
            return sizeof(nbcp_ndsp);
        case 15:
            return sizeof(nbcp_type15);
        case 16:
            return sizeof(nbcp_type16);
        default:
            return sizeof(nbcp_hdr);
    }
}

// A datagram that exercises the parsers: mostly plausible elements for the chosen type
// (codes near the type's own, value sizes of the usual forms, counts), sometimes raw noise.
std::vector<uint8_t> random_datagram(random_source &rnd) {
    static const uint8_t types[] = {1,  2,  3,  4,  5,  6,  10, 11, 15,
                                    16, 21, 22, 23, 24, 25, 26, 12, 0};
    uint8_t type = rnd.chance(90) ? types[rnd.below(sizeof types)] : rnd.u8();
    tlv_bytes t = tlv_bytes::message(type, rnd.u8());
    if (rnd.chance(30) || (type < 20 && type != 10 && type != 11)) {
        // Now and then long enough for a fixed layout to fill many entries of its lists.
        std::vector<uint8_t> noise(rnd.chance(10) ? rnd.below(9000) : rnd.below(400));
        for (auto &b : noise) {
            b = rnd.chance(50) ? rnd.u8() : static_cast<uint8_t>(rnd.below(8));
        }
        return t.raw(noise).bytes();
    }
    static const uint16_t widths[] = {0, 1, 1, 1, 4, 4, 6, 16, 2, 20, 70};
    uint32_t elements = rnd.below(60);
    for (uint32_t i = 0; i < elements; ++i) {
        uint16_t code = static_cast<uint16_t>(rnd.chance(95) ? rnd.below(160) : rnd.u32());
        uint16_t width = widths[rnd.below(sizeof widths / sizeof widths[0])];
        std::vector<uint8_t> value(width);
        for (auto &b : value) {
            b = rnd.chance(70) ? static_cast<uint8_t>(rnd.below(6)) : rnd.u8();
        }
        uint16_t len_field = rnd.chance(90) ? width : static_cast<uint16_t>(rnd.below(40));
        t.el_len(code, len_field, value);
    }
    if (rnd.chance(70)) {
        t.end();
    }
    return t.bytes();
}

TEST(NbcpMsgReset, ParsesLikeAFullyClearedRecord) {
    random_source rnd(4004);
    auto clean = zeroed_msg();
    auto dirty = zeroed_msg();
    for (int iter = 0; iter < 3000; ++iter) {
        SCOPED_TRACE(iter);
        std::vector<uint8_t> dg = random_datagram(rnd);
        uint8_t type = dg[3];
        size_t size = record_size(type);
        std::memset(clean.get(), 0, sizeof(nbcp_msg));
        // Garbage over the record and its neighbourhood, as a previous datagram would leave.
        std::memset(dirty.get(), rnd.u8() | 1, std::min(sizeof(nbcp_msg), size + 4096));
        nbcp_msg_reset(dirty.get(), dg.data(), dg.size());
        int a = nbcp_decode(dg.data(), dg.size(), clean.get());
        int b = nbcp_decode(dg.data(), dg.size(), dirty.get());
        ASSERT_EQ(a, b);
        ASSERT_EQ(clean->kind, dirty->kind);
        ASSERT_EQ(std::memcmp(&clean->m, &dirty->m, size), 0) << "type " << int(type);
    }
}

// The receive thread keeps one record and clears, before each decode, only the lines the
// previous decode marked: after every datagram of a sequence the whole record must equal the
// record that a full clear and the same decode give.
TEST(NbcpTouched, ClearingWhatWasWrittenEqualsAFullClear) {
    random_source rnd(1313);
    auto kept = zeroed_msg();
    auto reference = zeroed_msg();
    nbcp_touched touched(kept.get());
    for (int sequence = 0; sequence < 2000; ++sequence) {
        for (uint32_t n = 1 + rnd.below(4); n > 0; --n) {
            std::vector<uint8_t> dg = random_datagram(rnd);
            touched.clear(kept.get());
            std::memset(reference.get(), 0, sizeof(nbcp_msg));
            ASSERT_EQ(nbcp_decode(dg.data(), dg.size(), kept.get(), &touched),
                      nbcp_decode(dg.data(), dg.size(), reference.get()));
            ASSERT_EQ(std::memcmp(kept.get(), reference.get(), sizeof(nbcp_msg)), 0)
                << "sequence " << sequence << ", type " << int(dg[3]) << ", " << dg.size()
                << " bytes";
        }
    }
}

// A short datagram of the largest kind writes its header fields and nothing of its lists.
TEST(NbcpTouched, ShortKind5MarksOnlyItsHead) {
    auto msg = zeroed_msg();
    nbcp_touched touched(msg.get());
    const std::vector<uint8_t> dg{0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    nbcp_decode(dg.data(), dg.size(), msg.get(), &touched);
    const size_t head = offsetof(nbcp_msg, m) + offsetof(nbcp_kind5, entries);
    EXPECT_LE(touched.lines(), head / nbcp_touched::LINE + 2);
    EXPECT_EQ(msg->m.kind5.value, 0xffff0000u);
}

TEST(NbcpMsgReset, ClearsOnlyTheSelectedRecord) {
    auto msg = zeroed_msg();
    std::memset(msg.get(), 0x5A, sizeof(nbcp_msg));
    std::vector<uint8_t> probe = tlv_bytes::message(10).end().bytes();
    nbcp_msg_reset(msg.get(), probe.data(), probe.size());
    const uint8_t *m = reinterpret_cast<const uint8_t *>(&msg->m);
    EXPECT_EQ(msg->kind, 0);
    EXPECT_TRUE(std::all_of(m, m + sizeof(nbcp_ndrp), [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(m[sizeof(nbcp_ndrp)], 0x5A) << "a probe does not pay for clearing the largest kind";
    nbcp_msg_reset(nullptr, probe.data(), probe.size());  // harmless
}

}  // namespace
