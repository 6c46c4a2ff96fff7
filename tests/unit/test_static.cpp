// The static neighbor store: its edit and file rules, the formatted file, the crash-safe save
// and the update pass that probes every node.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/settings.h"
#include "neighbor/periodic_jobs.h"
#include "neighbor_test_util.h"
#include "probe_capture.h"
#include "sandbox.h"
#include "static/static_store.h"
#include "static/static_update.h"
#include "static_env.h"

namespace {

using static_env::list_text;
using static_env::nodes;

constexpr const char *M = "00:11:22:33:44:55";

std::string num(int value) {
    return std::to_string(value);
}

// The MACs in the static neighbor file, or its raw text when it names none.
std::string file_now() {
    const std::string text = static_env::file_text(), key = "\"mac\":\t\"";
    std::string macs;
    for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
        macs += (macs.empty() ? "" : " ") + text.substr(at + key.size(), 17);
    }
    return macs.empty() ? text : "[" + macs + "]";
}

ap_info record(const std::string &mac, const char *ip) {
    ap_info info{};
    parse_mac_text(mac.c_str(), info.mac);
    info.ip = inet_addr(ip);
    return info;
}

std::string mac_n(int n) {
    char text[18];
    snprintf(text, sizeof text, "00:00:00:00:00:%02x", n);
    return text;
}

// One rule of the store: the steps report what they saw.
struct store_case {
    const char *rule;
    void (*steps)(std::ostream &out);
    const char *seen;
};

class StaticStore : public testing::TestWithParam<store_case> {};

TEST_P(StaticStore, FollowsItsRule) {
    SKIP_UNLESS_ROOT();
    const store_case c = GetParam();
    std::string seen = static_env::run([&c] {
        std::ostringstream out;
        c.steps(out);
        return out.str();
    });
    EXPECT_EQ(seen, c.seen) << c.rule;
}

INSTANTIATE_TEST_SUITE_P(
    Rules, StaticStore,
    testing::Values(
        store_case{"add of a known MAC changes only the addresses given",
                   [](std::ostream &out) {
                       out << static_mac_add(M, "10.0.0.5", nullptr)
                           << static_mac_add(M, nullptr, "fd00::7")
                           << static_mac_add(M, "10.0.0.6", nullptr) << " " << list_text() << " "
                           << file_now();
                   },
                   "000 00:11:22:33:44:55 10.0.0.6 fd00::7 4 [00:11:22:33:44:55]"},
        store_case{"delete of an unknown MAC fails and leaves the file",
                   [](std::ostream &out) {
                       static_mac_add(M, nullptr, nullptr);
                       static_env::write_conf("untouched");
                       out << static_mac_del("00:11:22:33:44:56") << static_mac_del(nullptr)
                           << static_mac_del("1:2:3:4:5:6:7") << " " << file_now() << " "
                           << list_text();
                   },
                   "-1-1-1 untouched 00:11:22:33:44:55 0.0.0.0 :: 4"},
        store_case{"replace takes only the MAC and the addresses of a record, keeps a repeated "
                   "MAC twice, and one delete removes the newer",
                   [](std::ostream &out) {
                       ap_info two[] = {record(M, "10.0.0.1"), record(M, "10.0.0.2")};
                       inet_pton(AF_INET6, "fd00::7", two[0].ip6.data());
                       two[0].radiocnt = 2;
                       snprintf(two[0].name, sizeof two[0].name, "ap7");
                       out << static_mac_qv(two, 2) << " " << file_now() << " " << static_mac_del(M)
                           << " " << list_text() << " "
                           << int{static_member_list.head->info.radiocnt} << " ["
                           << static_member_list.head->info.name << "]";
                   },
                   "1 [00:11:22:33:44:55 00:11:22:33:44:55] 0 00:11:22:33:44:55 10.0.0.1 fd00::7 4 "
                   "0 []"},
        store_case{"in cluster mode add and delete ask the configuration service to save",
                   [](std::ostream &out) {
                       static_mac_add(mac_n(1).c_str(), nullptr, nullptr);
                       static_mac_del(mac_n(1).c_str());
                       out << "plain [" << static_env::calls("ubus") << "]";
                       sandbox::write_file("/tmp/mode", "CLUSTER\n");
                       static_mac_add(mac_n(2).c_str(), "10.0.0.2", nullptr);
                       static_mac_del(mac_n(2).c_str());
                       ap_info one = record(mac_n(3), "10.0.0.3");
                       static_mac_qv(&one, 1);
                       static_mac_del(mac_n(9).c_str());
                       out << " cluster [" << static_env::calls("ubus") << "]";
                   },
                   "plain [] cluster [call userconfig_reload userconfig_save\n"
                   "call userconfig_reload userconfig_save\n]"},
        store_case{"an unwritable file fails the save, keeps the old file and the edit",
                   [](std::ostream &out) {
                       static_mac_add(mac_n(1).c_str(), nullptr, nullptr);
                       mount(nullptr, "/var", nullptr, MS_REMOUNT | MS_RDONLY, nullptr);
                       out << static_mac_add(mac_n(2).c_str(), nullptr, nullptr) << " "
                           << save_as_json() << " " << file_now() << " "
                           << static_env::mac_text(static_member_list.head->info.mac);
                   },
                   "0 -1 [00:00:00:00:00:01] 00:00:00:00:00:02"}));

// A file whose entry i (from 1) has the MAC 0:0:0:0:0:i and, when given, the i-th address.
std::string numbered_file(const std::vector<const char *> &ips) {
    std::string text = R"({"static_neighbor": [)";
    for (size_t i = 0; i < ips.size(); ++i) {
        text += std::string(i > 0 ? ", " : "") + R"({"mac": "0:0:0:0:0:)" + num(int(i) + 1) + "\"" +
                (ips[i] != nullptr ? std::string(R"(, "ip": ")") + ips[i] + "\"" : "") + "}";
    }
    return text + "]}";
}

// A readable file of 1 MiB, and `extra` bytes more.
std::string mib_file(size_t extra) {
    std::string text = R"({"static_neighbor": [{"mac": "0:0:0:0:0:5"}]})";
    return text + std::string((1u << 20) + extra - text.size(), ' ');
}

// Loading the file: each case starts from a list of one node, 02:00:00:00:00:99.
struct load_case {
    const char *name;
    std::string file;  // empty: no file at all
    std::string seen;  // "<result> | <list>"
};

class LoadFile : public testing::TestWithParam<load_case> {};

TEST_P(LoadFile, GivesResultAndList) {
    SKIP_UNLESS_ROOT();
    const load_case c = GetParam();
    std::string seen = static_env::run([&c] {
        static_mac_add("02:00:00:00:00:99", nullptr, nullptr);
        if (!c.file.empty()) {
            static_env::write_conf(c.file);
        }
        std::string result = num(load_static_neighbor());  // before the list is read
        return result + " | " + list_text();
    });
    EXPECT_EQ(seen, c.seen) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Files, LoadFile,
    testing::Values(
        load_case{"missing file", "", "0 | 02:00:00:00:00:99 0.0.0.0 :: 4"},
        load_case{"not json", "static_neighbor", "-1 | "},
        load_case{"members that are not strings count as absent",
                  R"({"static_neighbor": [{"mac": 12, "ip": true, "ip6": null}, 5]})",
                  "0 | 00:00:00:00:00:00 0.0.0.0 :: 4; 00:00:00:00:00:00 0.0.0.0 :: 4"},
        // Each MAC group gives its low 8 bits; a group that is no number gives 0, a missing
        // group leaves its byte at 0.
        load_case{"MAC groups read as hexadecimal",
                  R"({"static_neighbor": [{"mac": "123:1ff:zz:3"}]})",
                  "0 | 23:ff:00:03:00:00 0.0.0.0 :: 4"},
        load_case{"seven MAC groups skipped",
                  R"({"static_neighbor": [{"mac": "1:2:3:4:5:6:7"}, {"mac": "0:0:0:0:0:2"}]})",
                  "0 | " + nodes({2})},
        // Read by the AP's rules on every C library: text after the address makes it all ones.
        load_case{"ip with a trailing blank", numbered_file({"10.0.0.5 "}),
                  "0 | " + nodes({1}, "255.255.255.255")},
        // 63 characters are read, 64 refused (the groups "1:2:3:4:5:" and 53 or 54 digits).
        load_case{"MAC text of 63 characters read, 64 skipped",
                  R"({"static_neighbor": [{"mac": "1:2:3:4:5:)" + std::string(52, '0') +
                      R"(4"}, {"mac": "1:2:3:4:5:)" + std::string(53, '0') + R"(6"}]})",
                  "0 | 01:02:03:04:05:04 0.0.0.0 :: 4"},
        // Each octet at 0, 255 and 256 (which no conversion accepts, so all ones).
        load_case{"IPv4 octets at 0, 255 and one past",
                  numbered_file({"0.1.2.3", "255.0.2.3", "1.255.0.3", "1.2.255.0", "1.2.3.255",
                                 "256.2.3.4", "1.256.3.4", "1.2.3.256"}),
                  "0 | " + nodes({8, 7, 6}, "255.255.255.255") + "; " + nodes({5}, "1.2.3.255") +
                      "; " + nodes({4}, "1.2.255.0") + "; " + nodes({3}, "1.255.0.3") + "; " +
                      nodes({2}, "255.0.2.3") + "; " + nodes({1}, "0.1.2.3")},
        // Eight entries fill the list; a ninth is dropped, and a refused entry among the first
        // eight is not replaced by it.
        load_case{"nine entries: the first eight read", numbered_file(std::vector<const char *>(9)),
                  "0 | " + nodes({8, 7, 6, 5, 4, 3, 2, 1})},
        load_case{"nine entries, the second refused for an ip of 16 characters, the third's of "
                  "15 read: seven read",
                  numbered_file({nullptr, "192.168.100.2001", "192.168.100.200", nullptr, nullptr,
                                 nullptr, nullptr, nullptr, nullptr}),
                  "0 | " + nodes({8, 7, 6, 5, 4}) + "; " + nodes({3}, "192.168.100.200") + "; " +
                      nodes({1})},
        load_case{"file of 1 MiB", mib_file(0), "0 | " + nodes({5})},
        load_case{"file of 1 MiB and a byte", mib_file(1), "-1 | "}));

TEST(StaticFile, LoadsReversedAndWritesTheFormattedTextInLowerCase) {
    SKIP_UNLESS_ROOT();
    std::string file = static_env::run([] {
        static_env::write_conf(
            R"({"static_neighbor": [{"mac": "AA:BB:CC:DD:EE:F", "ip": "10.0.0.5", "x": 1},)"
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

void push_node(const std::string &mac, const char *ip, uint8_t state = AP_STATE_STATIC_OFFLINE) {
    static_member *node = static_member_new();
    node->info = record(mac, ip);
    node->info.state = state;
    std::lock_guard<std::mutex> guard(stngbr_lock);
    static_member_push(node);
}

// The timer runs the pass at once and re-arms for 120 s. The pass marks every node offline and
// sends each, newest first, a static probe (mode 3) to its IPv4 address.
TEST(StaticUpdate, TimerMarksEveryNodeOfflineAndProbesIt) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        probe_capture capture;
        push_node(mac_n(1), "127.0.0.1", AP_STATE_STATIC_ACTIVE);
        push_node(mac_n(2), "127.0.0.2", AP_STATE_STATIC_OFFLINE);
        int64_t from = timer_now().sec;
        create_static_update_timer();
        std::string out = ntest::pending_for(static_update_id, 120, from) ? "120 s:" : "not armed:";
        while (auto got = capture.next(200)) {
            out += " probe " + got->dest + " m" +
                   (got->bytes.size() == 60 ? num(got->bytes[19]) : "?");
        }
        return out + " | " + list_text();
    });
    EXPECT_EQ(seen, "120 s: probe 127.0.0.2 m3 probe 127.0.0.1 m3 | " + nodes({2}, "127.0.0.2") +
                        "; " + nodes({1}, "127.0.0.1"));
}

// A process killed at any moment while it saves never leaves a torn or empty file: after each
// of 200 kills at random moments the file is the complete old or the complete new version.
void set_list(int variant) {
    {
        std::lock_guard<std::mutex> guard(stngbr_lock);
        static_member_clear();
    }
    for (int i = 0; i < (variant == 0 ? 3 : 6); ++i) {
        push_node(mac_n(0x10 * variant + i), ("10.0.0." + num(i + 1)).c_str());
    }
}

// How long a new child takes to save once: kills are spread over twice that (4 ms at least),
// so both versions get left behind however slowly the machine forks (qemu-user takes tens of
// milliseconds).
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
        std::string versions[2];
        for (int variant = 0; variant < 2; ++variant) {
            set_list(variant);
            save_as_json();
            versions[variant] = static_env::file_text();
        }
        std::mt19937 random(12345);
        std::uniform_int_distribution<int> delay(0, std::max(4000, 2 * save_cycle_us()));
        int left_behind[2] = {0, 0};
        for (int kill_no = 0; kill_no < 200; ++kill_no) {
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
            if (which < 0) {
                return "kill " + num(kill_no) + " left:\n" + text;
            }
            ++left_behind[which];
        }
        // Both versions must have been left behind at some kills, or the saves never ran (or
        // wrote the same text).
        return std::string(left_behind[0] > 0 && left_behind[1] > 0 ? "complete" : "one only");
    });
    EXPECT_EQ(seen, "complete");
}

}  // namespace
