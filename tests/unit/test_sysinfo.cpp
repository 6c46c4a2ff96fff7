// What the AP knows of itself: addresses, identity and cluster facts, radios, read from platform
// commands and system files in a sandbox.
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
#include "util/run_cmd.h"

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

std::string hex32(uint32_t value) {
    char text[16];
    snprintf(text, sizeof text, "%08x", value);
    return text;
}

std::string mac_text(const mac_addr &mac) {
    char text[32];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return text;
}

// ----- Pure helpers -------------------------------------------------------------------------

TEST(ParseMacDash, BothByteOrderPathsGiveTheSameBytes) {
    for (bool big_endian : {false, true}) {
        mac_addr mac{};
        EXPECT_EQ(parse_mac_dash_for("00-11-22-a3-B4-ff", mac, big_endian), 6) << big_endian;
        EXPECT_EQ(mac, (mac_addr{0x00, 0x11, 0x22, 0xa3, 0xb4, 0xff})) << big_endian;

        mac_addr partial{9, 9, 9, 9, 9, 9};
        EXPECT_EQ(parse_mac_dash_for("01-02-zz", partial, big_endian), 2) << big_endian;
        EXPECT_EQ(partial, (mac_addr{1, 2, 9, 9, 9, 9})) << big_endian;

        mac_addr untouched{};
        EXPECT_EQ(parse_mac_dash_for("", untouched, big_endian), 0) << big_endian;
        EXPECT_EQ(parse_mac_dash_for(nullptr, untouched, big_endian), 0) << big_endian;
    }
}

TEST(GetMacDeathTest, UnstartableCommandEndsProcessWith255) {
    EXPECT_EXIT(
        {
            setenv("TARN_LOG_STDERR", "1", 1);
            tarn_debug = 1;
            sandbox::exhaust_descriptors();
            get_mac();
        },
        testing::ExitedWithCode(255), "get_mac: Get ap base mac failed");
}

// ----- Gatherers against stand-in platform commands -----------------------------------------

TEST(SysinfoIdentity, FieldsFromPlatformCommands) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        sandbox::install_command("getqvinfo", "echo ' 10.20.30.40'");
        sandbox::install_command("showver", "printf '  V2.3.4\\t \\n'");
        sandbox::install_command("uci",
                                 "[ \"$*\" = 'get system.sysinfo.hostname' ] && echo AP-lobby");
        sandbox::install_command("getupifname", "echo 'br-lan '");
        sandbox::install_command("showsysinfo",
                                 "echo 'Model:XY-1'; echo 'MAC:00:1a:2B:3c:4d:5e'; echo 'SN:77'");
        sandbox::write_file("/tmp/zef_cloudinfo", "region:eu\ntenantId:t-0042 \n");
        Get_QV_ipaddr();
        Get_Ap_Version(self_ap.info.version);
        Get_Ap_Name(self_ap.info.name);
        get_tenantId();
        get_mac();
        char ifname[IFNAME_SIZE];
        Get_ifname(ifname);
        neighbor_ap self = self_ap_snapshot();
        return "qv=" + hex32(self.info.qv_ip) + " version=[" + self.info.version + "] name=[" +
               self.info.name + "] tenant=[" + self.info.tenantId + "] ifname=[" + ifname +
               "] mac=" + mac_text(self.mac) +
               " logs=" + std::to_string(log_has("Get_QV_ipaddr: qv ipaddr:10.20.30.40\n")) +
               std::to_string(log_has("Get_Ap_Version: AP_Version:V2.3.4\n")) +
               std::to_string(log_has("Get_Ap_Name: AP_Name:AP-lobby\n")) +
               std::to_string(log_has("get_tenantId: tenantId:t-0042\n")) +
               std::to_string(log_has("Get_ifname: if_name = br-lan\n"));
    });
    EXPECT_EQ(result,
              "qv=0a141e28 version=[V2.3.4] name=[AP-lobby] tenant=[t-0042] ifname=[br-lan] "
              "mac=00:1a:2b:3c:4d:5e logs=11111");
}

TEST(SysinfoIdentity, LongTextsAreCutToFieldSizeLessOne) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        sandbox::install_command("showver", "echo 0123456789abcdefghij");
        sandbox::install_command("uci", "echo ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789");
        sandbox::install_command("getupifname", "echo ifname-that-is-much-longer-than-31-chars");
        sandbox::write_file("/tmp/zef_cloudinfo", "tenantId:" + std::string(100, 'T') + "\n");
        Get_Ap_Version(self_ap.info.version);
        Get_Ap_Name(self_ap.info.name);
        get_tenantId();
        char ifname[IFNAME_SIZE];
        Get_ifname(ifname);
        neighbor_ap self = self_ap_snapshot();
        // The command output itself is cut to 63 characters before the tenant field sees it.
        return std::string(self.info.version) + " " + self.info.name + " " + ifname + " " +
               std::to_string(strlen(self.info.tenantId));
    });
    EXPECT_EQ(result,
              "0123456789abcde ABCDEFGHIJKLMNOPQRSTUVWXYZ01234 ifname-that-is-much-longer-than "
              "63");
}

TEST(SysinfoIdentity, UnusableOrMissingOutputs) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        {
            std::lock_guard<std::mutex> guard(self_ap_lock);
            self_ap.info.qv_ip = 0x01020304;
            strcpy(self_ap.info.name, "old-name");
            strcpy(self_ap.info.tenantId, "old-tenant");
        }
        std::string report;
        // The all-ones address cannot be told from a failed conversion; garbage neither.
        for (const char *output : {"255.255.255.255", "not-an-address", ""}) {
            sandbox::install_command("getqvinfo", std::string("echo '") + output + "'");
            Get_QV_ipaddr();
            report += hex32(self_ap_snapshot().info.qv_ip) + " ";
        }
        // A command that prints nothing empties a text field.
        sandbox::install_command("uci", "true");
        Get_Ap_Name(self_ap.info.name);
        get_tenantId();
        neighbor_ap self = self_ap_snapshot();
        report +=
            std::string("name=[") + self.info.name + "] tenant=[" + self.info.tenantId +
            "] logged=" + std::to_string(log_has("get_tenantId: access zef_cloudinfo failed\n"));
        return report;
    });
    EXPECT_EQ(result, "01020304 01020304 01020304 name=[] tenant=[old-tenant] logged=1");
}

TEST(SysinfoCluster, ModeWordMustBeExactlyClusterAfterTrimming) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        std::string report;
        for (const char *output :
             {"CLUSTER ", "\tCLUSTER", "cluster", "CLUSTER2", "STANDALONE", ""}) {
            sandbox::install_command("getmode", std::string("printf '") + output + "\\n'");
            report += std::to_string(is_cluster_mode());
        }
        sandbox::install_command("getmode", "echo 'CLUSTER '");
        is_cluster_mode();
        report += " " + std::to_string(log_has("is_cluster_mode: AP mode is [CLUSTER]\n")) +
                  std::to_string(log_has("is_cluster_mode: [1]\n"));
        return report;
    });
    EXPECT_EQ(result, "110000 11");
}

TEST(SysinfoCluster, PvcInfoFillsClusterFacts) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        sandbox::write_file("/tmp/pvc-info", "1:10.0.0.1:2:7:00-11-22-33-44-55\n");
        get_cluster_info();
        neighbor_ap self = self_ap_snapshot();
        return "id=" + std::to_string(self.info.cluster_id) + " pvc_ip=" + hex32(self.info.pvc_ip) +
               " pvc_mac=" + mac_text(self.info.pvc_mac) +
               " flag=" + std::to_string(self.info.cluster_flag) + " logs=" +
               std::to_string(
                   log_has("get_cluster_info: pvc-info = 1:10.0.0.1:2:7:00-11-22-33-44-55\n")) +
               std::to_string(
                   log_has("cluster..1...ip:10.0.0.1,2,cluster_id:7,mac:00-11-22-33-44-55\n")) +
               std::to_string(log_has("cluster id:7,pvc ip:a000001\n"));
    });
    EXPECT_EQ(result, "id=7 pvc_ip=0a000001 pvc_mac=00:11:22:33:44:55 flag=1 logs=111");
}

TEST(SysinfoCluster, MissingOrMalformedPvcInfoKeepsLastFacts) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        sandbox::write_file("/tmp/pvc-info", "3:192.168.9.9:0:12:aa-bb-cc-dd-ee-ff\n");
        get_cluster_info();
        std::string report;
        auto facts = [] {
            neighbor_ap self = self_ap_snapshot();
            return std::to_string(self.info.cluster_id) + "/" + hex32(self.info.pvc_ip) + "/" +
                   mac_text(self.info.pvc_mac) + "/" + std::to_string(self.info.cluster_flag);
        };
        report += facts() + " ";
        unlink("/tmp/pvc-info");
        get_cluster_info();
        report += facts() + " logged=" +
                  std::to_string(log_has("get_cluster_info: access pvc-info failed\n")) + " ";
        sandbox::write_file("/tmp/pvc-info", "garbage without separators\n");
        get_cluster_info();
        report += facts();
        return report;
    });
    EXPECT_EQ(result,
              "12/c0a80909/aa:bb:cc:dd:ee:ff/1 12/c0a80909/aa:bb:cc:dd:ee:ff/1 logged=1 "
              "12/c0a80909/aa:bb:cc:dd:ee:ff/1");
}

TEST(SysinfoBaseMac, ShortOrMissingMacLine) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        {
            std::lock_guard<std::mutex> guard(self_ap_lock);
            self_ap.mac = mac_addr{1, 2, 3, 4, 5, 6};
        }
        std::string report;
        sandbox::install_command("showsysinfo", "echo 'MAC:ff:ee'");
        get_mac();
        report += mac_text(self_ap_snapshot().mac) + " ";
        sandbox::install_command("showsysinfo", "echo 'nothing here'");
        get_mac();
        report += mac_text(self_ap_snapshot().mac);
        return report;
    });
    EXPECT_EQ(result, "ff:ee:03:04:05:06 ff:ee:03:04:05:06");
}

TEST(TxpowerScale, HundredthsAboveNinetyNine) {
    const std::vector<std::pair<int32_t, int>> cases{{1800, 18}, {20, 20}, {99, 99}, {100, 1},
                                                     {2050, 20}, {0, 0},   {-5, -5}};
    for (const auto &[reported, expected] : cases) {
        EXPECT_EQ(txpower_scale(reported), expected) << reported;
    }
}

TEST(GetTxpower, InterfaceWithoutWirelessExtensionsGivesZeroAndLogs) {
    setenv("TARN_LOG_STDERR", "1", 1);
    tarn_debug = 1;
    testing::internal::CaptureStderr();
    int loopback = get_txpower("lo");
    int missing = get_txpower("nosuchvap0");
    std::string log = testing::internal::GetCapturedStderr();
    tarn_debug = 0;
    unsetenv("TARN_LOG_STDERR");
    EXPECT_EQ(loopback, 0);
    EXPECT_EQ(missing, 0);
    EXPECT_NE(log.find("get lo Txpower failed"), std::string::npos) << log;
    EXPECT_NE(log.find("get nosuchvap0 Txpower failed"), std::string::npos) << log;
    EXPECT_EQ(get_txpower(nullptr), 0);
}

// The VAP rule must agree with the platform's own test of interface names,
// egrep "ath[0-9]{2}$" over the listing (which leaves out hidden names).
TEST(IsVapName, AgreesWithEgrepOnInterfaceNames) {
    const std::vector<std::string> names{
        "ath00",    "ath01",    "ath1",       "ath123", "xath12", "ath",   "ath0",
        "athscan1", "ath9x",    "wlan0",      "bath77", "ATH12",  "ath1a", "aath99",
        "at h12",   "ath12ath", "ath12ath34", "lo",     "eth0",   "a",     ""};
    for (const std::string &name : names) {
        std::string command = "printf '%s\\n' '" + name + "' | egrep \"ath[0-9]{2}$\" | wc -l";
        char output[8];
        run_cmd(command.c_str(), output, sizeof output);
        EXPECT_EQ(is_vap_name(name.c_str()), atoi(output) > 0) << "[" << name << "]";
    }
    EXPECT_FALSE(is_vap_name(".ath12"));  // ls does not list it
    EXPECT_FALSE(is_vap_name(nullptr));
}

TEST(SysinfoRadios, RadioCountFromPlatformCountOrDevices) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        std::string report;
        const char *count_uci =
            "[ \"$*\" = '-c /etc/.system/ get spec.wifi.count' ] && cat /tmp/wifi_count";
        sandbox::install_command("uci", count_uci);
        for (const char *count : {"2", "6", "5", "3"}) {
            sandbox::write_file("/tmp/wifi_count", std::string(count) + "\n");
            report += std::string(count) + "->" + std::to_string(get_radio_count()) + " ";
        }
        unlink("/tmp/wifi_count");  // uci prints nothing now
        report += "none->" + std::to_string(get_radio_count()) + " ";
        sandbox::sh("ip link add wifi0 type veth peer name wifi1");
        report += "two-wifi->" + std::to_string(get_wifi_dev_count()) + "/" +
                  std::to_string(get_radio_count()) + " ";
        sandbox::sh("ip link add wifi2 type veth peer name eth7");
        report += "three-wifi->" + std::to_string(get_radio_count());
        return report;
    });
    EXPECT_EQ(result, "2->1 6->3 5->3 3->2 none->1 two-wifi->2/1 three-wifi->2");
}

TEST(SysinfoRadios, WlanPresenceMatchesShellCountOnRealLinks) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        auto shell_count = [] {
            char output[8];
            run_cmd("ls /sys/class/net/ | egrep \"ath[0-9]{2}$\" | wc -l", output, sizeof output);
            return std::string(output);
        };
        std::string report = "empty:" + std::to_string(count_vap_interfaces()) + "/" +
                             shell_count() + "/" + std::to_string(is_have_wlan()) + " ";
        if (!sandbox::sh("ip link add ath00 type veth peer name ath1") ||
            !sandbox::sh("ip link add xath12 type veth peer name ath123") ||
            !sandbox::sh("ip link add athscan1 type veth peer name wath9")) {
            return std::string("cannot create links");
        }
        int counted = count_vap_interfaces();
        std::string shell = shell_count();
        bool have = is_have_wlan();
        bool logged = log_has("is_have_wlan: vap number is 2\n");
        return report + "links:" + std::to_string(counted) + "/" + shell + "/" +
               std::to_string(have) + " logged=" + std::to_string(logged);
    });
    EXPECT_EQ(result, "empty:0/0/0 links:2/2/1 logged=1");
}

const char *kWireless =
    "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
    " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n"
    "athscan1: 0000    0.    0.    0.        0      0      0      0      0        0\n"
    " ath01: 0000   54.  -56.  -95.        0      0      0      0      0        0\n"
    "\tath11: 0000   54.  -56.  -95.        0      0      0      0      0        0\n"
    " ath12: 0000   54.  -56.  -95.        0      0      0      0      0        0\n"
    " wlan2: 0000   54.  -56.  -95.        0      0      0      0      0        0\n";

TEST(SysinfoRadios, VapOfEachRadioFromWirelessFile) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        if (!sandbox::fake_proc_net("wireless", kWireless)) {
            return std::string("cannot fake /proc/net/wireless");
        }
        std::string report;
        for (int radio = 0; radio < 4; ++radio) {
            char vap[VAP_NAME_SIZE] = "";
            get_available_ath_vap(radio, vap);
            report += std::to_string(radio) + "=[" + vap + "] ";
        }
        report += "logged=" + std::to_string(log_has("get_available_ath_vap: vap : ath01\n")) +
                  std::to_string(log_has("get_available_ath_vap: vap : \n"));
        return report;
    });
    EXPECT_EQ(result, "0=[ath01] 1=[athscan1] 2=[] 3=[] logged=11");
}

TEST(SysinfoRadios, MissingWirelessFileKeepsVapName) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        if (!sandbox::fake_proc_net("dev", "")) {  // a private /proc/net without "wireless"
            return std::string("cannot hide /proc/net/wireless");
        }
        char vap[VAP_NAME_SIZE] = "ath05";
        get_available_ath_vap(0, vap);
        return std::string(vap) +
               " logged=" + std::to_string(log_has("get_available_ath_vap: vap : ath05\n"));
    });
    EXPECT_EQ(result, "ath05 logged=1");
}

TEST(SysinfoRadios, WirelessInfoFillsRadiosUpToRadioCount) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        if (!sandbox::fake_proc_net("wireless", kWireless)) {
            return std::string("cannot fake /proc/net/wireless");
        }
        {
            std::lock_guard<std::mutex> guard(self_ap_lock);
            self_ap.info.radiocnt = 2;
            for (int i = 0; i < AP_RADIO_MAX; ++i) {
                self_ap.info.radio[i] = radio_info{9, 36, 77, 40, 80};
            }
        }
        get_self_wireless_info();
        neighbor_ap self = self_ap_snapshot();
        std::string report;
        for (const radio_info &r : self.info.radio) {
            report += std::to_string(r.radioid) + "/" + std::to_string(r.channel) + "/" +
                      std::to_string(r.txpower) + "/" + std::to_string(r.rssi) + "/" +
                      std::to_string(r.bandwidth) + " ";
        }
        // The VAP names do not exist as interfaces here, so the power query fails.
        report += "logged=" + std::to_string(log_has("get ath01 Txpower failed")) +
                  std::to_string(log_has("get athscan1 Txpower failed")) +
                  std::to_string(log_has("get_self_wireless_info: radio:1 channel:36 txpower:0 "
                                         "rssi:40\n"));
        return report;
    });
    EXPECT_EQ(result, "0/36/0/40/80 1/36/0/40/80 9/36/77/40/80 9/36/77/40/80 logged=111");
}

}  // namespace
