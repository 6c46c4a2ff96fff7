// Property tests with a fixed seed: records survive build then parse, and the cheap reset of
// the parse record is indistinguishable from clearing all of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "nbcp_test_util.h"
#include "proto/nbcp.h"

namespace {

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
