#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "core/local_msg.h"
#include "nbcp_test_util.h"
#include "proto/nbcp.h"

namespace {

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

TEST(NbcpBuildNdrp, ModeAndAddress6AreCarried) {
    nbcp_ndrp rec{};
    rec.mode = 3;
    rec.ip6[0] = 0xFE;
    rec.ip6[15] = 0x01;
    out_buffer out(NBCP_NDRP_LEN);
    ASSERT_EQ(nbcp_build_ndrp(out.data(), &rec), NBCP_NDRP_LEN);
    EXPECT_EQ(out.bytes[19], 3);     // value of element 129
    EXPECT_EQ(out.bytes[32], 0xFE);  // first byte of element 132's value
    EXPECT_EQ(out.bytes[47], 0x01);
    EXPECT_EQ(nbcp_build_ndrp(nullptr, &rec), 0u);
    EXPECT_EQ(nbcp_build_ndrp(out.data(), nullptr), 0u);
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

TEST(NbcpListPut, MissingPointersWriteNothing) {
    out_buffer out(8);
    EXPECT_EQ(nbcp_list_put(out.data(), nullptr, nullptr, NBCP_LIST_PIECE_HEADER), 0u);
    EXPECT_EQ(nbcp_list_put(out.data(), nullptr, nullptr, NBCP_LIST_PIECE_ENTRY), 0u);
    ap_info info{};
    EXPECT_EQ(nbcp_list_put(nullptr, &info, nullptr, NBCP_LIST_PIECE_ENTRY), 0u);
    EXPECT_TRUE(out.untouched_after(0));
}

TEST(LocalMsgHdr, HostOrderLayout) {
    local_msg_hdr hdr{};
    hdr.value = 200;
    hdr.op = TARN_MSG_SET_NGBR_NUM;
    uint8_t raw[8];
    std::memcpy(raw, &hdr, sizeof raw);
    uint16_t op;
    std::memcpy(&op, raw + 4, 2);
    EXPECT_EQ(raw[0], 200);
    EXPECT_EQ(op, 12);
    EXPECT_EQ(TARN_MSG_NGBR_INFO, 1);
    EXPECT_EQ(TARN_MSG_DUMP_IP, 10);
    EXPECT_EQ(TARN_MSG_LIST_REPLY, 51);
}

}  // namespace
