// The daemon's threads on its shared state at once: the receive, timer and bus threads on the
// neighbor table, and writers and readers of self_ap. Run in a ThreadSanitizer build
// (-DTARN_SANITIZE=thread) this shows that every shared access is locked; in any build it
// checks that every walk sees a consistent neighbor table and no reader a half-written self_ap.
#include <gtest/gtest.h>

#include <algorithm>
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

constexpr int kMacs = 40;

// The receive thread's part: one datagram handled at a time, as the real thread does. The
// answers come from the nbcp socket itself.
void receive_side(driver_feed &feed, int nbcp_rx, const sockaddr_in &to) {
    auto area = std::make_unique<nbcp_decode_area>();
    for (int i = 0; i < 1500; ++i) {
        const int n = i % kMacs;
        const uint32_t ip = htonl(0x7f000301 + static_cast<uint32_t>(n));  // 127.0.3.<n + 1>
        nbcp_ndsp answer{};
        answer.kind_flag = 1;
        answer.mac = mac(static_cast<uint8_t>(n));
        answer.info.state = static_cast<uint8_t>(i % 3);
        feed.deliver(heard{answer.mac, ip}.payload());
        if (i % 3 == 0) {
            bytes sent(NBCP_NDSP_MAX);
            sent.resize(nbcp_build_ndsp(sent.data(), &answer));
            sendto(nbcp_rx, sent.data(), sent.size(), 0, reinterpret_cast<const sockaddr *>(&to),
                   sizeof to);
            nbcp_receive(nbcp_rx, RECV_ADDR_IPV6, *area);
        }
        if (i % 5 == 0) {
            feed.deliver(op_with_mac(6, mac(static_cast<uint8_t>((n * 7) % kMacs))));
        }
        if (i % 11 == 0) {
            cached entry{mac(static_cast<uint8_t>((n + 13) % kMacs)), ip};
            entry.time = static_cast<uint32_t>(i);
            feed.deliver(cache_reply(1, {entry}));
        }
    }
}

// A walk of the table as a bus thread makes it: whether it saw a consistent table, within the
// limit in force (read after the walk: it rises before the limit does and falls only once the
// clear that follows a lowered limit is done).
bool consistent_walk(const std::atomic<int> &limit_in_force) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    uint32_t walked = 0;
    bool consistent = true;
    neighbor_aps_walk([&](neighbor_ap &e) {
        ++walked;
        consistent = consistent && e.list.next->prev == &e.list && neighbor_ap_find(e.mac) == &e &&
                     e.mac == e.info.mac && e.state == e.info.state;
    });
    return consistent && walked == table_cnt &&
           walked <= static_cast<uint32_t>(limit_in_force.load());
}

TEST(DiscoveryStress, ReceiveTimerAndBusThreadsShareTheTable) {
    SKIP_WITHOUT_NETLINK();
    sock_send_nbcp = -1;  // probes to new neighbors go nowhere
    driver_feed feed;
    int nbcp_rx = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof to;
    bind(nbcp_rx, reinterpret_cast<sockaddr *>(&to), len);
    getsockname(nbcp_rx, reinterpret_cast<sockaddr *>(&to), &len);

    std::atomic<bool> done{false};
    std::atomic<int> limit_in_force{max_ngbr_num};
    std::thread timer([&] {
        for (int run = 0; !done; ++run) {
            neighbor_aps_timer();
            if (run % 500 == 0) {
                const int limit = run % 1000 == 0 ? 32 : MAX_NGBR_NUM_DEFAULT;
                limit_in_force = std::max(limit_in_force.load(), limit);
                max_ngbr_num = static_cast<uint8_t>(limit);
                neighbor_aps_clear();  // a limit change empties the table
                limit_in_force = limit;
            }
        }
    });
    std::atomic<int> bad_walks{0};
    std::thread bus([&] {
        sockaddr_in dest{AF_INET, 0, {ipv4("127.0.0.9")}, {}};
        while (!done) {
            send_ndsp(-1, reinterpret_cast<sockaddr *>(&dest), 0);
            bad_walks += !consistent_walk(limit_in_force);
        }
    });
    receive_side(feed, nbcp_rx, to);
    done = true;
    timer.join();
    bus.join();
    EXPECT_EQ(bad_walks, 0);
    close(nbcp_rx);
    neighbor_aps_clear();
    max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
}

// Every store writes fields that belong together from one number k, so a reader can tell a
// torn record: the IPv6 bytes repeat the IPv4's low byte, a name is one letter repeated.
void store_round(uint32_t k) {
    ip6_addr ip6;
    ip6.fill(static_cast<uint8_t>(k));
    self_ap_store_addresses(k, ip6);
    self_ap_store_text(self_ap.info.name, std::string(20, static_cast<char>('a' + k % 26)).c_str());
}

bool torn(const neighbor_ap &self) {
    const ap_info &info = self.info;
    ip6_addr ip6;
    ip6.fill(static_cast<uint8_t>(self.ip));
    std::string name(info.name, strnlen(info.name, sizeof info.name));
    return info.ip6 != ip6 || (!name.empty() && name != std::string(20, name[0]));
}

// A writer stores self_ap while a reader takes snapshots, until both have done plenty.
TEST(SharedStateStress, SelfApSnapshotsAreNeverTorn) {
    std::atomic<bool> done{false};
    std::atomic<int> snapshots{0};
    std::atomic<int> torn_reads{0};
    std::thread reader([&] {
        for (; !done; ++snapshots) {
            torn_reads += torn(self_ap_snapshot());
        }
    });
    for (uint32_t k = 1; k <= 40000 || snapshots < 1000; ++k) {
        store_round(k);
    }
    done = true;
    reader.join();
    EXPECT_EQ(torn_reads, 0);
}

}  // namespace
