// The driver link: the messages sent to the driver (golden bytes) and the events it sends,
// hostile ones included, as the receive thread handles them.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/handlers.h"
#include "core/settings.h"
#include "driver_sink.h"
#include "neighbor/driver_cache.h"
#include "neighbor/driver_msg.h"
#include "neighbor_test_util.h"
#include "sandbox.h"
#include "sysinfo/self_ap.h"

namespace {

using namespace ntest;

// Header of every message (host order, little-endian on the build machines): length 48,
// type 27, flags 0, sequence 0, port id 4.
bytes header_and(const bytes &payload_start) {
    constexpr size_t HEADER_LEN = 16, MESSAGE_LEN = 48;
    const uint8_t header[HEADER_LEN] = {48, 0, 0, 0, 27, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0};
    bytes out(MESSAGE_LEN, 0);
    std::copy(header, header + HEADER_LEN, out.begin());
    std::copy_n(payload_start.begin(), std::min(payload_start.size(), MESSAGE_LEN - HEADER_LEN),
                out.begin() + HEADER_LEN);
    return out;
}

const ip6_addr IP6 = ipv6("2001:db8::42");
const mac_addr MAC = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};

// The beacon refresh follows the AP information only while a wireless VAP (athNN) exists.
// First in the file: the VAP count keeps its handle on /sys/class/net for the life of the
// process, and only a first count inside the sandbox sees the sandbox's links.
TEST(DriverBeacon, BeaconRefreshOnlyWithWirelessVap) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        DriverSink sink;
        sandbox::install_command("iwpriv", "echo \"$*\" >> /tmp/iwpriv.calls");
        std::string report;
        for (const char *phase : {"without", "with"}) {
            netlink_set_ipaddr(1);
            report += std::string(phase) + " vap: sent " + std::to_string(sink.take_all().size()) +
                      ", calls [" + sandbox::read_file("/tmp/iwpriv.calls") + "]\n";
            sandbox::sh("ip link add ath01 type veth peer name uplink0");
        }
        return report;
    });
    EXPECT_EQ(result,
              "without vap: sent 1, calls []\n"
              "with vap: sent 1, calls [wifi0 tarn_bcnUpdate 1\nwifi1 tarn_bcnUpdate 1\n]\n");
}

// Every message shares this header and length; the other senders' operation and value bytes
// are checked with the local control requests that send them.
TEST(DriverSend, ApInformationMessageIsExact) {
    SKIP_WITHOUT_NETLINK();
    DriverSink sink;
    ASSERT_TRUE(sink.ready());
    {
        std::lock_guard<std::mutex> guard(self_ap_lock);
        self_ap.ip = 0xc0a8010a;  // 192.168.1.10, host order as self_ap keeps it
        self_ap.info.ip6 = IP6;
        self_ap.mac = MAC;
    }
    bytes ap_info = {1, 7, 0, 0, 0xc0, 0xa8, 0x01, 0x0a};  // then IPv6, MAC, neighbor count
    ap_info.insert(ap_info.end(), IP6.begin(), IP6.end());
    ap_info.insert(ap_info.end(), MAC.begin(), MAC.end());
    ap_info.push_back(20);
    max_ngbr_num = 20;
    EXPECT_EQ(netlink_set_ipaddr(7), 0);
    EXPECT_EQ(sink.take_all(), std::vector<bytes>{header_and(ap_info)});
    max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
    std::lock_guard<std::mutex> guard(self_ap_lock);
    self_ap = neighbor_ap{};
}

const mac_addr A = mac(0x0a);
const mac_addr C = mac(0x0c);

// "ip ip6 state age radiocnt time | id/channel/rssi/bandwidth/txpower per slot" of an entry.
std::string entry_text(const mac_addr &m) {
    entry_copy e = table_entry(m);
    char ip6[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, e.ap.info.ip6.data(), ip6, sizeof ip6);
    char out[512];
    int len = snprintf(out, sizeof out, "%s %s state %u/%u age %u radios %u time %u |",
                       e.ap.ip == e.ap.info.ip ? inet_ntoa(in_addr{e.ap.ip}) : "ip differs", ip6,
                       e.ap.state, e.ap.info.state, e.ap.age, e.ap.info.radiocnt, e.ap.timestamp);
    for (const radio_info &r : e.ap.info.radio) {
        len += snprintf(out + len, sizeof out - len, " %u/%u/%u/%u/%u", r.radioid, r.channel,
                        r.rssi, r.bandwidth, r.txpower);
    }
    return out;
}

// The handler as the receive thread runs it, on datagrams the stand-in driver sends. Probes of
// new neighbors fail here (no send socket); the system tests watch real probes leave.
class DriverEvents : public testing::Test {
  protected:
    void SetUp() override {
        SKIP_WITHOUT_NETLINK();
        ASSERT_TRUE(feed.ready());
        neighbor_aps_clear();
        saved_send_ = sock_send_nbcp;
        sock_send_nbcp = -1;
    }
    void TearDown() override {
        neighbor_aps_clear();
        sock_send_nbcp = saved_send_;
    }
    driver_feed feed;
    int saved_send_ = 0;
};

// A heard neighbor refreshed: addresses moved, RSSI averaged 4:1 unless none was stored, and
// what the neighbor's answer filled in (radio count, power) kept.
TEST_F(DriverEvents, HeardNeighborRefreshed) {
    feed.deliver(heard{A, ipv4("10.0.0.7"), ipv6("2001:db8::7"), 1, 149, 37, 2}.payload());
    ASSERT_TRUE(edit_entry(A, [](neighbor_ap &e) {  // answered, then gone offline
        e.info.radio[1].txpower = 21;
        e.info.radiocnt = 3;
        e.state = e.info.state = AP_STATE_OFFLINE;
        e.age = 106;
    }));
    feed.deliver(heard{A, ipv4("10.0.0.8"), ipv6("2001:db8::8"), 1, 40, 57, 3}.payload());
    feed.deliver(heard{A, ipv4("10.0.0.8"), ipv6("2001:db8::8"), 2, 11, 50, 1}.payload());
    EXPECT_EQ(entry_text(A),
              "10.0.0.8 2001:db8::8 state 0/0 age 100 radios 3 time 0 | 0/0/0/0/0 1/40/41/3/21 "
              "2/11/50/1/0 0/0/0/0/0");
}

// The radio id names one of four slots: 3 is the last; 4 and beyond write no slot, and the
// fields after the slots stay untouched, while the neighbor still counts as heard.
TEST_F(DriverEvents, HeardRadioIdNamesOneOfFourSlots) {
    const std::string three_empty =
        "10.0.0.8 :: state 0/0 age 100 radios 2 time 0 | 0/0/0/0/0 0/0/0/0/0 0/0/0/0/0 ";
    const struct {
        uint8_t first, second;  // radio ids of a first (new) and a second (refresh) event
        std::string last_slot;
    } cases[] = {{3, 3, "3/11/42/2/0"},
                 {4, 3, "3/11/50/2/0"},
                 {3, 4, "3/6/40/1/0"},
                 {255, 255, "0/0/0/0/0"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.first) + " then " + std::to_string(c.second));
        neighbor_aps_clear();
        feed.deliver(heard{A, ipv4("10.0.0.7"), {}, c.first, 6, 40, 1}.payload());
        ASSERT_TRUE(edit_entry(A, [](neighbor_ap &e) { e.age = 50; }));
        feed.deliver(heard{A, ipv4("10.0.0.8"), {}, c.second, 11, 50, 2}.payload());
        EXPECT_EQ(entry_text(A), three_empty + c.last_slot);
        entry_copy e = table_entry(A);
        EXPECT_EQ(e.ap.info.pvc_ip | e.ap.info.cluster_id | e.ap.info.cluster_flag, 0u);
        EXPECT_EQ(e.ap.info.pvc_mac, mac_addr{});
    }
}

TEST_F(DriverEvents, CacheReplyRefreshesKnownAndCreatesUnknownNeighbors) {
    add_entry(A, ipv4("10.0.0.7"), 5);
    ASSERT_TRUE(edit_entry(A, [](neighbor_ap &e) {
        e.info.radio[0].txpower = 17;
        e.age = 103;
        e.state = e.info.state = AP_STATE_OFFLINE;
    }));
    cached known{A, ipv4("10.0.1.7"), ipv6("fe80::7"), {}, 500};
    cached unknown{C, ipv4("10.0.2.3"), ipv6("2001:db8::3"), {}, 900};
    for (uint8_t i = 0; i < AP_RADIO_MAX; ++i) {
        known.radio[i] = unknown.radio[i] = radio_info{i, uint8_t(36 + i), 99, uint8_t(40 + i), i};
    }
    feed.deliver(cache_reply(2, {known, unknown}));
    EXPECT_EQ(entry_text(A),
              "10.0.1.7 fe80::7 state 1/1 age 103 radios 2 time 500 | 0/36/40/0/17 1/37/41/1/0 "
              "2/38/42/2/0 3/39/43/3/0");
    EXPECT_EQ(entry_text(C),
              "10.0.2.3 2001:db8::3 state 0/0 age 100 radios 2 time 900 | 0/36/40/0/99 "
              "1/37/41/1/99 2/38/42/2/99 3/39/43/3/99");
}

TEST_F(DriverEvents, CacheReplyAppliesOnlyEntriesWhollyReceived) {
    const struct {
        const char *name;
        uint8_t count;    // announced
        size_t entries;   // carried whole
        long trim;        // bytes cut from the end (negative: bytes added)
        size_t expected;  // entries applied
    } cases[] = {
        {"all whole", 3, 3, 0, 3},
        {"last one byte short", 3, 3, 1, 2},
        {"count not received", 1, 1, 88 + 4, 0},
        {"trailing bytes after whole entries", 2, 2, -50, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        neighbor_aps_clear();
        std::vector<cached> entries;
        for (size_t i = 0; i < c.entries; ++i) {
            entries.push_back(cached{mac(uint8_t(0x20 + i)), 0, {}, {}, 0});
        }
        bytes payload = cache_reply(c.count, entries);
        payload.resize(payload.size() - c.trim, 0x5A);
        feed.deliver(payload);
        EXPECT_EQ(table_count(), c.expected);
    }
}

}  // namespace
