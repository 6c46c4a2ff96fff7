#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "nbcp_test_util.h"
#include "proto/nbcp.h"

namespace {

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

TEST(NbcpListRead, EmptyListHasNoEntries) {
    std::vector<ap_info> entries;
    EXPECT_EQ(read_exact(build_list({}), entries, 67), 0u);
    EXPECT_EQ(entries[0].ip, 0u);
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

TEST(NbcpListRead, NullPointersGiveZero) {
    std::vector<uint8_t> reply = build_list({numbered_ap(1)});
    ap_info one{};
    EXPECT_EQ(nbcp_list_read(nullptr, reply.size(), &one, 1), 0u);
    EXPECT_EQ(nbcp_list_read(reply.data(), reply.size(), nullptr, 1), 0u);
    EXPECT_EQ(nbcp_list_read(reply.data(), reply.size(), &one, 1), 1u);
}

TEST(NbcpListRead, ReplyShorterThanItsHeader) {
    std::vector<ap_info> entries;
    EXPECT_EQ(read_exact(hex("00 00 00 00 33"), entries, 4), 0u);
}

}  // namespace
