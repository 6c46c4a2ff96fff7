// A process killed at any moment while it saves the static neighbor file never leaves a torn or
// empty file: after every kill the file is the complete old or the complete new version.
//
// 200 kills of a child that saves two different lists in turn, each at a random moment; the whole
// test takes a few seconds.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "sandbox.h"
#include "static/static_store.h"
#include "static_env.h"

namespace {

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
