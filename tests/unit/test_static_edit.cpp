// Editing the static list: add or update, delete, replace; what each writes, which command it
// runs in cluster mode, the eight-node capacity and refused texts.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sandbox.h"
#include "static/static_store.h"
#include "static_env.h"

namespace {

using static_env::contains;
using static_env::list_text;

constexpr const char *EMPTY_FILE = "{\n\t\"static_neighbor\":\t[]\n}";
constexpr const char *USERCONFIG_SAVE = "call userconfig_reload userconfig_save\n";

ap_info record(const char *mac, const char *ip) {
    ap_info info{};
    parse_mac_text(mac, info.mac);
    info.ip = inet_addr(ip);
    return info;
}

TEST(StaticEdit, AddOfAKnownMacChangesOnlyTheAddressesGiven) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::string out = std::to_string(static_mac_add("00:11:22:33:44:55", "10.0.0.5", nullptr));
        out += " " + list_text();
        out += " | " + std::to_string(static_mac_add("00:11:22:33:44:55", nullptr, "fd00::7"));
        out += " " + list_text();
        out += contains(static_env::file_text(), "fd00::7") ? " saved" : " not saved";
        out += " | " + std::to_string(static_mac_add("00:11:22:33:44:55", "10.0.0.6", nullptr));
        out += " " + list_text();
        static_mac_add("00:11:22:33:44:55", nullptr, "bad::ip6::text");
        return out + " | " + list_text() +
               (contains(sandbox::log_text(), "inet_pton") ? " reported" : " unreported");
    });
    EXPECT_EQ(seen,
              "0 00:11:22:33:44:55 10.0.0.5 :: 4 | 0 00:11:22:33:44:55 10.0.0.5 fd00::7 4 saved | "
              "0 00:11:22:33:44:55 10.0.0.6 fd00::7 4 | 00:11:22:33:44:55 10.0.0.6 :: 4 reported");
}

TEST(StaticEdit, AddLogsTheTexts) {
    SKIP_UNLESS_ROOT();
    std::string log = static_env::run([] {
        static_mac_add("AA:bb:cc:dd:ee:ff", nullptr, "fd00::1");
        return sandbox::log_text();
    });
    EXPECT_TRUE(contains(log, "mac is AA:bb:cc:dd:ee:ff, aa:bb:cc:dd:ee:ff\n")) << log;
    EXPECT_TRUE(contains(log, "static_mac_add: add ip is 0.0.0.0\n")) << log;
    EXPECT_TRUE(contains(log, "static_mac_add: add static ip6 is fd00::1\n")) << log;
    EXPECT_TRUE(contains(log, "Add static neighbor ipv6 addr:[fd00::1]\n")) << log;
    EXPECT_TRUE(contains(log, "save_as_json-")) << log;
}

TEST(StaticEdit, DeleteOfTheLastNodeWritesAnEmptyArray) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        static_mac_add("00:11:22:33:44:55", nullptr, nullptr);
        int result = static_mac_del("00:11:22:33:44:55");
        return std::to_string(result) + " [" + list_text() + "] " + static_env::file_text();
    });
    EXPECT_EQ(seen, std::string("0 [] ") + EMPTY_FILE);
}

TEST(StaticEdit, DeleteOfAnUnknownMacFailsWithoutWriting) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        static_mac_add("00:11:22:33:44:55", nullptr, nullptr);
        static_env::write_conf("untouched");
        std::string out = std::to_string(static_mac_del("00:11:22:33:44:56"));
        out += " " + std::to_string(static_mac_del(nullptr));
        out += " " + std::to_string(static_mac_del("1:2:3:4:5:6:7"));
        return out + " " + static_env::file_text() +
               (contains(sandbox::log_text(),
                         "static_mac_del: Can not find member in static neighbor list!\n")
                    ? " logged"
                    : " not logged");
    });
    EXPECT_EQ(seen, "-1 -1 -1 untouched logged");
}

TEST(StaticEdit, ReplaceWithDuplicatesGivesTwoNodesAndOneDeleteRemovesTheNewer) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::vector<ap_info> records = {record("00:00:00:00:00:01", "10.0.0.1"),
                                        record("00:00:00:00:00:01", "10.0.0.2")};
        std::string out = std::to_string(static_mac_qv(records.data(), 2));
        out += " " + list_text();
        static_mac_del("00:00:00:00:00:01");
        return out + " | " + list_text();
    });
    EXPECT_EQ(seen,
              "1 00:00:00:00:00:01 10.0.0.2 :: 4; 00:00:00:00:00:01 10.0.0.1 :: 4 | "
              "00:00:00:00:00:01 10.0.0.1 :: 4");
}

TEST(StaticEdit, ReplaceWithZeroRecordsEmptiesListAndFile) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        static_mac_add("00:11:22:33:44:55", nullptr, nullptr);
        int result = static_mac_qv(nullptr, 0);
        return std::to_string(result) + " [" + list_text() + "] " + static_env::file_text();
    });
    EXPECT_EQ(seen, std::string("1 [] ") + EMPTY_FILE);
}

TEST(StaticEdit, ReplaceTakesOnlyMacAndAddresses) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        ap_info full = record("00:00:00:00:00:07", "10.0.0.7");
        inet_pton(AF_INET6, "fd00::7", full.ip6.data());
        full.state = AP_STATE_ACTIVE;
        full.radiocnt = 2;
        full.cluster_id = 9;
        snprintf(full.name, sizeof full.name, "ap7");
        static_mac_qv(&full, 1);
        std::lock_guard<std::mutex> guard(stngbr_lock);
        const ap_info &kept = static_member_list.head->info;
        return std::to_string(kept.radiocnt) + " " + std::to_string(kept.cluster_id) + " [" +
               kept.name + "] " + std::to_string(kept.state) + " " + static_env::ip6_text(kept.ip6);
    });
    EXPECT_EQ(seen, "0 0 [] 4 fd00::7");
}

TEST(StaticEdit, ClusterModeTellsTheConfigurationServiceAfterAddAndDeleteOnly) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::string out;
        static_mac_add("00:00:00:00:00:01", nullptr, nullptr);
        static_mac_del("00:00:00:00:00:01");
        out += "plain [" + static_env::calls("ubus") + "]";
        static_env::set_cluster_mode(true);
        static_mac_add("00:00:00:00:00:02", "10.0.0.2", nullptr);
        out += " add [" + static_env::calls("ubus") + "]";
        static_mac_del("00:00:00:00:00:02");
        out += " del [" + static_env::calls("ubus") + "]";
        ap_info one = record("00:00:00:00:00:03", "10.0.0.3");
        static_mac_qv(&one, 1);
        static_mac_del("00:00:00:00:00:09");  // unknown: nothing runs
        out += " qv [" + static_env::calls("ubus") + "]";
        return out;
    });
    std::string one = USERCONFIG_SAVE;
    EXPECT_EQ(seen, "plain [] add [" + one + "] del [" + one + one + "] qv [" + one + one + "]");
}

TEST(StaticEdit, AddRefusesANinthNodeButUpdatesAnExistingOne) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::string out;
        for (int i = 1; i <= 8; ++i) {
            std::string mac = "00:00:00:00:00:0" + std::to_string(i);
            out += std::to_string(static_mac_add(mac.c_str(), nullptr, nullptr));
        }
        std::string file_before = static_env::file_text();
        out += " " + std::to_string(static_mac_add("00:00:00:00:00:09", nullptr, nullptr));
        out += static_env::file_text() == file_before ? " file kept" : " file changed";
        out += " " + std::to_string(static_mac_add("00:00:00:00:00:01", "10.0.0.1", nullptr));
        out += " count " + std::to_string(static_member_list.count);
        out += contains(sandbox::log_text(),
                        "static_mac_add: static neighbor list is full (8 "
                        "nodes), 00:00:00:00:00:09 not added\n")
                   ? " logged"
                   : " not logged";
        return out;
    });
    EXPECT_EQ(seen, "00000000 -1 file kept 0 count 8 logged");
}

TEST(StaticEdit, AddRefusesOverlongOrOvergroupedTexts) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::string long_mac(64, '1');
        std::string out;
        out += std::to_string(static_mac_add("1:2:3:4:5:6:7", nullptr, nullptr));
        out += std::to_string(static_mac_add(long_mac.c_str(), nullptr, nullptr));
        out += std::to_string(static_mac_add("00:00:00:00:00:01", "192.168.100.2001", nullptr));
        out += std::to_string(static_mac_add(nullptr, "10.0.0.1", nullptr));
        out += " [" + list_text() + "] " + static_env::file_text();
        std::string log = sandbox::log_text();
        out += static_env::occurrences(log,
                                       "static_mac_add: MAC text refused (more than 6 groups "
                                       "or 63 characters)\n") == 2
                   ? " mac-logged"
                   : "";
        out += contains(log, "static_mac_add: IPv4 text refused (more than 15 characters)\n")
                   ? " ip-logged"
                   : "";
        out += " " + std::to_string(static_mac_add("00:00:00:00:00:01", "192.168.100.200", ""));
        return out + " " + list_text();
    });
    EXPECT_EQ(
        seen,
        "-1-1-1-1 [] (missing) mac-logged ip-logged 0 00:00:00:00:00:01 192.168.100.200 :: 4");
}

TEST(StaticEdit, ReplaceKeepsTheFirstEightRecords) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::vector<ap_info> records;
        for (int i = 1; i <= 10; ++i) {
            std::string mac = "00:00:00:00:00:" + std::to_string(10 + i);
            records.push_back(record(mac.c_str(), "10.0.0.1"));
        }
        static_mac_qv(records.data(), static_cast<int32_t>(records.size()));
        std::string log = sandbox::log_text();
        return std::to_string(static_member_list.count) + " " +
               static_env::mac_text(static_member_list.head->info.mac) +
               (contains(log, "static_mac_qv: 10 records given, only the first 8 are kept\n") &&
                        contains(log, "static_mac_qv: dropped static neighbor [00:00:00:00:00:20]")
                    ? " logged"
                    : " not logged");
    });
    EXPECT_EQ(seen, "8 00:00:00:00:00:18 logged");
}

}  // namespace
