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

namespace {

using sandbox::install_command;
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
        install_command("getupifname", "echo up0");
        auto runs = [&sink](int n) {
            std::string sent;
            for (int i = 0; i < n; ++i) {
                get_ipaddr();
                sent += " " + std::to_string(sink.take_all().size());
            }
            return sent;
        };
        set_ipaddr = 0;
        std::string report = "unconfirmed:" + runs(3);
        report += " self " + ip_text(htonl(self_ap_snapshot().ip)) + " " +
                  ip_text(self_ap_snapshot().info.ip6) + " " + ip_text(pvc_mask) + " " +
                  ip_text(pvc_brast);
        set_ipaddr = 1;
        report += "\nconfirmed:" + runs(1);
        sandbox::sh("ip -4 addr flush dev up0; ip addr add 10.1.2.4/24 dev up0");
        report += " v4 change:" + runs(2);
        sandbox::sh("ip -6 addr del 2001:db8::5/64 dev up0; ip -6 addr add 2001:db8::6/64 dev up0");
        return report + " v6 change:" + runs(2);
    });
    EXPECT_EQ(result,
              "unconfirmed: 1 1 1 self 10.1.2.3 2001:db8::5 255.255.255.0 10.1.2.255\n"
              "confirmed: 0 v4 change: 1 0 v6 change: 1 0");
}

const std::string LONG = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

// Each fact from its platform command or file: texts trimmed and cut to their field's size
// less one, the radio count from the platform's count or else from the wifiN devices, and the
// VAP of each radio from "/proc/net/wireless". The management and cluster head addresses are
// read by the AP's C library's rules whatever the build's: text after the address makes it all
// ones, which the management address never takes (it stays as it was) and the cluster head's
// address keeps.
TEST(SysinfoFacts, FromPlatformCommandsAndFiles) {
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        install_command("getqvinfo", "cat /tmp/qv");
        install_command("showver", "printf '  V2.3.4" + LONG + "\\t \\n'");
        install_command("uci",
                        "case \"$*\" in '-c /etc/.system/ get spec.wifi.count') "
                        "cat /tmp/count;; *) echo AP" +
                            LONG + ";; esac");
        install_command("getupifname", "echo 'br-lan" + LONG + " '");
        install_command("showsysinfo", "echo 'Model:XY-1'; echo 'MAC:00:1a:2B:3c:4d:5e'");
        install_command("getmode", "cat /tmp/mode 2>/dev/null");
        sandbox::write_file("/tmp/zef_cloudinfo", "region:eu\ntenantId:t-42" + LONG + LONG + " \n");
        sandbox::fake_proc_net("wireless",
                               "Inter-| sta-|   Quality\n face | tus | link level\n"
                               "athscan1: 0000    0.    0.    0.        0      0      0\n"
                               " ath01: 0000   54.  -56.  -95.        0      0      0\n"
                               "\tath11: 0000   54.  -56.  -95.        0      0      0\n");
        Get_Ap_Version(self_ap.info.version);
        Get_Ap_Name(self_ap.info.name);
        get_tenantId();
        get_mac();
        char ifname[IFNAME_SIZE];
        Get_ifname(ifname);
        neighbor_ap self = self_ap_snapshot();
        std::string out = "[" + std::string(self.info.version) + "] [" + self.info.name + "] [" +
                          self.info.tenantId + "] [" + ifname + "] " + mac_text(self.mac) + "\nqv";
        for (const char *qv :
             {"10.2.3.4 junk\n", "10.2.3.4\n\n", " 10.2.3.4 \n", "10.2.3.5 junk\n"}) {
            sandbox::write_file("/tmp/qv", qv);
            Get_QV_ipaddr();
            out += " " + ip_text(htonl(self_ap_snapshot().info.qv_ip));
        }
        out += "\npvc";
        for (const char *pvc_ip : {"10.0.0.9", "10.0.0.9 junk", "010.0.0.9"}) {
            sandbox::write_file("/tmp/pvc-info", "1:" + std::string(pvc_ip) + ":2:7:aa-bb-cc\n");
            get_cluster_info();
            out += " " + ip_text(htonl(self_ap_snapshot().info.pvc_ip)) + "/" +
                   std::to_string(self_ap_snapshot().info.cluster_id);
        }
        out += "\nmode";
        for (const char *mode : {"", "CLUSTER ", "cluster", "CLUSTER2"}) {
            sandbox::write_file("/tmp/mode", std::string(mode) + "\n");
            out += " " + std::to_string(is_cluster_mode());
        }
        sandbox::sh(
            "ip link add wifi0 type veth peer name wifi1; ip link add wifi2 type veth peer name "
            "eth7");
        out += "\nradios";
        for (const char *count : {"2", "4", "5", ""}) {  // "": the devices decide
            sandbox::write_file("/tmp/count", std::string(count) + "\n");
            out += " " + std::to_string(get_radio_count());
        }
        out += "\nvaps";
        for (int radio = 0; radio < 3; ++radio) {
            char vap[VAP_NAME_SIZE] = "";
            get_available_ath_vap(radio, vap);
            out += std::string(" [") + vap + "]";
        }
        return out;
    });
    EXPECT_EQ(seen,
              "[V2.3.4ABCDEFGHI] [APABCDEFGHIJKLMNOPQRSTUVWXYZ012] "
              "[t-42ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789ABCDEFGHIJKLMNOPQRSTUVW] "
              "[br-lanABCDEFGHIJKLMNOPQRSTUVWXY] 00:1a:2b:3c:4d:5e\n"
              "qv 0.0.0.0 0.0.0.0 10.2.3.4 10.2.3.4\n"
              "pvc 10.0.0.9/7 255.255.255.255/7 8.0.0.9/7\n"
              "mode 0 1 0 0\nradios 1 3 3 2\n"
              "vaps [ath01] [athscan1] []");
}

TEST(TxpowerScale, HundredthsAboveNinetyNine) {
    const std::vector<std::pair<int32_t, int>> cases{{1800, 18}, {99, 99}, {100, 1}, {2050, 20}};
    for (const auto &[reported, expected] : cases) {
        EXPECT_EQ(txpower_scale(reported), expected) << reported;
    }
}

}  // namespace
