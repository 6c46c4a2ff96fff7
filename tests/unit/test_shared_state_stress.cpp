// Readers and writers of self_ap and of the neighbor table on several threads at once. Run in
// a ThreadSanitizer build (-DTARN_SANITIZE=thread) these show the locking is complete; in any
// build they check that no reader ever sees a half-written record.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/settings.h"
#include "neighbor/neighbor_table.h"
#include "sysinfo/sysinfo.h"

namespace {

constexpr int kWriterRounds = 20000;

// Every store below writes fields that belong together from one number k, so a reader can
// tell a torn record: the IPv6 bytes repeat the IPv4's low byte, the cluster fields repeat
// the cluster id, a radio's power repeats its id, a name is one letter repeated.
void store_round(uint32_t k) {
    ip6_addr ip6;
    ip6.fill(static_cast<uint8_t>(k));
    self_ap_store_addresses(k, ip6);
    mac_addr pvc_mac;
    pvc_mac.fill(static_cast<uint8_t>(k));
    self_ap_store_cluster(k, k, pvc_mac);
    int radio = static_cast<int>(k % AP_RADIO_MAX);
    self_ap_store_radio(radio, static_cast<uint8_t>(radio + 10));
    std::string name(20, static_cast<char>('a' + k % 26));
    self_ap_store_text(self_ap.info.name, name.c_str());
}

// Returns a description of the first inconsistency in the record, or "".
std::string torn(const neighbor_ap &self) {
    for (uint8_t byte : self.info.ip6) {
        if (byte != static_cast<uint8_t>(self.ip)) {
            return "addresses";
        }
    }
    const ap_info &info = self.info;
    if (info.cluster_flag == 1) {
        if (info.pvc_ip != info.cluster_id) {
            return "cluster";
        }
        for (uint8_t byte : info.pvc_mac) {
            if (byte != static_cast<uint8_t>(info.cluster_id)) {
                return "pvc mac";
            }
        }
    }
    for (int i = 0; i < AP_RADIO_MAX; ++i) {
        const radio_info &r = info.radio[i];
        if (r.txpower != 0 && (r.radioid != i || r.txpower != i + 10)) {
            return "radio";
        }
    }
    size_t len = strnlen(info.name, sizeof info.name);
    if (len != 0 && len != 20 && std::string(info.name) != "stress-ap") {
        return "name length";
    }
    if (len == 20 && std::string(info.name) != std::string(20, info.name[0])) {
        return "name letters";
    }
    return "";
}

TEST(SharedStateStress, SelfApSnapshotsAreNeverTorn) {
    {
        std::lock_guard<std::mutex> guard(self_ap_lock);
        memset(&self_ap, 0, sizeof self_ap);
    }
    // A real gatherer joins the writers: its command is a stand-in on PATH.
    char dir_template[] = "/tmp/tarn-stress-XXXXXX";
    ASSERT_NE(mkdtemp(dir_template), nullptr);
    std::string dir = dir_template;
    {
        std::ofstream script(dir + "/uci");
        script << "#!/bin/sh\necho stress-ap\n";
    }
    chmod((dir + "/uci").c_str(), 0755);
    std::string old_path = getenv("PATH");
    setenv("PATH", (dir + ":" + old_path).c_str(), 1);

    std::atomic<bool> done{false};
    std::atomic<int> snapshots{0};
    std::vector<std::string> failures(2);
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&, r] {
            while (!done.load()) {
                std::string what = torn(self_ap_snapshot());
                if (!what.empty() && failures[r].empty()) {
                    failures[r] = what;
                }
                snapshots.fetch_add(1);
            }
        });
    }
    std::thread writer_a([] {
        for (uint32_t k = 1; k <= kWriterRounds; ++k) {
            store_round(k);
        }
    });
    std::thread writer_b([] {
        for (uint32_t k = kWriterRounds; k > 0; --k) {
            store_round(k * 7);
        }
    });
    std::thread gatherer([] {
        for (int i = 0; i < 20; ++i) {
            Get_Ap_Name(self_ap.info.name);
        }
    });
    writer_a.join();
    writer_b.join();
    gatherer.join();
    done = true;
    for (std::thread &t : readers) {
        t.join();
    }
    setenv("PATH", old_path.c_str(), 1);
    unlink((dir + "/uci").c_str());
    rmdir(dir.c_str());

    EXPECT_EQ(failures[0], "");
    EXPECT_EQ(failures[1], "");
    EXPECT_GT(snapshots.load(), 0);
}

TEST(SharedStateStress, TableWalksSeeConsistentTable) {
    neighbor_aps_clear();
    max_ngbr_num = 32;
    std::atomic<bool> done{false};
    std::atomic<int> bad_walks{0};
    std::atomic<int> walks{0};

    auto writer = [&](uint32_t seed) {
        std::mt19937 rng(seed);
        for (int i = 0; i < 20000; ++i) {
            mac_addr mac{0,
                         1,
                         2,
                         static_cast<uint8_t>(rng() % 8),
                         static_cast<uint8_t>(rng()),
                         static_cast<uint8_t>(rng())};
            std::lock_guard<std::mutex> guard(ngb_lock);
            neighbor_ap *found = neighbor_ap_find(mac);
            if (found != nullptr) {
                if (rng() % 2 == 0) {
                    neighbor_ap_delete(found);
                } else {
                    found->timestamp = rng() % 5;
                }
                continue;
            }
            std::unique_ptr<neighbor_ap> entry = neighbor_ap_new();
            entry->mac = mac;
            entry->timestamp = rng() % 5;
            neighbor_ap_add(mac, entry);  // a refused entry is released by unique_ptr
        }
    };
    std::thread walker([&] {
        while (!done.load()) {
            std::lock_guard<std::mutex> guard(ngb_lock);
            uint32_t seen = 0;
            bool linked = true;
            neighbor_aps_walk([&](neighbor_ap &entry) {
                ++seen;
                linked = linked && entry.list.next->prev == &entry.list &&
                         neighbor_ap_find(entry.mac) == &entry;
            });
            if (seen != table_cnt || seen > max_ngbr_num.load() || !linked) {
                bad_walks.fetch_add(1);
            }
            walks.fetch_add(1);
        }
    });
    std::thread clearer([&] {
        for (int i = 0; i < 50; ++i) {
            neighbor_aps_clear();
            std::this_thread::yield();
        }
    });
    std::thread w1(writer, 11u);
    std::thread w2(writer, 12u);
    w1.join();
    w2.join();
    clearer.join();
    done = true;
    walker.join();
    neighbor_aps_clear();
    max_ngbr_num = MAX_NGBR_NUM_DEFAULT;

    EXPECT_EQ(bad_walks.load(), 0);
    EXPECT_GT(walks.load(), 0);
}

}  // namespace
