// The discovery exchange on real sockets: answers (ndsp) update the neighbor table or the
// static list, probes (ndrp) are answered at the prober's address on the nbcp port.
#include <gtest/gtest.h>
#include <sys/un.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/discovery.h"
#include "core/handlers.h"
#include "core/recv_area.h"
#include "core/tarn_main.h"
#include "neighbor_test_util.h"
#include "proto/nbcp.h"
#include "sandbox.h"
#include "static/static_store.h"
#include "sysinfo/self_ap.h"
#include "util/local_socket.h"

namespace {

using namespace ntest;

// The decode area a receive thread keeps from one datagram to the next.
nbcp_decode_area &decode_area() {
    static nbcp_decode_area *area = new nbcp_decode_area();
    return *area;
}

const mac_addr A = mac(0x0a);
const mac_addr B = mac(0x0b);

// An answer as a peer AP would send it.
nbcp_ndsp answer_from(const mac_addr &from_mac, uint8_t mode) {
    nbcp_ndsp a;
    memset(&a, 0, sizeof a);
    a.kind_flag = 1;
    a.mode = mode;
    a.ip = 0x0A00002A;  // host order, as decoded: 10.0.0.42
    a.mac = from_mac;
    a.info.ip = 0x0A00002A;
    a.info.ip6 = ipv6("2001:db8::2a");
    a.info.qv_ip = 0xC0A80064;  // 192.168.0.100
    a.info.state = AP_STATE_ACTIVE;
    strcpy(a.info.tenantId, "tenant-1");
    strcpy(a.info.version, "5.1");
    strcpy(a.info.name, "ap-b");
    a.info.radiocnt = 2;
    a.info.radio[0] = radio_info{0, 1, 19, 2, 3};
    a.info.radio[1] = radio_info{1, 44, 23, 5, 6};
    a.pvc_ip = 0x0A000101;  // 10.0.1.1
    a.cluster_id = 7;
    a.pvc_mac = mac_addr{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    a.cluster_flag = 1;
    return a;
}

bytes encoded(nbcp_ndsp a) {
    bytes out(NBCP_NDSP_MAX);
    out.resize(nbcp_build_ndsp(out.data(), &a));
    return out;
}

// What an entry or a static node knows, as text.
std::string described(const ap_info &info) {
    char text[320];
    char ip6[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, info.ip6.data(), ip6, sizeof ip6);
    const radio_info &r0 = info.radio[0];
    const radio_info &r1 = info.radio[1];
    snprintf(text, sizeof text,
             "ip %x ip6 %s qv %x pvc %x/%02x/%02x cluster %u/%u [%s %s %s] state %u radios %u: "
             "%u/%u/%u/%u/%u %u/%u/%u/%u/%u",
             info.ip, ip6, info.qv_ip, info.pvc_ip, info.pvc_mac[0], info.pvc_mac[5],
             info.cluster_id, info.cluster_flag, info.tenantId, info.version, info.name, info.state,
             info.radiocnt, r0.radioid, r0.channel, r0.txpower, r0.rssi, r0.bandwidth, r1.radioid,
             r1.channel, r1.txpower, r1.rssi, r1.bandwidth);
    return text;
}

// A UDP socket pair on one loopback address: `peer` sends, `rx` is the daemon's nbcp socket.
struct udp_pair {
    int rx = -1;
    int peer = -1;
    sockaddr_storage rx_addr{};
    socklen_t rx_len = sizeof rx_addr;

    explicit udp_pair(int family) {
        rx = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        peer = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        rx_addr.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET) {
            reinterpret_cast<sockaddr_in *>(&rx_addr)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        } else {
            reinterpret_cast<sockaddr_in6 *>(&rx_addr)->sin6_addr = in6addr_loopback;
        }
        bind(rx, reinterpret_cast<sockaddr *>(&rx_addr), sizeof rx_addr);
        getsockname(rx, reinterpret_cast<sockaddr *>(&rx_addr), &rx_len);
    }
    ~udp_pair() {
        close(rx);
        close(peer);
    }

    // The peer sends `datagram`; the daemon handles it. Returns the log.
    std::string deliver(const bytes &datagram) {
        sendto(peer, datagram.data(), datagram.size(), 0,
               reinterpret_cast<const sockaddr *>(&rx_addr), rx_len);
        return logged([this] { nbcp_receive(rx, RECV_ADDR_IPV6, decode_area()); });
    }
};

void add_static(const mac_addr &m, uint32_t ip, const ip6_addr &ip6) {
    static_member *node = static_member_new();
    node->info.mac = m;
    node->info.ip = ip;
    node->info.ip6 = ip6;
    node->info.qv_ip = 0x01010101;
    std::lock_guard<std::mutex> guard(stngbr_lock);
    static_member_push(node);
}

// The static node with this MAC, described, or "none".
std::string static_node(const mac_addr &m) {
    std::lock_guard<std::mutex> guard(stngbr_lock);
    const static_member *node = static_member_find(m);
    return node != nullptr ? described(node->info) : "none";
}

class Answers : public testing::Test {
  protected:
    void SetUp() override {
        neighbor_aps_clear();
        std::lock_guard<std::mutex> guard(stngbr_lock);
        static_member_clear();
    }
    void TearDown() override { SetUp(); }

    // A known neighbor with the facts the driver reported.
    static void add_known(const mac_addr &m) {
        add_entry(m, ipv4("10.0.0.7"));
        edit_entry(m, [](neighbor_ap &e) {
            e.info.ip6 = ipv6("2001:db8::7");
            e.info.radio[0] = radio_info{0, 36, 0, 41, 1};
            e.info.radio[1] = radio_info{1, 149, 0, 52, 2};
            e.age = 104;
            e.state = AP_STATE_OFFLINE;
            e.info.state = AP_STATE_OFFLINE;
        });
    }
    static std::string entry(const mac_addr &m) {
        entry_copy e = table_entry(m);
        return e.found ? std::to_string(e.ap.age) + " " + std::to_string(e.ap.state) + " " +
                             described(e.ap.info)
                       : "none";
    }
};

class DynamicAnswer : public Answers, public testing::WithParamInterface<uint8_t> {};

// Transmit powers come from the answer; the radios' other facts and the addresses stay as the
// driver reported them.
TEST_P(DynamicAnswer, KnownNeighborTakesWhatItSaysAboutItself) {
    udp_pair pair(AF_INET);
    add_known(A);
    std::string log = pair.deliver(encoded(answer_from(A, GetParam())));
    EXPECT_EQ(entry(A),
              "100 0 ip 700000a ip6 2001:db8::7 qv 6400a8c0 pvc 101000a/00/55 cluster 7/1 "
              "[tenant-1 5.1 ap-b] state 0 radios 2: 0/36/19/41/1 1/149/23/52/2");
    EXPECT_EQ(log,
              "recv nbcp packet type:11\n"
              "nbcp_receive:[ndsp] name-version: ap-b-5.1\n"
              "nbcp_receive:[ndsp] cluster id:7, pvc ip:101000a\n"
              "nbcp_receive:[ndsp] ipv6:[2001:db8::2a]\n");
}

INSTANTIATE_TEST_SUITE_P(Modes, DynamicAnswer, testing::Values(0, 1, 2));

TEST_F(Answers, AnswerAdvertisingNoWlanMarksWirelessAgeing) {
    udp_pair pair(AF_INET);
    add_known(A);
    nbcp_ndsp a = answer_from(A, 0);
    a.info.state = AP_STATE_WIRELESS_AGEING;
    pair.deliver(encoded(a));
    EXPECT_EQ(table_entry(A).ap.state, AP_STATE_WIRELESS_AGEING);
    EXPECT_EQ(table_entry(A).ap.info.state, AP_STATE_WIRELESS_AGEING);
}

// An answer never creates an entry or a node: a dynamic one from an unknown AP and a static
// one from an unlisted AP change nothing.
TEST_F(Answers, AnswerFromAnUnknownApChangesNothing) {
    udp_pair pair(AF_INET);
    add_known(A);
    add_static(B, ipv4("10.0.5.5"), {});
    const std::string known = entry(A);
    const std::string listed = static_node(B);
    EXPECT_EQ(pair.deliver(encoded(answer_from(B, 2))), "recv nbcp packet type:11\n");
    pair.deliver(encoded(answer_from(A, 3)));
    EXPECT_EQ(entry(A), known);
    EXPECT_EQ(entry(B), "none");
    EXPECT_EQ(static_node(A), "none");
    EXPECT_EQ(static_node(B), listed);
}

struct static_case {
    int family;
    uint8_t mode;
    uint32_t qv_ip;
    const char *node;
};

class StaticAnswer : public Answers, public testing::WithParamInterface<static_case> {};

// The source address is recorded, the named fields are taken and the node marked active; the
// same MAC in the table is not touched.
TEST_P(StaticAnswer, RecordsTheSourceAddressAndMarksActive) {
    const static_case c = GetParam();
    udp_pair pair(c.family);
    add_static(A, ipv4("10.0.5.5"), ipv6("2001:db8::55"));
    add_known(A);
    const std::string known = entry(A);
    nbcp_ndsp answer = answer_from(A, c.mode);
    answer.info.qv_ip = c.qv_ip;
    std::string log = pair.deliver(encoded(answer));
    EXPECT_EQ(static_node(A), c.node);
    EXPECT_EQ(entry(A), known);
    const std::string expected =
        "recv nbcp packet type:11\n"
        "nbcp_receive:[ndsp] mac:2:11:22:33:44:a, ip is a00002a\n"
        "nbcp_receive:[ndsp] type:11,mode:" +
        std::to_string(c.mode) + ",clusterID:7\n";
    EXPECT_EQ(log.substr(0, expected.size()), expected) << log;
}

INSTANTIATE_TEST_SUITE_P(
    Sources, StaticAnswer,
    testing::Values(static_case{AF_INET6, 3, 0xC0A80064,
                                "ip 505000a ip6 ::1 qv 6400a8c0 pvc 0/00/00 cluster 7/0 "
                                "[tenant-1 5.1 ap-b] state 3 radios 0: 0/0/0/0/0 0/0/0/0/0"},
                    static_case{AF_INET, 200, 0xC0A80064,
                                "ip 100007f ip6 2001:db8::55 qv 6400a8c0 pvc 0/00/00 cluster 7/0 "
                                "[tenant-1 5.1 ap-b] state 3 radios 0: 0/0/0/0/0 0/0/0/0/0"},
                    // An answer without a management address keeps the known one.
                    static_case{AF_INET, 3, 0,
                                "ip 100007f ip6 2001:db8::55 qv 1010101 pvc 0/00/00 cluster 7/0 "
                                "[tenant-1 5.1 ap-b] state 3 radios 0: 0/0/0/0/0 0/0/0/0/0"}));

TEST_F(Answers, OtherDatagramsAreLoggedAndDropped) {
    const struct {
        bytes datagram;
        const char *log;
    } cases[] = {
        {{}, ""},
        {{0, 0, 0, 22, 0, 0, 0, 0, 0, 0, 0, 0}, "recv nbcp packet type:2\n"},
        {{0, 0, 0, 12, 0, 0, 0, 0, 0, 0}, "recv nbcp packet type:12\n"},
        {{11}, "recv nbcp packet type:0\n"},
        {{0, 0, 0, 11}, "recv nbcp packet type:11\n"},
    };
    udp_pair pair(AF_INET);
    add_known(A);
    const std::string known = entry(A);
    for (const auto &c : cases) {
        EXPECT_EQ(pair.deliver(c.datagram), c.log);
    }
    EXPECT_EQ(entry(A), known);
}

// The decode area lives in the receive thread's frame: the largest kind must fit the thread's
// stack, with room for what the handler calls.
TEST(ReceiveThreadStack, HoldsTheDecodeAreaOfTheLargestKind) {
    static udp_pair *pair;
    static std::atomic<bool> done;
    udp_pair local(AF_INET);
    pair = &local;
    done = false;
    bytes largest{0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff};
    sendto(local.peer, largest.data(), largest.size(), 0,
           reinterpret_cast<const sockaddr *>(&local.rx_addr), local.rx_len);
    pthread_t thread;
    auto receive_once = [](void *) -> void * {
        nbcp_decode_area area;  // as in recv_thread's frame
        nbcp_receive(pair->rx, RECV_ADDR_IPV6, area);
        done = true;
        return nullptr;
    };
    ASSERT_EQ(create_thread(&thread, receive_once, nullptr), 1);
    for (int i = 0; i < 500 && !done; ++i) {
        usleep(10000);
    }
    EXPECT_TRUE(done);
}

TEST(SendNdsp, RefusesWhatIsNotAnInternetAddressAndLogsAFailedSend) {
    EXPECT_EQ(send_ndsp(-1, nullptr, 0), -1);
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    EXPECT_EQ(send_ndsp(-1, reinterpret_cast<sockaddr *>(&local), 0), -1);

    sockaddr_in dest{};
    dest.sin_family = AF_INET;
    dest.sin_port = htons(40000);
    dest.sin_addr.s_addr = ipv4("10.0.0.5");
    std::string log = logged([&] { send_ndsp(-1, reinterpret_cast<sockaddr *>(&dest), 3); });
    EXPECT_EQ(ntohs(dest.sin_port), NBCP_PORT) << "the port is rewritten in place";
    EXPECT_EQ(log, "send ndsp to ip: 500000a\nsend ndsp:-1 ,errno:9,mode:3\n");
}

// Probes are answered through the socket they came in on, at the prober's source address on
// the nbcp port, where a capture listens; the probe's own address field (10.0.0.5) plays no part.
struct probe_case {
    int family;
    uint8_t probe_mode;
    bool have_vap;
    const char *seen;  // "<to> type <t> mode <m> self state <s> <the answer's description>"
};

class ProbeAnswer : public testing::TestWithParam<probe_case> {};

void become_answering_ap() {
    std::lock_guard<std::mutex> guard(self_ap_lock);
    memset(&self_ap, 0, sizeof self_ap);
    self_ap.ip = 0x0A000001;  // 10.0.0.1, host order
    self_ap.mac = mac_addr{0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0x01};
    self_ap.info.mac = self_ap.mac;
    self_ap.info.ip6 = ipv6("fd00::1");
    self_ap.info.qv_ip = 0xC0A80064;
    self_ap.info.state = 9;  // shows whether an answer rewrote it
    strcpy(self_ap.info.tenantId, "t-1");
    strcpy(self_ap.info.version, "6.0.2");
    strcpy(self_ap.info.name, "ap-one");
    self_ap.info.radiocnt = 2;
    self_ap.info.radio[0] = radio_info{0, 0, 17, 0, 0};
    self_ap.info.radio[1] = radio_info{1, 0, 21, 0, 0};
    self_ap.info.pvc_ip = 0x0A000101;
    self_ap.info.cluster_id = 7;
    self_ap.info.pvc_mac = mac_addr{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    self_ap.info.cluster_flag = 1;
}

TEST_P(ProbeAnswer, GoesToTheProbersAddressOnTheNbcpPort) {
    SKIP_UNLESS_ROOT();
    const probe_case c = GetParam();
    std::string seen = sandbox::run_in_sandbox([&c] {
        if (c.have_vap && !sandbox::sh("ip link add ath00 type veth peer name vap-peer")) {
            return std::string("sandbox failure: vap");
        }
        become_answering_ap();
        probe_capture capture;
        udp_pair pair(c.family);
        sock_recv_nbcp = pair.rx;
        nbcp_ndrp p;
        memset(&p, 0, sizeof p);
        p.mode = c.probe_mode;
        p.ip = 0x0A000005;
        p.mac = B;
        bytes probe(NBCP_NDRP_LEN);
        probe.resize(nbcp_build_ndrp(probe.data(), &p));
        pair.deliver(probe);
        std::optional<captured_datagram> got = capture.next(500);
        if (!got) {
            return "no answer: " + sandbox::log_text();
        }
        std::unique_ptr<nbcp_msg> msg(new nbcp_msg());
        nbcp_decode(got->bytes.data(), got->bytes.size(), msg.get());
        const nbcp_ndsp &a = msg->m.ndsp;
        const neighbor_ap self = self_ap_snapshot();
        // The cluster facts travel in the message, not in its AP description.
        bool fields_ok = a.kind_flag == 1 && a.ip == 0x0A000001 && a.mac == self.mac &&
                         a.info.mac == mac_addr{} && a.pvc_ip == 0x0A000101 && a.cluster_id == 7 &&
                         a.pvc_mac == self.info.pvc_mac && a.cluster_flag == 1;
        return (got->v4 ? got->dest : "IPv6") + " type " + std::to_string(msg->kind) + " mode " +
               std::to_string(a.mode) + " self state " + std::to_string(self.info.state) +
               (fields_ok ? " " : " fields differ ") + described(a.info);
    });
    EXPECT_EQ(seen, c.seen);
}

#define SELF_V4(state)                                                                           \
    "ip a000001 ip6 fd00::1 qv c0a80064 pvc 0/00/00 cluster 0/0 [t-1 6.0.2 ap-one] state " state \
    " radios 2: 0/0/17/0/0 1/0/21/0/0"

INSTANTIATE_TEST_SUITE_P(
    Probes, ProbeAnswer,
    testing::Values(
        probe_case{AF_INET, 0, false, "127.0.0.1 type 11 mode 0 self state 2 " SELF_V4("2")},
        probe_case{AF_INET, 2, true, "127.0.0.1 type 11 mode 0 self state 0 " SELF_V4("0")},
        probe_case{AF_INET, 3, true, "127.0.0.1 type 11 mode 3 self state 9 " SELF_V4("3")},
        probe_case{AF_INET6, 0, false, "IPv6 type 11 mode 0 self state 2 " SELF_V4("2")},
        probe_case{AF_INET6, 3, false, "IPv6 type 11 mode 3 self state 9 " SELF_V4("3")}));

}  // namespace
