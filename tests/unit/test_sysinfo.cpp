// What the AP knows of itself: addresses, identity, cluster facts and radios, read from
// stand-in platform commands and system files in a sandbox.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "driver_sink.h"
#include "neighbor/driver_msg.h"
#include "sandbox.h"
#include "static_env.h"
#include "sysinfo/sysinfo.h"
#include "util/run_cmd.h"

namespace {

using static_env::ip6_text;
using static_env::ip_text;
using static_env::mac_text;

// IP detection reports this AP's addresses (the global IPv6 one before the link-local one) to
// the driver at every run until the driver confirms, and after that only when one changes.
TEST(SysinfoAddresses, UplinkAddressesAndDriverReports) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        DriverSink sink;
        // No automatic link-local address: the uplink has exactly the addresses given here.
        if (!sink.ready() || !sandbox::sh("{ sysctl -w net.ipv6.conf.default.addr_gen_mode=1;"
                                          "ip link add up0 type veth peer name peer0 &&"
                                          "ip addr add 10.1.2.3/24 brd 10.1.2.255 dev up0 &&"
                                          "ip -6 addr add fe80::5/64 dev up0 nodad &&"
                                          "ip -6 addr add 2001:db8::5/64 dev up0 nodad; }")) {
            return std::string("cannot set up uplink");
        }
        sandbox::install_command("getupifname", "echo up0");
        auto runs = [&sink](int n, const char *change) {
            if (change != nullptr) {
                sandbox::sh(change);
            }
            std::string sent;
            for (int i = 0; i < n; ++i) {
                get_ipaddr();
                sent += " " + std::to_string(sink.take_all().size());
            }
            return sent;
        };
        set_ipaddr = 0;
        std::string report = "unconfirmed:" + runs(3, nullptr);
        report += " self " + ip_text(htonl(self_ap_snapshot().ip)) + " " +
                  ip6_text(self_ap_snapshot().info.ip6) + " " + ip_text(pvc_mask) + " " +
                  ip_text(pvc_brast);
        set_ipaddr = 1;
        report += "\nconfirmed:" + runs(1, nullptr);
        report +=
            " v4 change:" + runs(2, "ip -4 addr flush dev up0; ip addr add 10.1.2.4/24 dev up0");
        report += " v6 change:" + runs(2,
                                       "ip -6 addr del 2001:db8::5/64 dev up0; ip -6 addr add "
                                       "2001:db8::6/64 dev up0 nodad");
        // An uplink without addresses keeps the last IPv4 facts; its IPv6 address is now none.
        sandbox::install_command("getupifname", "echo gone0");
        report += " unknown uplink:" + runs(1, nullptr);
        report += " " + ip_text(ap_ip) + " " +
                  std::to_string(
                      static_env::contains(sandbox::log_text(), "get_ipaddr: get ip failed\n"));
        return report;
    });
    EXPECT_EQ(result,
              "unconfirmed: 1 1 1 self 10.1.2.3 2001:db8::5 255.255.255.0 10.1.2.255\n"
              "confirmed: 0 v4 change: 1 0 v6 change: 1 0 unknown uplink: 1 10.1.2.4 1");
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

// Each field from its platform command, trimmed, cut to its size less one; an output that is
// no address keeps the last address.
TEST(SysinfoIdentity, FieldsFromPlatformCommands) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        std::string report;
        for (bool long_texts : {false, true}) {
            std::string t = long_texts ? "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789" : "";
            sandbox::install_command("getqvinfo",
                                     long_texts ? "echo nonsense" : "echo ' 10.2.3.4'");
            sandbox::install_command("showver", "printf '  V2.3.4" + t + "\\t \\n'");
            sandbox::install_command("uci", "echo AP-lobby" + t);
            sandbox::install_command("getupifname", "echo 'br-lan" + t + " '");
            sandbox::install_command(
                "showsysinfo", "echo 'Model:XY-1'; echo 'MAC:00:1a:2B:3c:4d:5e'; echo 'SN:7'");
            sandbox::write_file("/tmp/zef_cloudinfo", "region:eu\ntenantId:t-42" + t + t + " \n");
            Get_QV_ipaddr();
            Get_Ap_Version(self_ap.info.version);
            Get_Ap_Name(self_ap.info.name);
            get_tenantId();
            get_mac();
            char ifname[IFNAME_SIZE];
            Get_ifname(ifname);
            neighbor_ap self = self_ap_snapshot();
            report += ip_text(htonl(self.info.qv_ip)) + " [" + self.info.version + "] [" +
                      self.info.name + "] [" + self.info.tenantId + "] [" + ifname + "] " +
                      mac_text(self.mac) + "\n";
        }
        return report;
    });
    EXPECT_EQ(result,
              "10.2.3.4 [V2.3.4] [AP-lobby] [t-42] [br-lan] 00:1a:2b:3c:4d:5e\n"
              "10.2.3.4 [V2.3.4ABCDEFGHI] [AP-lobbyABCDEFGHIJKLMNOPQRSTUVW] "
              "[t-42ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789ABCDEFGHIJKLMNOPQRSTUVW] "
              "[br-lanABCDEFGHIJKLMNOPQRSTUVWXY] 00:1a:2b:3c:4d:5e\n");
}

TEST(SysinfoCluster, ModeAndPvcInfo) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        std::string report;
        for (const char *output : {"CLUSTER ", "\tCLUSTER", "cluster", "CLUSTER2", ""}) {
            sandbox::install_command("getmode", std::string("printf '") + output + "\\n'");
            report += std::to_string(is_cluster_mode());
        }
        // A missing or malformed file keeps the last facts.
        for (const char *pvc : {"1:10.0.0.1:2:7:00-11-22-33-44-55\n", "", "garbage\n"}) {
            unlink("/tmp/pvc-info");
            if (*pvc != '\0') {
                sandbox::write_file("/tmp/pvc-info", pvc);
            }
            get_cluster_info();
            neighbor_ap self = self_ap_snapshot();
            report += " " + std::to_string(self.info.cluster_id) + "/" +
                      ip_text(htonl(self.info.pvc_ip)) + "/" + mac_text(self.info.pvc_mac) + "/" +
                      std::to_string(self.info.cluster_flag);
        }
        return report;
    });
    EXPECT_EQ(result,
              "11000 7/10.0.0.1/00:11:22:33:44:55/1 7/10.0.0.1/00:11:22:33:44:55/1 "
              "7/10.0.0.1/00:11:22:33:44:55/1");
}

TEST(TxpowerScale, HundredthsAboveNinetyNine) {
    const std::vector<std::pair<int32_t, int>> cases{{1800, 18}, {20, 20}, {99, 99}, {100, 1},
                                                     {2050, 20}, {0, 0},   {-5, -5}};
    for (const auto &[reported, expected] : cases) {
        EXPECT_EQ(txpower_scale(reported), expected) << reported;
    }
}

// The VAP rule must agree with the platform's own test, egrep "ath[0-9]{2}$" over the listing
// of /sys/class/net (which leaves out hidden names).
TEST(IsVapName, AgreesWithEgrepOnInterfaceNames) {
    for (const std::string name : {"ath00", "ath1", "ath123", "xath12", "ath", "athscan1", "ath9x",
                                   "ATH12", "ath1a", "at h12", "ath12ath34", "eth0", ""}) {
        std::string command = "printf '%s\\n' '" + name + "' | egrep \"ath[0-9]{2}$\" | wc -l";
        char output[8];
        run_cmd(command.c_str(), output, sizeof output);
        EXPECT_EQ(is_vap_name(name.c_str()), atoi(output) > 0) << "[" << name << "]";
    }
    EXPECT_FALSE(is_vap_name(".ath12"));
    EXPECT_FALSE(is_vap_name(nullptr));
}

TEST(SysinfoRadios, RadioCountFromPlatformCountOrDevices) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        sandbox::install_command(
            "uci", "[ \"$*\" = '-c /etc/.system/ get spec.wifi.count' ] && cat /tmp/wifi_count");
        std::string report;
        for (const char *count : {"2", "6", "5", "3"}) {
            sandbox::write_file("/tmp/wifi_count", std::string(count) + "\n");
            report += std::string(count) + "->" + std::to_string(get_radio_count()) + " ";
        }
        unlink("/tmp/wifi_count");  // uci prints nothing now
        report += "none->" + std::to_string(get_radio_count()) + " ";
        sandbox::sh("ip link add wifi0 type veth peer name wifi1");
        report += "two-wifi->" + std::to_string(get_radio_count()) + " ";
        sandbox::sh("ip link add wifi2 type veth peer name eth7");
        return report + "three-wifi->" + std::to_string(get_radio_count());
    });
    EXPECT_EQ(result, "2->1 6->3 5->3 3->2 none->1 two-wifi->1 three-wifi->2");
}

// The VAP of each radio from "/proc/net/wireless", and the radios of self_ap filled up to the
// radio count (the VAPs do not exist here, so their power reads as 0).
TEST(SysinfoRadios, WirelessInfoFromTheWirelessFile) {
    SKIP_UNLESS_ROOT();
    std::string result = sandbox::run_in_sandbox([] {
        const char *wireless =
            "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
            " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n"
            "athscan1: 0000    0.    0.    0.        0      0      0      0      0        0\n"
            " ath01: 0000   54.  -56.  -95.        0      0      0      0      0        0\n"
            "\tath11: 0000   54.  -56.  -95.        0      0      0      0      0        0\n"
            " wlan2: 0000   54.  -56.  -95.        0      0      0      0      0        0\n";
        if (!sandbox::fake_proc_net("wireless", wireless)) {
            return std::string("cannot fake /proc/net/wireless");
        }
        std::string report;
        for (int radio = 0; radio < 3; ++radio) {
            char vap[VAP_NAME_SIZE] = "";
            get_available_ath_vap(radio, vap);
            report += std::to_string(radio) + "=[" + vap + "] ";
        }
        {
            std::lock_guard<std::mutex> guard(self_ap_lock);
            self_ap.info.radiocnt = 2;
            for (radio_info &r : self_ap.info.radio) {
                r = radio_info{9, 36, 77, 40, 80};
            }
        }
        get_self_wireless_info();
        for (const radio_info &r : self_ap_snapshot().info.radio) {
            report += std::to_string(r.radioid) + "/" + std::to_string(r.txpower) + " ";
        }
        return report;
    });
    EXPECT_EQ(result, "0=[ath01] 1=[athscan1] 2=[] 0/0 1/0 9/77 9/77 ");
}

}  // namespace
