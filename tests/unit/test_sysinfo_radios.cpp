#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "sandbox.h"
#include "sysinfo/sysinfo.h"
#include "util/run_cmd.h"

namespace {

bool log_has(const std::string &line) {
    return sandbox::log_text().find(line) != std::string::npos;
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
