// The static update pass: every node back to static offline, then one mode-3 probe per node
// (newest first), or one cluster query per node in cluster mode; and its periodic timer.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <string>

#include "core/settings.h"
#include "probe_capture.h"
#include "sandbox.h"
#include "static/static_store.h"
#include "static/static_timer.h"
#include "static/static_update.h"
#include "static_env.h"
#include "util/timer.h"

namespace {

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

struct family_case {
    const char *name;
    const char *ip;
    const char *ip6;
    const char *seen;
};

class StaticUpdateFamily : public testing::TestWithParam<family_case> {};

TEST_P(StaticUpdateFamily, PicksTheFamilyOrNone) {
    SKIP_UNLESS_ROOT();
    const family_case c = GetParam();
    std::string seen = static_env::run([&c] {
        probe_receivers listen;
        push_node("00:00:00:00:00:01", c.ip, c.ip6, AP_STATE_STATIC_ACTIVE);
        update_static_neighbor();
        return listen.all() + " | " + states();
    });
    EXPECT_EQ(seen, c.seen) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Addresses, StaticUpdateFamily,
    testing::Values(family_case{"reserved with ip6", "192.168.1.254", "::1", "v6 m3 | 4"},
                    family_case{"reserved without ip6", "192.168.1.254", nullptr, "none | 4"},
                    family_case{"no address", nullptr, nullptr, "none | 4"},
                    family_case{"ip6 only", nullptr, "::1", "v6 m3 | 4"}));

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

}  // namespace
