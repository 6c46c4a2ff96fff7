#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "nbcp_test_util.h"
#include "proto/nbcp.h"
#include "proto/nbcp_wire.h"

namespace {

std::vector<uint8_t> written(const uint8_t *start, const nbcp_encoder &e) {
    return std::vector<uint8_t>(start, static_cast<const uint8_t *>(e.pos));
}

TEST(NbcpPut, ElementsMatchTheWireForms) {
    uint8_t out[64];
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    uint8_t addr6[16];
    for (int i = 0; i < 16; ++i) {
        addr6[i] = static_cast<uint8_t>(0xF0 + i);
    }
    struct {
        const char *name;
        void (*put)(nbcp_encoder &, const uint8_t *, const uint8_t *);
        std::vector<uint8_t> expected;
    } cases[] = {
        {"u8", [](nbcp_encoder &e, const uint8_t *, const uint8_t *) { nbcp_put_u8(e, 134, 1); },
         hex("00 86 00 01 01")},
        {"u32",
         [](nbcp_encoder &e, const uint8_t *, const uint8_t *) {
             nbcp_put_u32(e, 130, 0xC0A8010A);
         },
         hex("00 82 00 04 C0 A8 01 0A")},
        {"mac", [](nbcp_encoder &e, const uint8_t *m, const uint8_t *) { nbcp_put_mac(e, 131, m); },
         hex("00 83 00 06 00 11 22 33 44 55")},
        {"addr6",
         [](nbcp_encoder &e, const uint8_t *, const uint8_t *a) { nbcp_put_addr6(e, 156, a); },
         hex("00 9C 00 10 F0 F1 F2 F3 F4 F5 F6 F7 F8 F9 FA FB FC FD FE FF")},
        {"string",
         [](nbcp_encoder &e, const uint8_t *, const uint8_t *) {
             nbcp_put_string(e, 142, "ap-1", 31);
         },
         hex("00 8E 00 04 61 70 2D 31")},
        {"empty string",
         [](nbcp_encoder &e, const uint8_t *, const uint8_t *) { nbcp_put_string(e, 141, "", 15); },
         hex("00 8D 00 00")},
        {"end", [](nbcp_encoder &e, const uint8_t *, const uint8_t *) { nbcp_put_end(e); },
         hex("00 00")},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::memset(out, 0xCC, sizeof out);
        nbcp_encoder e{out, 10};
        c.put(e, mac, addr6);
        EXPECT_EQ(written(out, e), c.expected);
        EXPECT_EQ(e.count, 10 + c.expected.size());
        EXPECT_EQ(out[c.expected.size()], 0xCC) << "wrote past the element";
    }
}

TEST(NbcpPut, ReturnsThePositionPastTheElement) {
    uint8_t out[16];
    nbcp_encoder e{out, 0};
    EXPECT_EQ(nbcp_put_u8(e, 1, 2), out + 5);
    EXPECT_EQ(nbcp_put_u32(e, 1, 2), out + 13);
    EXPECT_EQ(nbcp_put_end(e), out + 15);
    EXPECT_EQ(e.count, 15u);
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

TEST(NbcpHdr, DecodeIsTheInverseOfEncode) {
    const std::vector<uint8_t> wire = hex("7F 03 04 0B 01 02 05 06 07 08");
    auto msg = zeroed_msg();
    ASSERT_EQ(nbcp_hdr_decode(wire.data(), wire.size(), msg.get()), 1);
    EXPECT_EQ(msg->kind, 11);
    EXPECT_EQ(msg->m.hdr.type, 11);
    EXPECT_EQ(msg->m.hdr.flag, 0x7F);
    EXPECT_EQ(msg->m.hdr.arg1, 0x0102);
    EXPECT_EQ(msg->m.hdr.arg2, 0x0304);
    EXPECT_EQ(msg->m.hdr.arg3, 0x05060708u);
    uint8_t again[10];
    nbcp_hdr_encode(again, &msg->m.hdr);
    EXPECT_EQ(std::vector<uint8_t>(again, again + 10), wire);
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

TEST(NbcpGet, FixedWidthReadsAreBigEndianAndCountConsumedBytes) {
    const std::vector<uint8_t> in = hex("01 02 03 A0 B0 C0 D0 11 22 33 44 55 66");
    nbcp_decoder d = nbcp_decoder_at(in.data(), in.size(), 0);
    EXPECT_EQ(nbcp_get_u16(d), 0x0102);
    EXPECT_EQ(nbcp_get_u8(d), 0x03);
    EXPECT_EQ(nbcp_get_u32(d), 0xA0B0C0D0u);
    mac_addr mac{};
    nbcp_get_mac(d, mac.data());
    EXPECT_EQ(mac, (mac_addr{0x11, 0x22, 0x33, 0x44, 0x55, 0x66}));
    EXPECT_EQ(d.consumed, 13u);
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

}  // namespace
