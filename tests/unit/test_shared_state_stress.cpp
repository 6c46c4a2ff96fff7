// The daemon's threads on its shared state at once. Run in a ThreadSanitizer build
// (-DTARN_SANITIZE=thread) this shows that every shared access is locked; in any build it
// checks that every walk sees a consistent neighbor table and no reader a half-written self_ap.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/discovery.h"
#include "core/handlers.h"
#include "core/recv_area.h"
#include "neighbor/periodic_jobs.h"
#include "neighbor_test_util.h"
#include "proto/nbcp.h"
#include "sandbox.h"
#include "sysinfo/self_ap.h"
#include "sysinfo/sysinfo.h"
#include "util/local_socket.h"

namespace {

using namespace ntest;

// The receive thread (driver events, answers), the timer thread (learning, ageing, a limit
// change) and a bus thread (answers sent, self_ap read, the table walked) on the neighbor
// table and self_ap.
constexpr int kEvents = 1500;
constexpr int kMacs = 40;

bytes answer_of(const mac_addr &m, int k) {
    nbcp_ndsp a;
    memset(&a, 0, sizeof a);
    a.kind_flag = 1;
    a.mac = m;
    a.info.state = static_cast<uint8_t>(k % 3);
    snprintf(a.info.name, sizeof a.info.name, "ap-%d", k);
    a.info.radiocnt = 2;
    a.info.radio[0].txpower = static_cast<uint8_t>(k);
    bytes out(NBCP_NDSP_MAX);
    out.resize(nbcp_build_ndsp(out.data(), &a));
    return out;
}

uint32_t ip_of(int n) {
    return htonl(0x7f000301 + static_cast<uint32_t>(n));  // 127.0.3.<n + 1>
}

// The receive thread's part: one datagram handled at a time, as the real thread does.
void receive_side(driver_feed &feed, int nbcp_rx, int peer, const sockaddr_in &to) {
    auto area = std::make_unique<nbcp_decode_area>();
    for (int i = 0; i < kEvents; ++i) {
        const int n = i % kMacs;
        heard event{mac(static_cast<uint8_t>(n)), ip_of(n)};
        event.channel = 6;
        event.rssi = static_cast<uint8_t>(i);
        feed.send_event(event.payload());
        hand_receive();
        if (i % 3 == 0) {
            bytes answer = answer_of(mac(static_cast<uint8_t>(n)), i);
            sendto(peer, answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr *>(&to),
                   sizeof to);
            nbcp_receive(nbcp_rx, RECV_ADDR_IPV6, *area);
        }
        if (i % 5 == 0) {
            feed.send_event(op_with_mac(6, mac(static_cast<uint8_t>((n * 7) % kMacs))));
            hand_receive();
        }
        if (i % 11 == 0) {
            std::vector<cached> entries;
            for (int m : {n, (n + 13) % kMacs, (n + 26) % kMacs}) {
                entries.push_back(cached{mac(static_cast<uint8_t>(m)), ip_of(m)});
                entries.back().time = static_cast<uint32_t>(i);
            }
            feed.send_event(cache_reply(3, entries));
            hand_receive();
        }
    }
}

TEST(DiscoveryStress, ReceiveTimerAndBusThreadsShareTheTable) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        sandbox::install_command("getupifname", "echo lo");
        sandbox::install_command("uci", "echo ap-stress");
        sock_send_nbcp = open_probe_socket();
        driver_feed feed;
        int nbcp_rx = socket(AF_INET, SOCK_DGRAM, 0);
        int peer = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(nbcp_rx, reinterpret_cast<sockaddr *>(&to), sizeof to);
        socklen_t len = sizeof to;
        getsockname(nbcp_rx, reinterpret_cast<sockaddr *>(&to), &len);

        std::atomic<bool> done{false};
        std::thread timer([&done] {
            for (int run = 0; !done; ++run) {
                neighbor_aps_timer();
                if (run % 50 == 0) {
                    neighbor_aps_learning();
                }
                if (run % 500 == 0) {
                    max_ngbr_num = run % 1000 == 0 ? 32 : MAX_NGBR_NUM_DEFAULT;
                    neighbor_aps_clear();  // a limit change empties the table
                }
            }
        });
        std::atomic<int> bad_walks{0};
        std::thread bus([&] {
            sockaddr_in dest{};
            dest.sin_family = AF_INET;
            dest.sin_addr.s_addr = ipv4("127.0.0.9");
            while (!done) {
                send_ndsp(-1, reinterpret_cast<sockaddr *>(&dest), 0);
                neighbor_ap self = self_ap_snapshot();
                (void)self;
                std::lock_guard<std::mutex> guard(ngb_lock);
                uint32_t walked = 0;
                bool consistent = true;
                neighbor_aps_walk([&](neighbor_ap &e) {
                    ++walked;
                    consistent = consistent && e.list.next->prev == &e.list &&
                                 neighbor_ap_find(e.mac) == &e && e.mac == e.info.mac &&
                                 e.state == e.info.state;
                });
                bad_walks += walked != table_cnt || walked > max_ngbr_num || !consistent;
            }
        });
        receive_side(feed, nbcp_rx, peer, to);
        done = true;
        timer.join();
        bus.join();
        // The sandbox ends without exit handlers, so a race report is looked for here.
        bool race_reported =
            sandbox::log_text().find("WARNING: ThreadSanitizer") != std::string::npos;
        return std::to_string(bad_walks) + " bad walks" +
               (table_cnt <= kMacs ? "" : ", too many entries") +
               (race_reported ? ", race reported" : "");
    });
    EXPECT_EQ(seen, "0 bad walks");
}

// Readers and writers of self_ap on several threads.
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
