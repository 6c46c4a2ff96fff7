#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "sandbox.h"
#include "sysinfo/sysinfo.h"

namespace {

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

bool log_has(const std::string &line) {
    return sandbox::log_text().find(line) != std::string::npos;
}

// ----- Pure helpers -------------------------------------------------------------------------

TEST(CopyTextField, CutsToFieldSizeLessOneAndTerminates) {
    char field[8];
    memset(field, 'x', sizeof field);
    copy_text_field(field, "abcdefghijk");
    EXPECT_STREQ(field, "abcdefg");
    copy_text_field(field, "ab");
    EXPECT_STREQ(field, "ab");
    EXPECT_EQ(field[7], '\0');  // no stale bytes behind a shorter text
    EXPECT_EQ(field[5], '\0');
    copy_text_field(field, nullptr);
    EXPECT_STREQ(field, "");
}

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

TEST(ParseMacDash, HostOrderFoundAtRunTime) {
    uint32_t probe = 1;
    bool little = *reinterpret_cast<uint8_t *>(&probe) == 1;
    EXPECT_EQ(host_is_big_endian(), !little);
    mac_addr mac{};
    EXPECT_EQ(parse_mac_dash("0a-0b-0c-0d-0e-0f", mac), 6);
    EXPECT_EQ(mac, (mac_addr{10, 11, 12, 13, 14, 15}));
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

}  // namespace
