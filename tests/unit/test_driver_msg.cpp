#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "core/settings.h"
#include "driver_sink.h"
#include "neighbor/driver_msg.h"
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

TEST(DriverMsgBuild, RssiMessageBytes) {
    EXPECT_EQ(built(drv_msg_make(DRV_OP_SET_RSSI, 10)), operation_message(4, 10));
}

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

TEST(LogMac, OnlyWhileDebuggingBelowPriorityEight) {
    setenv("TARN_LOG_STDERR", "1", 1);
    testing::internal::CaptureStderr();
    tarn_debug = 0;
    log_mac(7, kMac);
    tarn_debug = 1;
    log_mac(7, mac_addr{0xde, 0xad, 0xbe, 0xef, 0x00, 0x01});
    std::string log = testing::internal::GetCapturedStderr();
    tarn_debug = 0;
    unsetenv("TARN_LOG_STDERR");
    EXPECT_EQ(log, "mac: de:ad:be:ef:00:01 \n");
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

}  // namespace
