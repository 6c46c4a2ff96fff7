#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "driver_sink.h"
#include "neighbor/driver_msg.h"
#include "sandbox.h"
#include "sysinfo/sysinfo.h"

namespace {

std::string ip6_text(const uint8_t *bytes) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, bytes, text, sizeof text);
    return text;
}

std::string ip4_text(uint32_t network_order) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &network_order, text, sizeof text);
    return text;
}

bool log_has(const std::string &line) {
    return sandbox::log_text().find(line) != std::string::npos;
}

TEST(HexToBytes, LowerCaseDigitsPairwise) {
    uint8_t out[4] = {9, 9, 9, 9};
    EXPECT_TRUE(hex_to_bytes("00ff7a10", out, 4));
    EXPECT_EQ(std::vector<uint8_t>(out, out + 4), (std::vector<uint8_t>{0x00, 0xff, 0x7a, 0x10}));

    // Anything else is refused whole and leaves the output alone.
    for (const char *bad : {"00FF7a10", "00ff7a1", "00ff7g10", "", "0 ff7a10"}) {
        uint8_t kept[4] = {1, 2, 3, 4};
        EXPECT_FALSE(hex_to_bytes(bad, kept, 4)) << bad;
        EXPECT_EQ(std::vector<uint8_t>(kept, kept + 4), (std::vector<uint8_t>{1, 2, 3, 4})) << bad;
    }
    EXPECT_FALSE(hex_to_bytes(nullptr, out, 4));
    EXPECT_FALSE(hex_to_bytes("00", nullptr, 1));
}

TEST(GetIp6addr, MissingArgumentsAreRefused) {
    uint8_t out[16];
    EXPECT_EQ(get_ip6addr(nullptr, out), -1);
    EXPECT_EQ(get_ip6addr("lo", nullptr), -1);
}

// Links without automatic link-local addresses, so each test states exactly what exists.
void quiet_ipv6_links() {
    sandbox::sh("sysctl -w net.ipv6.conf.default.addr_gen_mode=1");
    sandbox::sh("sysctl -w net.ipv6.conf.all.addr_gen_mode=1");
}

TEST(SysinfoAddresses, Ip6PrefersGlobalThenLinkLocal) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        quiet_ipv6_links();
        bool ok = sandbox::sh("ip link add both0 type veth peer name local0") &&
                  sandbox::sh("ip link add none0 type veth peer name other0") &&
                  sandbox::sh("ip -6 addr add fe80::aa/64 dev both0 nodad") &&
                  sandbox::sh("ip -6 addr add 2001:db8::5/64 dev both0 nodad") &&
                  sandbox::sh("ip -6 addr add fe80::bb/64 dev local0 nodad") &&
                  sandbox::sh("ip -6 addr add 2001:db8::9/64 dev other0 nodad");
        if (!ok) {
            return std::string("cannot set up links");
        }
        std::string report;
        for (const char *name : {"both0", "local0", "none0", "both"}) {
            uint8_t out[16];
            memset(out, 0xee, sizeof out);
            int rc = get_ip6addr(name, out);
            report += std::string(name) + ":" + std::to_string(rc) + ":" + ip6_text(out) + " ";
        }
        report += "logged=" +
                  std::to_string(log_has("get_ip6addr: ifname:[both0], local ipv6 addr:"
                                         "[fe8000000000000000000000000000aa]\n")) +
                  std::to_string(log_has("get_ip6addr: ifname:[both0], global ipv6 addr:"
                                         "[20010db8000000000000000000000005]\n")) +
                  std::to_string(log_has("get_ip6addr: ifname:[none0], global ipv6 addr:[]\n"));
        return report;
    });
    EXPECT_EQ(result, "both0:0:2001:db8::5 local0:0:fe80::bb none0:0::: both:0::: logged=111");
}

TEST(SysinfoAddresses, UnreadableInet6FileGivesMinusOne) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        if (!sandbox::fake_proc_net("dev", "")) {  // a private /proc/net without "if_inet6"
            return std::string("cannot hide /proc/net/if_inet6");
        }
        uint8_t out[16] = {7};
        int rc = get_ip6addr("lo", out);
        return std::to_string(rc) + " " + std::to_string(out[0]) +
               " logged=" + std::to_string(log_has("Cannot open if_inet6 file\n"));
    });
    EXPECT_EQ(result, "-1 7 logged=1");
}

TEST(SysinfoAddresses, MalformedInet6LinesAreSkipped) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        std::string lines =
            "garbage\n"
            "20010DB8000000000000000000000001 03 40 00 80 up0\n"  // upper case: refused
            "\n" +
            std::string(300, 'x') + " 1 2 3 4 up0\n" +
            "fe800000000000000000000000000001 03 40 20 80 up0\n";
        if (!sandbox::fake_proc_net("if_inet6", lines)) {
            return std::string("cannot fake /proc/net/if_inet6");
        }
        uint8_t out[16];
        int rc = get_ip6addr("up0", out);
        return std::to_string(rc) + " " + ip6_text(out);
    });
    // The over-long line is read in pieces and its last piece names up0, so its text becomes
    // the global candidate (replacing the upper-case one). A global candidate is preferred even
    // when it does not convert, which leaves the zero address, not the link-local one.
    EXPECT_EQ(result, "0 ::");
}

struct DriverCount {
    DriverSink *sink;
    std::string operator()() const {
        std::vector<std::vector<uint8_t>> got = sink->take_all();
        for (const auto &message : got) {
            if (message.size() != DRV_NL_MSG_LEN || message[16] != DRV_OP_SET_AP_INFO) {
                return "?";
            }
        }
        return std::to_string(got.size());
    }
};

TEST(SysinfoAddresses, UplinkAddressesAndDriverReports) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        quiet_ipv6_links();
        DriverSink sink;
        bool ok = sink.ready() && sandbox::sh("ip link add up0 type veth peer name peer0") &&
                  sandbox::sh("ip addr add 10.1.2.3/24 brd 10.1.2.255 dev up0") &&
                  sandbox::sh("ip -6 addr add 2001:db8::5/64 dev up0 nodad") &&
                  sandbox::sh("ip -6 addr add fe80::5/64 dev up0 nodad");
        if (!ok) {
            return std::string("cannot set up uplink");
        }
        sandbox::install_command("getupifname", "echo up0");
        DriverCount sent{&sink};
        set_ipaddr = 0;

        std::string report;
        get_ipaddr();  // first sight: the change is reported
        neighbor_ap self = self_ap_snapshot();
        report += "ap_ip=" + ip4_text(ap_ip) + " mask=" + ip4_text(pvc_mask) +
                  " brd=" + ip4_text(pvc_brast) +
                  " self.ip=" + std::to_string(self.ip == 0x0a010203) +
                  " ip6=" + ip6_text(self.info.ip6.data()) + "\n";
        report += "unconfirmed: " + sent();
        get_ipaddr();
        report += " " + sent();
        get_ipaddr();
        report += " " + sent();

        set_ipaddr = 1;
        get_ipaddr();
        report += "\nconfirmed: " + sent();
        sandbox::sh("ip addr del 10.1.2.3/24 dev up0");
        sandbox::sh("ip addr add 10.1.2.4/24 brd 10.1.2.255 dev up0");
        get_ipaddr();
        report += " v4change " + sent();
        get_ipaddr();
        report += " " + sent();
        sandbox::sh("ip -6 addr del 2001:db8::5/64 dev up0");
        sandbox::sh("ip -6 addr add 2001:db8::6/64 dev up0 nodad");
        get_ipaddr();
        report += " v6change " + sent();
        get_ipaddr();
        report += " " + sent();

        // Unconfirmed again and the address changes: the repeat of the old information and
        // the report of the new one.
        set_ipaddr = 0;
        sandbox::sh("ip addr del 10.1.2.4/24 dev up0");
        sandbox::sh("ip addr add 10.1.2.5/24 brd 10.1.2.255 dev up0");
        get_ipaddr();
        std::vector<std::vector<uint8_t>> last = sink.take_all();
        report += "\nunconfirmed change: " + std::to_string(last.size());
        if (last.size() == 2) {
            report += " old=" + std::to_string(last[0][16 + 7]) +
                      " new=" + std::to_string(last[1][16 + 7]) +
                      " ip6=" + ip6_text(&last[1][16 + 8]);
        }
        report += " logged=" + std::to_string(log_has("get_ipaddr: self ip: 10.1.2.5\n")) +
                  std::to_string(log_has("get_ipaddr: ifname:[up0], ipv6 addr:[2001:db8::6]\n"));
        return report;
    });
    EXPECT_EQ(result,
              "ap_ip=10.1.2.3 mask=255.255.255.0 brd=10.1.2.255 self.ip=1 ip6=2001:db8::5\n"
              "unconfirmed: 1 1 1\n"
              "confirmed: 0 v4change 1 0 v6change 1 0\n"
              "unconfirmed change: 2 old=4 new=5 ip6=2001:db8::6 logged=11");
}

TEST(SysinfoAddresses, UnknownUplinkKeepsLastValues) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        DriverSink sink;
        sandbox::install_command("getupifname", "echo gone0");
        ap_ip = inet_addr("10.9.9.9");
        pvc_mask = inet_addr("255.255.0.0");
        pvc_brast = inet_addr("10.9.255.255");
        {
            std::lock_guard<std::mutex> guard(self_ap_lock);
            self_ap.ip = 0x0a090909;
        }
        set_ipaddr = 1;
        get_ipaddr();
        neighbor_ap self = self_ap_snapshot();
        return ip4_text(ap_ip) + " " + ip4_text(pvc_mask) + " " + ip4_text(pvc_brast) + " " +
               std::to_string(self.ip == 0x0a090909) +
               " sent=" + std::to_string(sink.take_all().size()) +
               " logged=" + std::to_string(log_has("get_ipaddr: get ip failed\n"));
    });
    EXPECT_EQ(result, "10.9.9.9 255.255.0.0 10.9.255.255 1 sent=0 logged=1");
}

}  // namespace
