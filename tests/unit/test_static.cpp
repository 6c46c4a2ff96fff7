// The static neighbor store: the list primitives, editing, the file, the update pass and the
// crash-safe save.
#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/settings.h"
#include "neighbor/periodic_jobs.h"
#include "probe_capture.h"
#include "sandbox.h"
#include "static/static_store.h"
#include "static/static_update.h"
#include "static_env.h"
#include "util/timer.h"

namespace {

// The static neighbor list primitives: newest first, find by full MAC, remove anywhere.
static_member *node_with_last_byte(uint8_t last) {
    static_member *node = static_member_new();
    node->info.mac = {0x02, 0, 0, 0, 0, last};
    return node;
}

std::vector<uint8_t> last_bytes() {
    std::vector<uint8_t> out;
    for (static_member *node = static_member_list.head; node != nullptr; node = node->next) {
        out.push_back(node->info.mac[5]);
    }
    return out;
}

class StaticList : public testing::Test {
  protected:
    void TearDown() override { static_member_clear(); }
};

TEST_F(StaticList, FindComparesAllSixBytesAndReturnsNearestTheHead) {
    static_member *older = node_with_last_byte(7);
    static_member *newer = node_with_last_byte(7);
    static_member_push(older);
    static_member_push(newer);
    static_member_push(node_with_last_byte(8));
    EXPECT_EQ(static_member_find({0x02, 0, 0, 0, 0, 7}), newer);
    EXPECT_EQ(static_member_find({0x03, 0, 0, 0, 0, 7}), nullptr);
}

TEST_F(StaticList, RemoveHeadMiddleAndTail) {
    for (uint8_t i = 1; i <= 4; ++i) {
        static_member_push(node_with_last_byte(i));
    }  // 4 3 2 1
    static_member_remove(static_member_find({0x02, 0, 0, 0, 0, 3}));
    EXPECT_EQ(last_bytes(), (std::vector<uint8_t>{4, 2, 1}));
    static_member_remove(static_member_list.head);
    EXPECT_EQ(last_bytes(), (std::vector<uint8_t>{2, 1}));
    static_member_remove(static_member_find({0x02, 0, 0, 0, 0, 1}));
    EXPECT_EQ(last_bytes(), (std::vector<uint8_t>{2}));
    EXPECT_EQ(static_member_list.count, 1);
}

// Editing the static list: add or update, delete, replace; what each writes, which command it
// runs in cluster mode, the eight-node capacity and refused texts.
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

// The static neighbor file: reading rules, list order, the formatted writer, cluster mode,
// capacity and malformed entries, and the MAC text reader.
using static_env::contains;
using static_env::list_text;

// --- MAC text reader (no file involved) ------------------------------------------------------

struct mac_case {
    const char *text;
    int result;
    const char *mac;  // out after the call; out starts as 01:01:01:01:01:01
};

class MacText : public testing::TestWithParam<mac_case> {};

TEST_P(MacText, ReadsGroupsOrRefuses) {
    const mac_case c = GetParam();
    mac_addr out{1, 1, 1, 1, 1, 1};
    EXPECT_EQ(parse_mac_text(c.text, out), c.result) << (c.text ? c.text : "(null)");
    EXPECT_EQ(static_env::mac_text(out), c.mac) << (c.text ? c.text : "(null)");
}

const std::string SIXTY_THREE = "0000000000001:000000002:000000003:000000004:000000005:000000006";
static_assert(sizeof "0000000000001:000000002:000000003:000000004:000000005:000000006" == 64);
const std::string SIXTY_FOUR = "0" + SIXTY_THREE;

INSTANTIATE_TEST_SUITE_P(Texts, MacText,
                         testing::Values(mac_case{"aa:bb:cc:dd:ee:ff", 0, "aa:bb:cc:dd:ee:ff"},
                                         mac_case{"AA:B:c:D:e:0F", 0, "aa:0b:0c:0d:0e:0f"},
                                         mac_case{"123:1ff:2:3:4:5", 0, "23:ff:02:03:04:05"},
                                         mac_case{"zz:1:2:3:4:5", 0, "00:01:02:03:04:05"},
                                         mac_case{"1:2:3", 0,
                                                  "01:02:03:01:01:01"},  // only the groups given
                                         mac_case{"aa::bb:cc:dd:ee:ff", 0, "aa:bb:cc:dd:ee:ff"},
                                         mac_case{"", 0, "01:01:01:01:01:01"},
                                         mac_case{"1:2:3:4:5:6:7", -1, "01:01:01:01:01:01"},
                                         mac_case{SIXTY_THREE.c_str(), 0, "01:02:03:04:05:06"},
                                         mac_case{SIXTY_FOUR.c_str(), -1, "01:01:01:01:01:01"},
                                         mac_case{nullptr, -1, "01:01:01:01:01:01"}));

// --- Loading ----------------------------------------------------------------------------------

struct load_case {
    const char *name;
    const char *file;  // nullptr: no file at all
    int result;
    const char *list;  // list after the load, which starts as one node 02:00:00:00:00:99
    const char *log;   // a line the load logs, or ""
};

const char *const PREVIOUS_LIST = "02:00:00:00:00:99 0.0.0.0 :: 4";

class LoadFile : public testing::TestWithParam<load_case> {};

TEST_P(LoadFile, GivesResultListAndLog) {
    SKIP_UNLESS_ROOT();
    const load_case c = GetParam();
    std::string seen = static_env::run([&c] {
        {
            std::lock_guard<std::mutex> guard(stngbr_lock);
            static_member *node = static_member_new();
            node->info.mac = {2, 0, 0, 0, 0, 0x99};
            static_member_push(node);
        }
        if (c.file != nullptr) {
            static_env::write_conf(c.file);
        }
        int result = load_static_neighbor();
        std::string log = sandbox::log_text();
        bool logged = c.log[0] == '\0' || contains(log, c.log);
        return std::to_string(result) + " | " + list_text() + " | " +
               (logged ? "logged" : "not logged: " + log);
    });
    EXPECT_EQ(seen, std::to_string(c.result) + " | " + c.list + " | logged") << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Files, LoadFile,
    testing::Values(
        load_case{"missing file", nullptr, 0, PREVIOUS_LIST, ""},
        load_case{"empty array", R"({"static_neighbor": []})", -1, "",
                  "static neighbor is empty!!!\n"},
        load_case{"empty file", "", -1, "", ""},
        load_case{"not json", "static_neighbor", -1, "", "static neighbor is empty!!!\n"},
        load_case{"member missing", R"({"other": [1]})", -1, "", ""},
        load_case{"member not an array", R"({"static_neighbor": {"mac": "aa:aa:aa:aa:aa:aa"}})", -1,
                  "", ""},
        load_case{"only mac", R"({"static_neighbor": [{"mac": "00:11:22:33:44:55"}]})", 0,
                  "00:11:22:33:44:55 0.0.0.0 :: 4", ""},
        load_case{"empty ip", R"({"static_neighbor": [{"mac": "00:11:22:33:44:55", "ip": ""}]})", 0,
                  "00:11:22:33:44:55 255.255.255.255 :: 4", ""},
        load_case{"unconvertible ip",
                  R"({"static_neighbor": [{"mac": "00:11:22:33:44:55", "ip": "10.0.0.x"}]})", 0,
                  "00:11:22:33:44:55 255.255.255.255 :: 4", ""},
        load_case{"unconvertible ip6",
                  R"({"static_neighbor": [{"mac": "00:11:22:33:44:55", "ip6": "fd00::zz"}]})", 0,
                  "00:11:22:33:44:55 0.0.0.0 :: 4", "inet_pton"},
        load_case{"all three",
                  R"({"static_neighbor": [{"mac": "AA:BB:CC:DD:EE:F", "ip": "10.0.0.5",)"
                  R"( "ip6": "fd00::5", "other": 1}]})",
                  0, "aa:bb:cc:dd:ee:0f 10.0.0.5 fd00::5 4", ""},
        load_case{"members that are not strings count as absent",
                  R"({"static_neighbor": [{"mac": 12, "ip": true, "ip6": null}]})", 0,
                  "00:00:00:00:00:00 0.0.0.0 :: 4", ""},
        load_case{"element that is not an object", R"({"static_neighbor": [5]})", 0,
                  "00:00:00:00:00:00 0.0.0.0 :: 4", ""},
        load_case{"seven groups skipped",
                  R"({"static_neighbor": [{"mac": "1:2:3:4:5:6:7"}, {"mac": "0:0:0:0:0:2"}]})", 0,
                  "00:00:00:00:00:02 0.0.0.0 :: 4",
                  "load_static_neighbor: static neighbor entry 0 skipped: MAC text has more than "
                  "6 groups or 63 characters\n"},
        load_case{"long ip skipped",
                  R"({"static_neighbor": [{"mac": "0:0:0:0:0:1"},)"
                  R"( {"mac": "0:0:0:0:0:2", "ip": "192.168.100.2001"},)"
                  R"( {"mac": "0:0:0:0:0:3", "ip": "192.168.100.200"}]})",
                  0, "00:00:00:00:00:03 192.168.100.200 :: 4; 00:00:00:00:00:01 0.0.0.0 :: 4",
                  "load_static_neighbor: static neighbor entry 1 skipped: IPv4 text has more "
                  "than 15 characters\n"}));

TEST(LoadFile, ThreeEntriesLoadReversedAndSaveInListOrder) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        static_env::write_conf(R"({"static_neighbor": [{"mac": "00:00:00:00:00:0a"},)"
                               R"({"mac": "00:00:00:00:00:0b"}, {"mac": "00:00:00:00:00:0c"}]})");
        int loaded = load_static_neighbor();
        std::string list = list_text();
        int saved = save_as_json();
        std::string file = static_env::file_text();
        size_t a = file.find("0a"), b = file.find("0b"), c = file.find("0c");
        bool file_order = c < b && b < a && a != std::string::npos;
        return std::to_string(loaded) + std::to_string(saved) + " " + std::to_string(static_cnt) +
               " " + list + (file_order ? " file C,B,A" : " file: " + file);
    });
    EXPECT_EQ(seen,
              "00 3 00:00:00:00:00:0c 0.0.0.0 :: 4; 00:00:00:00:00:0b 0.0.0.0 :: 4; "
              "00:00:00:00:00:0a 0.0.0.0 :: 4 file C,B,A");
}

TEST(LoadFile, MoreThanEightEntriesKeepTheFirstEightAndNameTheRest) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::string file = R"({"static_neighbor": [)";
        for (int i = 1; i <= 10; ++i) {
            file += std::string(i > 1 ? "," : "") + R"({"mac": "00:00:00:00:00:0)" +
                    std::to_string(i - 1) + "\"}";
        }
        static_env::write_conf(file + "]}");
        int result = load_static_neighbor();
        std::string log = sandbox::log_text();
        std::string out = std::to_string(result) + " cnt " + std::to_string(static_cnt) +
                          " count " + std::to_string(static_member_list.count) + " head " +
                          static_env::mac_text(static_member_list.head->info.mac);
        out += contains(log,
                        "load_static_neighbor: static neighbor file holds 10 entries, only "
                        "the first 8 are kept\n")
                   ? " count-logged"
                   : "";
        out += contains(log, "dropped static neighbor [00:00:00:00:00:08]\n") &&
                       contains(log, "dropped static neighbor [00:00:00:00:00:09]\n")
                   ? " drops-logged"
                   : "";
        return out;
    });
    EXPECT_EQ(seen, "0 cnt 10 count 8 head 00:00:00:00:00:07 count-logged drops-logged");
}

// --- Saving -----------------------------------------------------------------------------------

TEST(SaveFile, WritesTheFormattedTextInListOrder) {
    SKIP_UNLESS_ROOT();
    std::string file = static_env::run([] {
        static_env::write_conf(
            R"({"static_neighbor": [{"mac": "AA:BB:CC:DD:EE:0F", "ip": "10.0.0.5"},)"
            R"({"mac": "00:11:22:33:44:55", "ip6": "fd00::1"}]})");
        load_static_neighbor();
        save_as_json();
        return static_env::file_text();
    });
    EXPECT_EQ(file,
              "{\n\t\"static_neighbor\":\t[{\n"
              "\t\t\t\"mac\":\t\"00:11:22:33:44:55\",\n"
              "\t\t\t\"ip\":\t\"0.0.0.0\",\n"
              "\t\t\t\"ip6\":\t\"fd00::1\"\n"
              "\t\t}, {\n"
              "\t\t\t\"mac\":\t\"aa:bb:cc:dd:ee:0f\",\n"
              "\t\t\t\"ip\":\t\"10.0.0.5\",\n"
              "\t\t\t\"ip6\":\t\"::\"\n"
              "\t\t}]\n}");
}

TEST(SaveFile, ClusterModeWritesNoAddressesAndSuchAFileLoadsWithout) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        static_env::write_conf(R"({"static_neighbor": [{"mac": "00:11:22:33:44:55",)"
                               R"( "ip": "10.0.0.5", "ip6": "fd00::5"}]})");
        load_static_neighbor();
        static_env::set_cluster_mode(true);
        save_as_json();
        std::string file = static_env::file_text();
        load_static_neighbor();
        return std::string(contains(file, "\"ip\":\t\"0.0.0.0\"") &&
                                   contains(file, "\"ip6\":\t\"::\"")
                               ? "file without addresses; "
                               : "file: " + file + "; ") +
               list_text();
    });
    EXPECT_EQ(seen, "file without addresses; 00:11:22:33:44:55 0.0.0.0 :: 4");
}

TEST(SaveFile, EmptyListWritesAnEmptyArray) {
    SKIP_UNLESS_ROOT();
    std::string file = static_env::run([] {
        save_as_json();
        return static_env::file_text();
    });
    EXPECT_EQ(file, "{\n\t\"static_neighbor\":\t[]\n}");
}

TEST(SaveFile, NewFileModeFollowsTheCreationMaskAndNoTemporaryStays) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::string out;
        for (mode_t mask : {mode_t{0}, mode_t{022}}) {
            unlink(STATIC_NEIGHBOR_CONF_PATH);
            umask(mask);
            save_as_json();
            struct stat st {};
            stat(STATIC_NEIGHBOR_CONF_PATH, &st);
            char mode[8];
            snprintf(mode, sizeof mode, "%o ", st.st_mode & 0777);
            out += mode;
        }
        out += sandbox::exists(std::string(STATIC_NEIGHBOR_CONF_PATH) + ".tmp") ? "tmp left"
                                                                                : "no tmp";
        return out;
    });
    EXPECT_EQ(seen, "666 644 no tmp");
}

TEST(SaveFile, UnwritableDirectoryFailsAndKeepsTheOldFile) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        static_env::write_conf(R"({"static_neighbor": [{"mac": "00:00:00:00:00:01"}]})");
        load_static_neighbor();
        std::string before = static_env::file_text();
        mount(nullptr, "/var", nullptr, MS_REMOUNT | MS_RDONLY, nullptr);
        int added = static_mac_add("00:00:00:00:00:02", nullptr, nullptr);
        int saved = save_as_json();
        bool logged = contains(sandbox::log_text(),
                               "Can not open the file /var/config/static_neighbor.conf\n");
        return std::to_string(added) + " " + std::to_string(saved) +
               (static_env::file_text() == before ? " file kept" : " file changed") +
               (logged ? " logged " : " not logged ") + list_text();
    });
    EXPECT_EQ(seen,
              "0 -1 file kept logged 00:00:00:00:00:02 0.0.0.0 :: 4; "
              "00:00:00:00:00:01 0.0.0.0 :: 4");
}

TEST(ReadWholeFile, GivesTheTextOrNothing) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        sandbox::write_file("/tmp/text", "abc");
        sandbox::write_file("/tmp/empty", "");
        std::string out;
        std::unique_ptr<char[]> text = read_whole_file("/tmp/text");
        out += text ? std::string(text.get()) : "null";
        out += read_whole_file("/tmp/empty") ? " text" : " null";
        out += read_whole_file("/tmp/none") ? " text" : " null";
        out += read_whole_file("/tmp") ? " text" : " null";
        mkfifo("/tmp/fifo", 0644);
        out += read_whole_file("/tmp/fifo") ? " text" : " null";
        std::string big(WHOLE_FILE_MAX + 1, ' ');
        sandbox::write_file("/tmp/big", big);
        out += read_whole_file("/tmp/big") ? " text" : " null";
        out += contains(sandbox::log_text(), "Can't open the file /tmp/none\n") ? " logged" : "";
        return out;
    });
    EXPECT_EQ(seen, "abc null null null null null logged");
}

// The static update pass: every node back to static offline, then one mode-3 probe per node
// (newest first), or one cluster query per node in cluster mode; and its periodic timer.
using static_env::contains;

constexpr size_t PROBE_LEN = 60;
constexpr size_t PROBE_MODE_BYTE = 19;

// Every probe caught until none comes for 200 ms, each as "v4 <dest> m<mode>" or "v6 m<mode>".
struct probe_receivers {
    probe_capture capture;

    std::string all() {
        std::string seen;
        while (auto got = capture.next(200)) {
            std::string one = got->v4 ? "v4 " + got->dest : "v6";
            uint8_t mode = got->bytes.size() > PROBE_MODE_BYTE ? got->bytes[PROBE_MODE_BYTE] : 0;
            one += " m" + std::to_string(mode);
            if (got->bytes.size() != PROBE_LEN) {
                one += " len " + std::to_string(got->bytes.size());
            }
            seen += (seen.empty() ? "" : ", ") + one;
        }
        return seen.empty() ? "none" : seen;
    }
};

void push_node(const char *mac, const char *ip, const char *ip6, uint8_t state) {
    static_member *node = static_member_new();
    parse_mac_text(mac, node->info.mac);
    node->info.ip = ip != nullptr ? inet_addr(ip) : 0;
    if (ip6 != nullptr) {
        inet_pton(AF_INET6, ip6, node->info.ip6.data());
    }
    node->info.state = state;
    std::lock_guard<std::mutex> guard(stngbr_lock);
    static_member_push(node);
}

std::string states() {
    std::lock_guard<std::mutex> guard(stngbr_lock);
    std::string out;
    for (static_member *node = static_member_list.head; node != nullptr; node = node->next) {
        out += std::to_string(node->info.state);
    }
    return out;
}

TEST(StaticUpdate, EmptyListSendsNothing) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        probe_receivers listen;
        update_static_neighbor();
        return listen.all() +
               (contains(sandbox::log_text(), "List is empty!!!\n") ? " logged" : "");
    });
    EXPECT_EQ(seen, "none logged");
}

TEST(StaticUpdate, ProbesEveryNodeNewestFirstWithMode3) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        probe_receivers listen;
        push_node("00:00:00:00:00:01", "127.0.0.1", nullptr, AP_STATE_STATIC_ACTIVE);
        push_node("00:00:00:00:00:02", "127.0.0.2", nullptr, AP_STATE_STATIC_ACTIVE);
        push_node("00:00:00:00:00:03", "127.0.0.3", nullptr, AP_STATE_STATIC_OFFLINE);
        update_static_neighbor();
        std::string log = sandbox::log_text();
        return listen.all() + " | " + states() +
               (contains(log, "update_static_neighbor: static ip is 300007f!!!\n") ? " logged"
                                                                                   : "");
    });
    EXPECT_EQ(seen, "v4 127.0.0.3 m3, v4 127.0.0.2 m3, v4 127.0.0.1 m3 | 444 logged");
}

TEST(StaticUpdate, ClusterModeSendsOneQueryPerNodeAndNoProbe) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        probe_receivers listen;
        int dump = static_env::bind_local(STATIC_NEIGHBOR_DUMP_PATH);
        static_env::set_cluster_mode(true);
        push_node("00:00:00:00:00:01", "127.0.0.1", nullptr, AP_STATE_STATIC_ACTIVE);
        push_node("00:00:00:00:00:02", "127.0.0.2", nullptr, AP_STATE_STATIC_ACTIVE);
        {
            std::lock_guard<std::mutex> guard(stngbr_lock);
            ap_info &newest = static_member_list.head->info;
            snprintf(newest.name, sizeof newest.name, "ap-two");
            newest.cluster_id = 0x01020304;
        }
        update_static_neighbor();
        std::string out;
        uint8_t query[512];
        ssize_t n;
        while ((n = recv(dump, query, sizeof query, 0)) > 0) {
            mac_addr mac;
            memcpy(mac.data(), query, 6);
            ap_info rest{};
            memcpy(reinterpret_cast<uint8_t *>(&rest) + offsetof(ap_info, tenantId), query + 6,
                   150);
            bool tail_zero = true;
            for (size_t i = 156; i < 256; ++i) {
                tail_zero = tail_zero && query[i] == 0;
            }
            out += std::to_string(n) + " " + static_env::mac_text(mac) + " [" + rest.name + "] " +
                   std::to_string(rest.cluster_id) + " state " + std::to_string(rest.state) +
                   (tail_zero ? " tail-zero" : " tail-set") + ", ";
        }
        close(dump);
        std::string log = sandbox::log_text();
        return out + listen.all() + " | " + states() +
               (contains(log, "get_cluster_list: mac:0:0:0:0:0:2\n") ? " logged" : "");
    });
    EXPECT_EQ(seen,
              "256 00:00:00:00:00:02 [ap-two] 16909060 state 4 tail-zero, "
              "256 00:00:00:00:00:01 [] 0 state 4 tail-zero, none | 44 logged");
}

TEST(StaticUpdate, ClusterQueryWithNobodyListeningIsLoggedAndTheRestGoesOn) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        static_env::set_cluster_mode(true);
        push_node("00:00:00:00:00:01", "127.0.0.1", nullptr, AP_STATE_STATIC_ACTIVE);
        push_node("00:00:00:00:00:02", "127.0.0.2", nullptr, AP_STATE_STATIC_ACTIVE);
        update_static_neighbor();
        return std::to_string(
                   static_env::occurrences(sandbox::log_text(), "send packet failed,errno:")) +
               " " + states();
    });
    EXPECT_EQ(seen, "2 44");
}

TEST(ClusterQuery, CarriesTheDescriptionAfterTheMac) {
    ap_info node{};
    node.mac = {1, 2, 3, 4, 5, 6};
    node.ip = 0xAABBCCDD;
    snprintf(node.tenantId, sizeof node.tenantId, "tenant");
    node.cluster_flag = 1;
    cluster_query query = cluster_query_build(node);
    EXPECT_EQ(0, memcmp(query.data(), node.mac.data(), 6));
    EXPECT_EQ(0, memcmp(query.data() + 6, node.tenantId, sizeof node.tenantId));
    EXPECT_EQ(query[6 + offsetof(ap_info, cluster_flag) - offsetof(ap_info, tenantId)], 1);
    for (size_t i = 156; i < query.size(); ++i) {
        ASSERT_EQ(query[i], 0) << i;
    }
}

TEST(StaticUpdateTimer, RunsThePassAndRearmsFor120Seconds) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        probe_receivers listen;
        push_node("00:00:00:00:00:01", "127.0.0.1", nullptr, AP_STATE_STATIC_ACTIVE);
        int64_t now = timer_now().sec;
        create_static_update_timer();
        uint32_t first = static_update_id;
        fflush(stdout);
        testing::internal::CaptureStdout();
        timer_dump();
        std::string pending = testing::internal::GetCapturedStdout();
        std::string expected_expiry = "expire=<" + std::to_string(now + 120);
        std::string log = sandbox::log_text();
        return listen.all() + " id " + std::to_string(first) +
               (contains(pending, expected_expiry) ? " in 120 s" : " pending: " + pending) +
               (contains(log, "Create static neighbor update timer\n") ? " logged" : "");
    });
    EXPECT_EQ(seen, "v4 127.0.0.1 m3 id 0 in 120 s logged");
}

// A process killed at any moment while it saves the static neighbor file never leaves a torn or
// empty file: after every kill the file is the complete old or the complete new version.
//
// 200 kills of a child that saves two different lists in turn, each at a random moment; the whole
// test takes a few seconds.
constexpr int KILLS = 200;
constexpr int MAX_DELAY_US = 4000;

void set_list(int variant) {
    std::lock_guard<std::mutex> guard(stngbr_lock);
    static_member_clear();
    int nodes = variant == 0 ? 3 : 6;
    for (int i = 0; i < nodes; ++i) {
        static_member *node = static_member_new();
        node->info.mac = {0x02, static_cast<uint8_t>(variant), 0, 0, 0, static_cast<uint8_t>(i)};
        node->info.ip = 0x0100000A + static_cast<uint32_t>(i << 24);
        node->info.ip6[0] = 0xfd;
        node->info.ip6[15] = static_cast<uint8_t>(i + variant);
        static_member_push(node);
    }
}

// The MACs of the file's array, or "unparsable".
std::string parsed_macs(const std::string &text) {
    cJSON *root = cJSON_Parse(text.c_str());
    const cJSON *list = cJSON_GetObjectItemCaseSensitive(root, "static_neighbor");
    if (!cJSON_IsArray(list)) {
        cJSON_Delete(root);
        return "unparsable";
    }
    std::string macs;
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, list) {
        const cJSON *mac = cJSON_GetObjectItemCaseSensitive(entry, "mac");
        macs += cJSON_IsString(mac) ? std::string(mac->valuestring) + " " : "? ";
    }
    cJSON_Delete(root);
    return macs;
}

// How long a new child takes to save once. Kills are spread over twice that (at least
// MAX_DELAY_US), so that both versions get left behind however slowly the machine forks (an
// emulator such as qemu-user takes tens of milliseconds).
int save_cycle_us() {
    auto start = std::chrono::steady_clock::now();
    pid_t saver = fork();
    if (saver == 0) {
        save_as_json();
        _exit(0);
    }
    waitpid(saver, nullptr, 0);
    auto spent = std::chrono::steady_clock::now() - start;
    return static_cast<int>(std::chrono::duration_cast<std::chrono::microseconds>(spent).count());
}

TEST(StaticSaveCrash, EveryKillLeavesACompleteVersion) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::vector<std::string> versions;
        for (int variant = 0; variant < 2; ++variant) {
            set_list(variant);
            save_as_json();
            versions.push_back(static_env::file_text());
        }
        if (versions[0] == versions[1] || parsed_macs(versions[0]) == "unparsable") {
            return std::string("versions not distinct");
        }
        std::mt19937 random(12345);
        std::uniform_int_distribution<int> delay(0, std::max(MAX_DELAY_US, 2 * save_cycle_us()));
        int seen_version[2] = {0, 0};
        for (int kill_no = 0; kill_no < KILLS; ++kill_no) {
            fflush(nullptr);
            pid_t saver = fork();
            if (saver == 0) {
                for (int variant = kill_no % 2;; variant ^= 1) {
                    set_list(variant);
                    save_as_json();
                }
            }
            usleep(static_cast<useconds_t>(delay(random)));
            kill(saver, SIGKILL);
            waitpid(saver, nullptr, 0);
            std::string text = static_env::file_text();
            int which = text == versions[0] ? 0 : text == versions[1] ? 1 : -1;
            if (which < 0 || parsed_macs(text) != parsed_macs(versions[which])) {
                return "kill " + std::to_string(kill_no) + " left:\n" + text;
            }
            ++seen_version[which];
        }
        // Both versions must have been left behind at some kills, or the saves never ran.
        return std::string(seen_version[0] > 0 && seen_version[1] > 0 ? "complete"
                                                                      : "one version only");
    });
    EXPECT_EQ(seen, "complete");
}

}  // namespace
