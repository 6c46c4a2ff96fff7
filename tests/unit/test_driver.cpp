// The driver link: messages to the driver and the events it sends.
#include <gtest/gtest.h>

#include <array>
#include <ostream>
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

using bytes = std::vector<uint8_t>;

bytes built(const drv_msg &payload) {
    std::array<uint8_t, DRV_NL_MSG_LEN> out;
    out.fill(0xee);
    driver_msg_build(payload, out.data());
    return bytes(out.begin(), out.end());
}

// Header of every message: length 48, type 27, flags 0, sequence 0, port id 4 (little endian
// host, as on this build machine).
bytes header_bytes() {
    return {48, 0, 0, 0, 27, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0};
}

bytes operation_message(uint8_t operation, uint8_t value) {
    bytes expected = header_bytes();
    bytes payload(32, 0);
    payload[0] = operation;
    payload[1] = value;
    expected.insert(expected.end(), payload.begin(), payload.end());
    return expected;
}

void set_self(uint32_t ip_host, const ip6_addr &ip6, const mac_addr &mac) {
    std::lock_guard<std::mutex> guard(self_ap_lock);
    self_ap.ip = ip_host;
    self_ap.info.ip6 = ip6;
    self_ap.mac = mac;
}

const ip6_addr kIp6{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x42};
const mac_addr kMac{0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};

TEST(DriverMsgBuild, ApInfoCarriesAddressMacAndLimit) {
    neighbor_ap self{};
    self.ip = 0xc0a8010a;  // 192.168.1.10, host order as self_ap keeps it
    self.info.ip6 = kIp6;
    self.mac = kMac;
    bytes msg = built(drv_msg_ap_info(3, self, 33));
    ASSERT_EQ(msg.size(), 48u);
    EXPECT_EQ(bytes(msg.begin(), msg.begin() + 16), header_bytes());
    const uint8_t *payload = msg.data() + 16;
    EXPECT_EQ(payload[0], 1);
    EXPECT_EQ(payload[1], 3);
    EXPECT_EQ(payload[2], 0);
    EXPECT_EQ(payload[3], 0);
    EXPECT_EQ(bytes(payload + 4, payload + 8), (bytes{0xc0, 0xa8, 0x01, 0x0a}));
    EXPECT_EQ(bytes(payload + 8, payload + 24), bytes(kIp6.begin(), kIp6.end()));
    EXPECT_EQ(bytes(payload + 24, payload + 30), bytes(kMac.begin(), kMac.end()));
    EXPECT_EQ(payload[30], 33);
    EXPECT_EQ(payload[31], 0);
}

class DriverSend : public testing::Test {
  protected:
    void SetUp() override {
        SKIP_WITHOUT_NETLINK();
        ASSERT_TRUE(sink_.ready()) << "cannot bind a NETLINK_USERSOCK socket";
    }
    DriverSink sink_;
};

TEST_F(DriverSend, OperationSendersDeliverExactMessages) {
    struct Case {
        int (*send)();
        bytes expected;
    };
    const Case cases[] = {
        {[] { return netlink_set_rssi(10); }, operation_message(4, 10)},
        {[] { return netlink_set_rssi(200); }, operation_message(4, 200)},
        {[] { return netlink_set_max_ngbr_num(16); }, operation_message(5, 16)},
        {[] { return netlink_aps_get(); }, operation_message(2, 0)},
    };
    for (const Case &c : cases) {
        ASSERT_EQ(c.send(), 0);
        std::vector<bytes> got = sink_.take_all();
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0], c.expected);
    }
}

TEST_F(DriverSend, ApInfoSenderReadsSelfApAndLimit) {
    set_self(0xc0a8010a, kIp6, kMac);
    max_ngbr_num = 20;
    ASSERT_EQ(netlink_set_ipaddr(7), 0);
    max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
    std::vector<bytes> got = sink_.take_all();
    set_self(0, ip6_addr{}, mac_addr{});
    ASSERT_EQ(got.size(), 1u);
    neighbor_ap self{};
    self.ip = 0xc0a8010a;
    self.info.ip6 = kIp6;
    self.mac = kMac;
    EXPECT_EQ(got[0], built(drv_msg_ap_info(7, self, 20)));
}

TEST_F(DriverSend, LogLinesNameTheSender) {
    setenv("TARN_LOG_STDERR", "1", 1);
    tarn_debug = 1;
    set_self(0x0a000001, ip6_addr{}, kMac);
    ap_ip = 0x0100000a;
    testing::internal::CaptureStderr();
    netlink_set_rssi(9);
    netlink_set_max_ngbr_num(30);
    netlink_set_ipaddr(1);
    std::string log = testing::internal::GetCapturedStderr();
    tarn_debug = 0;
    unsetenv("TARN_LOG_STDERR");
    ap_ip = 0;
    set_self(0, ip6_addr{}, mac_addr{});
    sink_.take_all();
    EXPECT_NE(log.find("netlink_set_rssi: set rssi limit:9\n"), std::string::npos) << log;
    EXPECT_NE(log.find("netlink_set_max_ngbr_num: set dynamic neighbor num:30\n"),
              std::string::npos);
    EXPECT_NE(log.find("netlink_set_ipaddr: 100000a,a000001,100000a,32\n"), std::string::npos)
        << log;
    EXPECT_NE(log.find("netlink_set_ipaddr: ip6: ::\n"), std::string::npos);
    EXPECT_NE(log.find("mac: 00:11:22:aa:bb:cc \n"), std::string::npos);
    EXPECT_NE(log.find("netlink_set_ipaddr: send ap info to driver.\n"), std::string::npos);
}

// With no descriptor left, no sender can open its socket.
int send_without_descriptors(int (*send)()) {
    setenv("TARN_LOG_STDERR", "1", 1);
    tarn_debug = 1;
    sandbox::exhaust_descriptors();
    return send();
}

TEST(DriverSendDeathTest, NoSocketGivesMinusOneAndErrorLog) {
    EXPECT_EXIT(_exit(send_without_descriptors([] { return netlink_set_rssi(10); }) == -1 ? 7 : 1),
                testing::ExitedWithCode(7), "netlink_set_rssi: Create netlink socket failed!");
    EXPECT_EXIT(_exit(send_without_descriptors([] { return netlink_aps_get(); }) == -1 ? 7 : 1),
                testing::ExitedWithCode(7), "netlink_aps_get: Create netlink socket failed!");
    EXPECT_EXIT(_exit(send_without_descriptors([] { return netlink_set_ipaddr(1); }) == -1 ? 7 : 1),
                testing::ExitedWithCode(7), "netlink_set_ipaddr: Create netlink socket failed!");
}

// Beacon refresh after the AP information: only with a wireless VAP (a link named athNN).
TEST(DriverSendSandbox, BeaconRefreshOnlyWithWirelessVap) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        DriverSink sink;
        if (!sink.ready()) {
            return std::string("no sink");
        }
        sandbox::install_command("iwpriv", "echo \"$*\" >> /tmp/iwpriv.calls");
        std::string report;
        netlink_set_ipaddr(1);
        report += "without vap: sent " + std::to_string(sink.take_all().size()) + ", calls [" +
                  sandbox::read_file("/tmp/iwpriv.calls") + "]\n";
        if (!sandbox::sh("ip link add ath01 type veth peer name uplink0")) {
            return std::string("cannot create ath01");
        }
        netlink_set_ipaddr(1);
        report += "with vap: sent " + std::to_string(sink.take_all().size()) + ", calls [" +
                  sandbox::read_file("/tmp/iwpriv.calls") + "]\n";
        return report;
    });
    EXPECT_EQ(result,
              "without vap: sent 1, calls []\n"
              "with vap: sent 1, calls [wifi0 tarn_bcnUpdate 1\nwifi1 tarn_bcnUpdate 1\n]\n");
}

// Driver events as the receive thread handles them: crafted netlink datagrams on the driver
// socket, and the neighbor table, the probes and the log lines they lead to.
using namespace ntest;

const mac_addr A = mac(0x0a);
const mac_addr B = mac(0x0b);
const mac_addr C = mac(0x0c);

// The handler as the receive thread runs it, on one datagram the stand-in driver sent.
class DriverEvents : public testing::Test {
  protected:
    void SetUp() override {
        SKIP_WITHOUT_NETLINK();
        ASSERT_TRUE(feed.ready()) << "netlink user sockets are needed";
        neighbor_aps_clear();
        max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
        set_ipaddr = 0;
        // Probes of new neighbors must not leave this process: their sends fail here. The
        // sandboxed tests below watch the probes themselves.
        saved_send_ = sock_send_nbcp;
        sock_send_nbcp = -1;
    }
    void TearDown() override {
        neighbor_aps_clear();
        max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
        set_ipaddr = 0;
        sock_send_nbcp = saved_send_;
    }

    std::string deliver(const bytes &payload) {
        feed.send_event(payload);
        return logged([] { hand_receive(); });
    }

    driver_feed feed;

  private:
    int saved_send_ = 0;
};

TEST_F(DriverEvents, HeardNewNeighborIsCreatedFromTheEvent) {
    heard h{A, ipv4("10.0.0.7"), ipv6("2001:db8::7"), 1, 149, 37, 2};
    std::string log = deliver(h.payload());

    entry_copy e = table_entry(A);
    ASSERT_TRUE(e.found);
    EXPECT_EQ(table_count(), 1u);
    EXPECT_EQ(e.ap.mac, A);
    EXPECT_EQ(e.ap.info.mac, A);
    EXPECT_EQ(e.ap.ip, ipv4("10.0.0.7"));
    EXPECT_EQ(e.ap.info.ip, ipv4("10.0.0.7"));
    EXPECT_EQ(e.ap.info.ip6, ipv6("2001:db8::7"));
    EXPECT_EQ(e.ap.state, AP_STATE_ACTIVE);
    EXPECT_EQ(e.ap.info.state, AP_STATE_ACTIVE);
    EXPECT_EQ(e.ap.age, 100u);
    EXPECT_EQ(e.ap.timestamp, 0u);
    EXPECT_EQ(e.ap.info.radiocnt, 2);
    const radio_info &r = e.ap.info.radio[1];
    EXPECT_EQ(r.radioid, 1);
    EXPECT_EQ(r.channel, 149);
    EXPECT_EQ(r.rssi, 37);
    EXPECT_EQ(r.bandwidth, 2);
    EXPECT_EQ(r.txpower, 0);
    for (int slot : {0, 2, 3}) {
        EXPECT_EQ(e.ap.info.radio[slot].channel, 0) << slot;
        EXPECT_EQ(e.ap.info.radio[slot].rssi, 0) << slot;
    }

    EXPECT_NE(log.find("hand_receive: hand op is 1\n"), std::string::npos) << log;
    EXPECT_NE(log.find("hand_receive: neighbor is not existed, add it!\n"), std::string::npos);
    EXPECT_NE(log.find("channel: 149\nradioid: 1\nrssi: 37\n"), std::string::npos) << log;
    EXPECT_NE(log.find("ip: 10.0.0.7\n"), std::string::npos) << log;
    EXPECT_NE(log.find("ipv6 addr:[2001:db8::7]\n"), std::string::npos) << log;
    // The new neighbor is probed at its IPv4 address.
    EXPECT_NE(log.find("send_ndrp_by_ip4: dest ip is 700000a\n"), std::string::npos) << log;
}

struct rssi_case {
    uint8_t stored;
    uint8_t reported;
    uint8_t expected;
};

class HeardRssi : public DriverEvents, public testing::WithParamInterface<rssi_case> {};

TEST_P(HeardRssi, RefreshAveragesFourToOne) {
    const rssi_case c = GetParam();
    deliver(heard{A, ipv4("10.0.0.7"), {}, 0, 36, c.stored, 1}.payload());
    ASSERT_EQ(table_entry(A).ap.info.radio[0].rssi, c.stored) << "created as reported";
    std::string log = deliver(heard{A, ipv4("10.0.0.7"), {}, 0, 36, c.reported, 1}.payload());
    EXPECT_EQ(table_entry(A).ap.info.radio[0].rssi, c.expected);
    EXPECT_NE(log.find("hand_receive: neighbor is existed, update the timestamp!\n"),
              std::string::npos);
    EXPECT_EQ(log.find("dest ip is"), std::string::npos) << "a refresh sends no probe";
}

INSTANTIATE_TEST_SUITE_P(Averages, HeardRssi,
                         testing::Values(rssi_case{40, 50, 42}, rssi_case{0, 50, 50},
                                         rssi_case{50, 0, 40}, rssi_case{255, 255, 255},
                                         rssi_case{1, 200, 40}));

TEST_F(DriverEvents, RefreshMovesAddressesAndKeepsWhatTheNeighborSaid) {
    deliver(heard{A, ipv4("10.0.0.7"), ipv6("2001:db8::7"), 0, 36, 40, 1}.payload());
    ASSERT_TRUE(edit_entry(A, [](neighbor_ap &e) {
        // What the neighbor's answer and the driver's cache filled in.
        for (int i = 0; i < AP_RADIO_MAX; ++i) {
            e.info.radio[i].txpower = static_cast<uint8_t>(20 + i);
        }
        e.info.radio[2] = radio_info{2, 11, 22, 33, 1};
        strcpy(e.info.name, "ap-east");
        strcpy(e.info.version, "5.2.1");
        strcpy(e.info.tenantId, "tenant-9");
        e.info.radiocnt = 3;
        e.timestamp = 77;
        e.info.pvc_ip = ipv4("10.9.9.9");
        e.info.cluster_id = 12;
    }));

    deliver(heard{A, ipv4("10.0.0.8"), ipv6("2001:db8::8"), 0, 40, 50, 3}.payload());

    entry_copy e = table_entry(A);
    EXPECT_EQ(e.ap.ip, ipv4("10.0.0.8"));
    EXPECT_EQ(e.ap.info.ip, ipv4("10.0.0.8"));
    EXPECT_EQ(e.ap.info.ip6, ipv6("2001:db8::8"));
    EXPECT_EQ(e.ap.info.radio[0].channel, 40);
    EXPECT_EQ(e.ap.info.radio[0].rssi, 42);
    EXPECT_EQ(e.ap.info.radio[0].bandwidth, 3);
    for (int i = 0; i < AP_RADIO_MAX; ++i) {
        EXPECT_EQ(e.ap.info.radio[i].txpower, 20 + i) << i;
    }
    EXPECT_EQ(e.ap.info.radio[2].channel, 11);
    EXPECT_EQ(e.ap.info.radio[2].rssi, 33);
    EXPECT_STREQ(e.ap.info.name, "ap-east");
    EXPECT_STREQ(e.ap.info.version, "5.2.1");
    EXPECT_STREQ(e.ap.info.tenantId, "tenant-9");
    EXPECT_EQ(e.ap.info.radiocnt, 3);
    EXPECT_EQ(e.ap.timestamp, 77u);
    EXPECT_EQ(e.ap.info.pvc_ip, ipv4("10.9.9.9"));
    EXPECT_EQ(e.ap.info.cluster_id, 12u);
    EXPECT_EQ(table_count(), 1u);
}

TEST_F(DriverEvents, HeardOfflineNeighborBecomesActive) {
    deliver(heard{A, ipv4("10.0.0.7"), {}, 0, 36, 40, 1}.payload());
    ASSERT_TRUE(edit_entry(A, [](neighbor_ap &e) {
        e.state = AP_STATE_OFFLINE;
        e.info.state = AP_STATE_OFFLINE;
        e.age = 106;
    }));
    deliver(heard{A, ipv4("10.0.0.7"), {}, 0, 36, 40, 1}.payload());
    entry_copy e = table_entry(A);
    EXPECT_EQ(e.ap.state, AP_STATE_ACTIVE);
    EXPECT_EQ(e.ap.info.state, AP_STATE_ACTIVE);
    EXPECT_EQ(e.ap.age, 100u);
}

// A radio id naming no slot: the neighbor was heard, so it is created or refreshed, but no
// radio slot (and nothing behind the four slots) is written.
class HeardBadRadio : public DriverEvents, public testing::WithParamInterface<uint8_t> {};

TEST_P(HeardBadRadio, NewEntryIsCreatedWithoutRadioFacts) {
    const uint8_t radioid = GetParam();
    std::string log = deliver(heard{A, ipv4("10.0.0.7"), {}, radioid, 36, 40, 1}.payload());
    entry_copy e = table_entry(A);
    ASSERT_TRUE(e.found);
    EXPECT_EQ(e.ap.info.ip, ipv4("10.0.0.7"));
    EXPECT_EQ(e.ap.age, 100u);
    EXPECT_EQ(e.ap.info.radiocnt, 2);
    for (int i = 0; i < AP_RADIO_MAX; ++i) {
        EXPECT_EQ(e.ap.info.radio[i].channel, 0) << i;
        EXPECT_EQ(e.ap.info.radio[i].rssi, 0) << i;
        EXPECT_EQ(e.ap.info.radio[i].radioid, 0) << i;
    }
    EXPECT_EQ(e.ap.info.pvc_ip, 0u);
    EXPECT_EQ(e.ap.info.cluster_id, 0u);
    EXPECT_EQ(e.ap.info.pvc_mac, mac_addr{});
    std::string expected = "hand_receive: radio id " + std::to_string(radioid) +
                           " out of range, radio facts not stored\n";
    EXPECT_NE(log.find(expected), std::string::npos) << log;
}

TEST_P(HeardBadRadio, KnownEntryRefreshesAddressesStateAndAgeOnly) {
    const uint8_t radioid = GetParam();
    deliver(heard{A, ipv4("10.0.0.7"), {}, 1, 36, 40, 1}.payload());
    ASSERT_TRUE(edit_entry(A, [](neighbor_ap &e) {
        e.state = AP_STATE_OFFLINE;
        e.info.state = AP_STATE_OFFLINE;
        e.age = 104;
        e.info.pvc_ip = 0x01020304;
        e.info.cluster_id = 0x05060708;
    }));
    deliver(heard{A, ipv4("10.0.0.9"), ipv6("2001:db8::9"), radioid, 99, 99, 9}.payload());
    entry_copy e = table_entry(A);
    EXPECT_EQ(e.ap.info.ip, ipv4("10.0.0.9"));
    EXPECT_EQ(e.ap.ip, ipv4("10.0.0.9"));
    EXPECT_EQ(e.ap.info.ip6, ipv6("2001:db8::9"));
    EXPECT_EQ(e.ap.state, AP_STATE_ACTIVE);
    EXPECT_EQ(e.ap.age, 100u);
    EXPECT_EQ(e.ap.info.radio[1].channel, 36);
    EXPECT_EQ(e.ap.info.radio[1].rssi, 40);
    EXPECT_EQ(e.ap.info.pvc_ip, 0x01020304u);
    EXPECT_EQ(e.ap.info.cluster_id, 0x05060708u);
}

INSTANTIATE_TEST_SUITE_P(RadioIds, HeardBadRadio, testing::Values(4, 5, 255));

TEST_F(DriverEvents, ConfigOkSetsTheFlagEveryTime) {
    for (uint32_t before : {0u, 1u}) {
        set_ipaddr = before;
        std::string log = deliver(bytes{2});
        EXPECT_EQ(set_ipaddr.load(), 1u) << before;
        EXPECT_EQ(log, "hand_receive: hand op is 2\nhand_receive: netlink set config ok!\n");
    }
}

TEST_F(DriverEvents, UnknownMacAndDriverBoundOperationsChangeNothing) {
    add_entry(A, ipv4("10.0.0.7"));
    for (uint8_t op : {4, 5, 6, 0, 7, 255}) {
        std::string log = deliver(op_with_mac(op, B));
        EXPECT_EQ(log, "hand_receive: hand op is " + std::to_string(op) + "\n");
        EXPECT_EQ(table_count(), 1u) << int(op);
        EXPECT_TRUE(table_entry(A).found) << int(op);
    }
}

TEST_F(DriverEvents, DroppedNeighborIsDeleted) {
    add_entry(A, ipv4("10.0.0.7"));
    add_entry(B, ipv4("10.0.0.8"));
    std::string log = deliver(op_with_mac(6, A));
    EXPECT_FALSE(table_entry(A).found);
    EXPECT_TRUE(table_entry(B).found);
    EXPECT_EQ(table_count(), 1u);
    EXPECT_EQ(log, "hand_receive: hand op is 6\nhand_receive: delete neighbor\n");
}

TEST_F(DriverEvents, ShortDatagramReadsZerosNotTheLastOne) {
    // A full event leaves A's MAC at bytes 24-29 of the buffer; a later one-byte delete must
    // not see it.
    deliver(heard{A, ipv4("10.0.0.7"), {}, 0, 36, 40, 1}.payload());
    deliver(bytes{6});
    EXPECT_TRUE(table_entry(A).found);
    // A header alone, or less than a header: operation 0, nothing happens.
    feed.send_raw(bytes(16, 0));
    EXPECT_EQ(logged([] { hand_receive(); }), "hand_receive: hand op is 0\n");
    feed.send_raw(bytes{1, 0, 0});
    EXPECT_EQ(logged([] { hand_receive(); }), "hand_receive: hand op is 0\n");
    EXPECT_EQ(table_count(), 1u);
    // Operation 1 cut after the IPv4 address: an entry with a zero MAC and no radio facts.
    bytes cut = heard{B, ipv4("10.0.0.8"), {}, 2, 36, 40, 1}.payload();
    cut.resize(8);
    deliver(cut);
    entry_copy e = table_entry(mac_addr{});
    ASSERT_TRUE(e.found);
    EXPECT_EQ(e.ap.info.ip, ipv4("10.0.0.8"));
    EXPECT_EQ(e.ap.info.radio[2].channel, 0);
}

TEST_F(DriverEvents, CacheReplyMovesKnownNeighborAndKeepsItsOwnFacts) {
    add_entry(A, ipv4("10.0.0.7"), 5);
    ASSERT_TRUE(edit_entry(A, [](neighbor_ap &e) {
        for (int i = 0; i < AP_RADIO_MAX; ++i) {
            e.info.radio[i].txpower = static_cast<uint8_t>(17 + i);
        }
        e.age = 103;
        e.state = AP_STATE_OFFLINE;
        e.info.state = AP_STATE_OFFLINE;
        strcpy(e.info.name, "ap-west");
    }));
    cached c{A, ipv4("10.0.1.7"), ipv6("fe80::7"), {}, 500};
    for (int i = 0; i < AP_RADIO_MAX; ++i) {
        uint8_t v = static_cast<uint8_t>(i + 1);
        c.radio[i] =
            radio_info{v, static_cast<uint8_t>(36 + v), 99, static_cast<uint8_t>(40 + v), v};
    }
    std::string log = deliver(cache_reply(1, {c}));

    entry_copy e = table_entry(A);
    EXPECT_EQ(e.ap.ip, ipv4("10.0.1.7"));
    EXPECT_EQ(e.ap.info.ip, ipv4("10.0.1.7"));
    EXPECT_EQ(e.ap.info.ip6, ipv6("fe80::7"));
    for (int i = 0; i < AP_RADIO_MAX; ++i) {
        EXPECT_EQ(e.ap.info.radio[i].radioid, i + 1) << i;
        EXPECT_EQ(e.ap.info.radio[i].channel, 37 + i) << i;
        EXPECT_EQ(e.ap.info.radio[i].rssi, 41 + i) << i;
        EXPECT_EQ(e.ap.info.radio[i].bandwidth, i + 1) << i;
        EXPECT_EQ(e.ap.info.radio[i].txpower, 17 + i) << i;
    }
    EXPECT_EQ(e.ap.timestamp, 500u);
    EXPECT_EQ(e.ap.age, 103u);
    EXPECT_EQ(e.ap.state, AP_STATE_OFFLINE);
    EXPECT_EQ(e.ap.info.state, AP_STATE_OFFLINE);
    EXPECT_STREQ(e.ap.info.name, "ap-west");
    EXPECT_EQ(log.find("dest ip is"), std::string::npos) << "a known neighbor is not probed";
}

TEST_F(DriverEvents, CacheReplyCreatesUnknownNeighbor) {
    cached c{C, ipv4("10.0.2.3"), ipv6("2001:db8::3"), {}, 900};
    c.radio[0] = radio_info{0, 6, 18, 45, 1};
    c.radio[3] = radio_info{3, 161, 23, 30, 4};
    std::string log = deliver(cache_reply(1, {c}));

    entry_copy e = table_entry(C);
    ASSERT_TRUE(e.found);
    EXPECT_EQ(e.ap.info.mac, C);
    EXPECT_EQ(e.ap.ip, ipv4("10.0.2.3"));
    EXPECT_EQ(e.ap.info.ip, ipv4("10.0.2.3"));
    EXPECT_EQ(e.ap.info.ip6, ipv6("2001:db8::3"));
    EXPECT_EQ(e.ap.info.radiocnt, 2);
    EXPECT_EQ(e.ap.state, AP_STATE_ACTIVE);
    EXPECT_EQ(e.ap.age, 100u);
    EXPECT_EQ(e.ap.timestamp, 900u);
    // Whole records, transmit power included.
    EXPECT_EQ(e.ap.info.radio[0].txpower, 18);
    EXPECT_EQ(e.ap.info.radio[0].rssi, 45);
    EXPECT_EQ(e.ap.info.radio[3].channel, 161);
    EXPECT_EQ(e.ap.info.radio[3].txpower, 23);
    EXPECT_NE(log.find("hand_receive: get neighbors cache ok:1\nneighbor is not exist, add it!\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(count_of(log, "send_ndrp_by_ip4: dest ip is 302000a\n"), 1) << log;
}

struct partial_case {
    const char *name;
    uint8_t count;     // announced
    size_t entries;    // carried whole
    long trim;         // bytes cut from the end of the message (negative: bytes added)
    size_t expected;   // entries applied
    int logged_count;  // the count byte as read (0 when it was not received)
};

void PrintTo(const partial_case &c, std::ostream *os) {
    *os << c.name;
}

class CacheReplyBounds : public DriverEvents, public testing::WithParamInterface<partial_case> {};

TEST_P(CacheReplyBounds, OnlyEntriesWhollyReceivedAreApplied) {
    const partial_case c = GetParam();
    std::vector<cached> entries;
    for (size_t i = 0; i < c.entries; ++i) {
        entries.push_back(cached{mac(static_cast<uint8_t>(0x20 + i)), 0, {}, {}, 0});
    }
    bytes payload = cache_reply(c.count, entries);
    if (c.trim >= 0) {
        payload.resize(payload.size() - static_cast<size_t>(c.trim));
    } else {
        payload.resize(payload.size() + static_cast<size_t>(-c.trim), 0x5A);
    }
    std::string log = deliver(payload);
    EXPECT_EQ(table_count(), c.expected) << c.name;
    for (size_t i = 0; i < c.entries; ++i) {
        EXPECT_EQ(table_entry(mac(static_cast<uint8_t>(0x20 + i))).found, i < c.expected)
            << c.name << " entry " << i;
    }
    EXPECT_NE(log.find("get neighbors cache ok:" + std::to_string(c.logged_count) + "\n"),
              std::string::npos)
        << log;
}

INSTANTIATE_TEST_SUITE_P(
    Cuts, CacheReplyBounds,
    testing::Values(partial_case{"all whole", 3, 3, 0, 3, 3},
                    partial_case{"last one byte short", 3, 3, 1, 2, 3},
                    partial_case{"last entry missing", 3, 2, 0, 2, 3},
                    partial_case{"only the header", 5, 0, 0, 0, 5},
                    partial_case{"count received, entry area cut", 1, 1, 88 + 3, 0, 1},
                    partial_case{"count not received", 1, 1, 88 + 4, 0, 0},
                    partial_case{"more carried than announced", 1, 3, 0, 1, 1},
                    partial_case{"trailing bytes after whole entries", 2, 2, -50, 2, 2}));

TEST_F(DriverEvents, CacheReplyOfAFullTableReplacesTheOldest) {
    max_ngbr_num = 16;
    for (uint8_t i = 0; i < 16; ++i) {
        add_entry(mac(i, 0x50), ipv4("10.0.3.1"), 100u + i);  // the last one is the oldest
    }
    deliver(cache_reply(1, {cached{C, ipv4("10.0.3.9"), {}, {}, 1}}));
    EXPECT_EQ(table_count(), 16u);
    EXPECT_TRUE(table_entry(C).found);
    EXPECT_FALSE(table_entry(mac(15, 0x50)).found);
}

// Probes really leave: these run in a network namespace of their own with a listener on the
// nbcp port, since the probes go to port 32766.
TEST(DriverEventProbes, TwoEventsForOneNewNeighborProbeOnce) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        driver_feed feed;
        probe_listener listen;
        sock_send_nbcp = open_probe_socket();
        heard h{A, ipv4("127.0.0.7"), {}, 0, 36, 40, 1};
        feed.send_event(h.payload());
        hand_receive();
        h.rssi = 50;
        feed.send_event(h.payload());
        hand_receive();
        entry_copy e = table_entry(A);
        return listen.drain() + " | radiocnt " + std::to_string(e.ap.info.radiocnt) + " rssi " +
               std::to_string(e.ap.info.radio[0].rssi);
    });
    EXPECT_EQ(seen, "127.0.0.7 type 10 mode 0 | radiocnt 2 rssi 42");
}

TEST(DriverEventProbes, NeighborKnownOnlyByIpv6IsProbedOverIpv6) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        driver_feed feed;
        probe_capture capture;
        sock_send_nbcp = open_probe_socket();
        sock6_nbcp = socket(AF_INET6, SOCK_DGRAM, 0);
        feed.send_event(heard{A, 0, ipv6("::1"), 0, 36, 40, 1}.payload());
        hand_receive();
        auto got = capture.next(300);
        if (!got || got->v4 || got->bytes.size() < 4) {
            return std::string("no IPv6 probe");
        }
        return "probe of " + std::to_string(got->bytes.size()) + " bytes, type " +
               std::to_string(got->bytes[3]);
    });
    EXPECT_EQ(seen, "probe of 60 bytes, type 10");
}

TEST(DriverEventProbes, CacheReplyProbesOnlyTheNewNeighbors) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        driver_feed feed;
        probe_listener listen;
        sock_send_nbcp = open_probe_socket();
        add_entry(A, ipv4("127.0.0.10"));
        feed.send_event(cache_reply(
            3, {cached{A, ipv4("127.0.0.11"), {}, {}, 1}, cached{B, ipv4("127.0.0.12"), {}, {}, 2},
                cached{C, ipv4("127.0.0.13"), {}, {}, 3}}));
        hand_receive();
        return listen.drain() + " | count " + std::to_string(table_count());
    });
    EXPECT_EQ(seen, "127.0.0.12 type 10 mode 0; 127.0.0.13 type 10 mode 0 | count 3");
}

TEST(DriverEventProbes, NeighborRefusedByAFullTableIsProbedAndNotKept) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        driver_feed feed;
        probe_listener listen;
        sock_send_nbcp = open_probe_socket();
        max_ngbr_num = 16;
        for (uint8_t i = 0; i < 16; ++i) {
            add_entry(mac(i, 0x60), ipv4("127.0.0.1"));  // timestamp 0: none replaceable
        }
        feed.send_event(heard{A, ipv4("127.0.0.20"), {}, 0, 36, 40, 1}.payload());
        hand_receive();
        std::string kept = table_entry(A).found ? "kept" : "not kept";
        return listen.drain() + " | " + kept + " | count " + std::to_string(table_count());
    });
    EXPECT_EQ(seen, "127.0.0.20 type 10 mode 0 | not kept | count 16");
}

}  // namespace
