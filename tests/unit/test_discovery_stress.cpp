// The receive thread (driver events, answers), the timer thread (learning, ageing) and a bus
// thread (answers sent, self_ap read) on the neighbor table and self_ap at once. Run in a
// ThreadSanitizer build these show that every shared access is locked; in any build they check
// that the table stays consistent.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "core/discovery.h"
#include "core/handlers.h"
#include "core/recv_area.h"
#include "neighbor/periodic_jobs.h"
#include "neighbor_test_util.h"
#include "proto/nbcp.h"
#include "sandbox.h"
#include "sysinfo/self_ap.h"
#include "util/local_socket.h"

namespace {

using namespace ntest;

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

std::string ip_of(int i) {
    return "127.0.3." + std::to_string(i + 1);
}

// The receive thread's part: one datagram handled at a time, as the real thread does.
void receive_side(driver_feed &feed, int nbcp_rx, int peer, const sockaddr_in &to) {
    auto area = std::make_unique<nbcp_decode_area>();
    for (int i = 0; i < kEvents; ++i) {
        const int n = i % kMacs;
        feed.send_event(heard{mac(static_cast<uint8_t>(n)),
                              ipv4(ip_of(n).c_str()),
                              {},
                              0,
                              6,
                              static_cast<uint8_t>(i),
                              20}
                            .payload());
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
            for (int k = 0; k < 3; ++k) {
                int m = (n + k * 13) % kMacs;
                entries.push_back(cached{mac(static_cast<uint8_t>(m)),
                                         ipv4(ip_of(m).c_str()),
                                         {},
                                         {},
                                         static_cast<uint32_t>(i)});
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
            }
        });
        std::thread bus([&done] {
            sockaddr_in dest{};
            dest.sin_family = AF_INET;
            dest.sin_addr.s_addr = ipv4("127.0.0.9");
            while (!done) {
                send_ndsp(-1, reinterpret_cast<sockaddr *>(&dest), 0);
                neighbor_ap self = self_ap_snapshot();
                (void)self;
            }
        });
        receive_side(feed, nbcp_rx, peer, to);
        done = true;
        timer.join();
        bus.join();

        std::lock_guard<std::mutex> guard(ngb_lock);
        uint32_t walked = 0;
        int mismatched = 0;
        neighbor_aps_walk([&](neighbor_ap &e) {
            ++walked;
            mismatched += e.state != e.info.state || e.mac != e.info.mac;
        });
        // The sandbox ends without exit handlers, so a race report is looked for here.
        bool race_reported =
            sandbox::log_text().find("WARNING: ThreadSanitizer") != std::string::npos;
        return std::to_string(walked == table_cnt) + " " + std::to_string(mismatched) + " " +
               std::to_string(table_cnt > 0 && table_cnt <= kMacs) +
               (race_reported ? " race reported" : "");
    });
    EXPECT_EQ(seen, "1 0 1");
}

}  // namespace
