#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "nbcp_test_util.h"
#include "proto/nbcp.h"

namespace {

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

}  // namespace
