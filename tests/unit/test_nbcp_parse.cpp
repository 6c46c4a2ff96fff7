#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "nbcp_test_util.h"
#include "proto/nbcp.h"

namespace {

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

TEST(NbcpParse, ProbeAddress6IsNotStored) {
    std::vector<uint8_t> dg = tlv_bytes::message(10)
                                  .u8(129, 3)
                                  .el(132, std::vector<uint8_t>(16, 0xFE))
                                  .u32(130, 0x0A000005)
                                  .end()
                                  .bytes();
    auto msg = zeroed_msg();
    EXPECT_EQ(parse_captured(dg, msg.get()).result, 1);
    EXPECT_EQ(msg->m.ndrp.ip6, ip6_addr{});
    EXPECT_EQ(msg->m.ndrp.mode, 3);
    EXPECT_EQ(msg->m.ndrp.ip, 0x0A000005u) << "the element after 132 is read in step";
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

TEST(NbcpParse, NullPointersGiveZeroAndPrintNothing) {
    auto msg = zeroed_msg();
    testing::internal::CaptureStdout();
    EXPECT_EQ(nbcp_parse(nullptr, 60, msg.get()), 0);
    EXPECT_EQ(nbcp_parse(GOLDEN_NDRP.data(), GOLDEN_NDRP.size(), nullptr), 0);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(nbcp_decode(nullptr, 0, msg.get()), 0);
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

TEST(NbcpParse, BodyWithOnlyTheTerminatorSetsOnlyKindAndHeader) {
    std::vector<uint8_t> dg = hex("05 00 07 0B 00 09 00 00 00 0C 00 00");
    auto msg = zeroed_msg();
    EXPECT_EQ(parse_captured(dg, msg.get()).result, 1);
    EXPECT_EQ(msg->kind, 11);
    EXPECT_EQ(msg->m.hdr.flag, 5);
    EXPECT_EQ(msg->m.hdr.arg2, 7);
    EXPECT_EQ(msg->m.hdr.arg1, 9);
    EXPECT_EQ(msg->m.hdr.arg3, 12u);
    const nbcp_ndsp &rec = msg->m.ndsp;
    EXPECT_TRUE(all_zero(reinterpret_cast<const uint8_t *>(&rec) + sizeof(nbcp_hdr),
                         sizeof rec - sizeof(nbcp_hdr)));
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

TEST(NbcpParseNdsp, UnknownElementOfLength300IsSkippedWhole) {
    std::vector<uint8_t> dg =
        tlv_bytes::message(11).u8(135, 1).filler(0x1234, 300).u8(140, 3).end().bytes();
    auto msg = zeroed_msg();
    parse_captured(dg, msg.get());
    EXPECT_EQ(msg->m.ndsp.mode, 1);
    EXPECT_EQ(msg->m.ndsp.info.state, 3);
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

// An answer in the order this daemon writes it, whose tenant string makes the version element
// start after `before_version` consumed bytes.
std::vector<uint8_t> version_after(uint16_t before_version) {
    tlv_bytes t = tlv_bytes::message(11);
    t.u8(134, 1).u8(135, 0).u32(136, 1).bytes(137, mac_addr{}).u32(150, 0).u32(151, 0);
    t.bytes(152, mac_addr{}).u8(153, 0).u32(138, 0).bytes(156, ip6_addr{}).u32(149, 0);
    t.bytes(139, mac_addr{}).u8(140, 0);
    t.str(154, std::string(before_version - 110 - 4, 't'));
    return t.str(141, "1.0").str(142, "ap").end().bytes();
}

TEST(NbcpParseNdsp, LimitHoldsForElementsInTheUsualOrder) {
    auto msg = zeroed_msg();
    parse_captured(version_after(1007), msg.get());
    EXPECT_STREQ(msg->m.ndsp.info.version, "1.0");
    msg = zeroed_msg();
    parse_captured(version_after(1008), msg.get());
    EXPECT_STREQ(msg->m.ndsp.info.version, "");
    EXPECT_EQ(msg->m.ndsp.kind_flag, 1);
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

}  // namespace
