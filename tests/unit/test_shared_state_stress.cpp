// Readers and writers of self_ap on several threads at once. Run in a ThreadSanitizer build
// (-DTARN_SANITIZE=thread) this shows the locking is complete; in any build it checks that no
// reader ever sees a half-written record.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/settings.h"
#include "sandbox.h"
#include "sysinfo/sysinfo.h"

namespace {

// Every store writes fields that belong together from one number k, so a reader can tell a
// torn record: the IPv6 bytes repeat the IPv4's low byte, the cluster fields repeat the cluster
// id, a radio's power is its id + 10, a name is one letter repeated.
void store_round(uint32_t k) {
    ip6_addr ip6;
    ip6.fill(static_cast<uint8_t>(k));
    self_ap_store_addresses(k, ip6);
    mac_addr pvc_mac;
    pvc_mac.fill(static_cast<uint8_t>(k));
    self_ap_store_cluster(k, k, pvc_mac);
    int radio = static_cast<int>(k % AP_RADIO_MAX);
    self_ap_store_radio(radio, static_cast<uint8_t>(radio + 10));
    self_ap_store_text(self_ap.info.name, std::string(20, static_cast<char>('a' + k % 26)).c_str());
}

// The first inconsistency in the record, or "".
std::string torn(const neighbor_ap &self) {
    const ap_info &info = self.info;
    for (uint8_t byte : info.ip6) {
        if (byte != static_cast<uint8_t>(self.ip)) {
            return "addresses";
        }
    }
    for (uint8_t byte : info.pvc_mac) {
        if (info.cluster_flag == 1 &&
            (byte != static_cast<uint8_t>(info.cluster_id) || info.pvc_ip != info.cluster_id)) {
            return "cluster";
        }
    }
    for (int i = 0; i < AP_RADIO_MAX; ++i) {
        if (info.radio[i].txpower != 0 && info.radio[i].txpower != i + 10) {
            return "radio";
        }
    }
    std::string name(info.name, strnlen(info.name, sizeof info.name));
    if (!name.empty() && name != "stress-ap" && name != std::string(20, name[0])) {
        return "name " + name;
    }
    return "";
}

TEST(SharedStateStress, SelfApSnapshotsAreNeverTorn) {
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        // A real gatherer joins the writers: its command is a stand-in.
        sandbox::install_command("uci", "echo stress-ap");
        std::atomic<bool> done{false};
        std::atomic<int> snapshots{0};
        std::string failures[2];
        std::vector<std::thread> threads;
        for (int r = 0; r < 2; ++r) {
            threads.emplace_back([&, r] {
                while (!done) {
                    std::string what = torn(self_ap_snapshot());
                    if (!what.empty() && failures[r].empty()) {
                        failures[r] = what;
                    }
                    ++snapshots;
                }
            });
        }
        std::thread writer_a([] {
            for (uint32_t k = 1; k <= 20000; ++k) {
                store_round(k);
            }
        });
        std::thread writer_b([] {
            for (uint32_t k = 20000; k > 0; --k) {
                store_round(k * 7);
            }
        });
        for (int i = 0; i < 20; ++i) {
            Get_Ap_Name(self_ap.info.name);
        }
        writer_a.join();
        writer_b.join();
        done = true;
        for (std::thread &t : threads) {
            t.join();
        }
        bool race = sandbox::log_text().find("WARNING: ThreadSanitizer") != std::string::npos;
        return "[" + failures[0] + "][" + failures[1] + "]" + (snapshots > 0 ? "" : " no reads") +
               (race ? " race reported" : "");
    });
    EXPECT_EQ(seen, "[][]");
}

}  // namespace
