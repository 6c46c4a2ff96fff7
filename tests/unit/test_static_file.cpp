// The static neighbor file: reading rules, list order, the formatted writer, cluster mode,
// capacity and malformed entries, and the MAC text reader.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <string>

#include "sandbox.h"
#include "static/static_store.h"
#include "static_env.h"

namespace {

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

}  // namespace
