// The nbcp builders: golden bytes of the three built messages, and the radio writer at four
// radios and past them. test_nbcp_golden holds the decode of every type and of hostile
// datagrams and lists field by field, and the fuzz targets the round trips.
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

bytes hex(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    bytes out;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return out;
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

}  // namespace
