// The discovery exchange on real sockets: probes (ndrp) leave to the right address with the
// right bytes, answers (ndsp) update the neighbor table or the static list, probes are
// answered at the prober's address on the nbcp port.
#include <gtest/gtest.h>
#include <sys/un.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/discovery.h"
#include "core/handlers.h"
#include "core/probe.h"
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

struct dynamic_case {
    uint8_t mode;
    uint8_t state;  // what the answer says of its WLAN
};

class DynamicAnswer : public Answers, public testing::WithParamInterface<dynamic_case> {};

// Transmit powers and the state come from the answer; the radios' other facts and the
// addresses stay as the driver reported them.
TEST_P(DynamicAnswer, KnownNeighborTakesWhatItSaysAboutItself) {
    const dynamic_case c = GetParam();
    udp_pair pair(AF_INET);
    add_known(A);
    nbcp_ndsp answer = answer_from(A, c.mode);
    answer.info.state = c.state;
    std::string log = pair.deliver(encoded(answer));
    const std::string state = std::to_string(c.state);
    EXPECT_EQ(entry(A), "100 " + state +
                            " ip 700000a ip6 2001:db8::7 qv 6400a8c0 pvc 101000a/00/55 cluster 7/1 "
                            "[tenant-1 5.1 ap-b] state " +
                            state + " radios 2: 0/36/19/41/1 1/149/23/52/2");
    EXPECT_EQ(log,
              "recv nbcp packet type:11\n"
              "nbcp_receive:[ndsp] name-version: ap-b-5.1\n"
              "nbcp_receive:[ndsp] cluster id:7, pvc ip:101000a\n"
              "nbcp_receive:[ndsp] ipv6:[2001:db8::2a]\n");
}

INSTANTIATE_TEST_SUITE_P(Modes, DynamicAnswer,
                         testing::Values(dynamic_case{0, AP_STATE_ACTIVE},
                                         dynamic_case{1, AP_STATE_ACTIVE},
                                         dynamic_case{2, AP_STATE_WIRELESS_AGEING}));

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

// The 60-byte probe of an AP at 192.168.1.10 with MAC 00:11:22:33:44:55 and no IPv6 address;
// byte 19 is the mode.
const uint8_t EXPECTED_PROBE[60] = {
    0x00, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00, 0x01, 0x00,
    0x00, 0x81, 0x00, 0x01, 0x00, 0x00, 0x82, 0x00, 0x04, 0xC0, 0xA8, 0x01, 0x0A, 0x00, 0x84,
    0x00, 0x10, 0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0,    0,    0,    0x00, 0x83, 0x00, 0x06, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x00, 0x00};

// Each probe caught, as "v4 <destination> m<mode>" or "v6 m<mode>", "bad bytes" when it is not
// the expected probe, joined by ", ", or "none".
std::string caught(probe_capture &capture) {
    std::string seen;
    while (auto got = capture.next(100)) {
        uint8_t expected[60];
        memcpy(expected, EXPECTED_PROBE, sizeof expected);
        expected[19] = got->bytes.size() == 60 ? got->bytes[19] : 0;
        bool same = got->bytes.size() == 60 && memcmp(got->bytes.data(), expected, 60) == 0;
        seen += (seen.empty() ? "" : ", ") + (got->v4 ? "v4 " + got->dest : "v6") + " m" +
                std::to_string(expected[19]) + (same ? "" : " bad bytes");
    }
    return seen.empty() ? "none" : seen;
}

// A node is probed over IPv4 unless it has no IPv4 address or the reserved one; a probe to an
// IPv4 address goes to the subnet's broadcast in mode 0 for a target inside the subnet and in
// mode 1 always.
TEST(Probe, ChoosesFamilyAndDestination) {
    SKIP_UNLESS_ROOT();
    const struct {
        bool by_ip4;     // send_ndrp_by_ip4 to ip rather than send_ndrp to a node
        const char *ip;  // nullptr: no IPv4 address
        const char *ip6;
        int mode;
        const char *seen;
    } probes[] = {
        {false, "127.0.0.5", "::1", 2, "v4 127.0.0.5 m0"},
        {false, "127.0.0.5", nullptr, 3, "v4 127.0.0.5 m3"},
        {false, "192.168.1.254", "::1", 3, "v6 m3"},
        {false, "192.168.1.254", nullptr, 2, "none"},
        {false, nullptr, "::1", 2, "v6 m0"},
        {false, nullptr, nullptr, 2, "none"},
        {true, "127.0.3.4", nullptr, 0, "v4 127.0.255.254 m0"},
        {true, "127.9.3.4", nullptr, 0, "v4 127.9.3.4 m0"},
        {true, "127.9.3.4", nullptr, 1, "v4 127.0.255.254 m0"},
        {true, "127.0.3.4", nullptr, 2, "v4 127.0.3.4 m0"},
    };
    std::string seen = sandbox::run_in_sandbox([&probes] {
        probe_capture capture;
        sock_send_nbcp = open_probe_socket();
        sock6_nbcp = socket(AF_INET6, SOCK_DGRAM, 0);
        {
            std::lock_guard<std::mutex> guard(self_ap_lock);
            self_ap.ip = 0xC0A8010A;
            self_ap.mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
        }
        // This AP is 127.0.0.1/16; its "broadcast" here is an address the receiver can see.
        ap_ip = ipv4("127.0.0.1");
        pvc_mask = ipv4("255.255.0.0");
        pvc_brast = ipv4("127.0.255.254");
        std::string out;
        for (const auto &p : probes) {
            ap_info target{};
            target.ip = p.ip != nullptr ? ipv4(p.ip) : 0;
            target.ip6 = p.ip6 != nullptr ? ipv6(p.ip6) : ip6_addr{};
            if (p.by_ip4) {
                send_ndrp_by_ip4(target.ip, p.mode);
            } else {
                send_ndrp(&target, p.mode);
            }
            std::string got = caught(capture);
            out += got == p.seen
                       ? ""
                       : std::string(p.ip ? p.ip : "-") + " mode " + std::to_string(p.mode) + ": " +
                             got + ", not " + p.seen + "\n";
        }
        return out;
    });
    EXPECT_EQ(seen, "");
}

// Probes are answered through the socket they came in on, at the prober's source address on
// the nbcp port, where a capture listens. A static probe (mode 3) gets a static answer and
// leaves this AP's state alone; any other gets mode 0 and the state of this AP's WLAN, here
// none (2). The answer's bytes and the IPv6 path are seen end to end by the system tests.
TEST(ProbeAnswer, ModeAndStateFollowTheProbe) {
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        std::string out;
        for (uint8_t probe_mode : {2, 3}) {
            {
                std::lock_guard<std::mutex> guard(self_ap_lock);
                self_ap.ip = 0x0A000001;  // 10.0.0.1, host order
                self_ap.info.state = 9;   // shows whether an answer rewrote it
            }
            probe_capture capture;
            udp_pair pair(AF_INET);
            sock_recv_nbcp = pair.rx;
            nbcp_ndrp p;
            memset(&p, 0, sizeof p);
            p.mode = probe_mode;
            p.ip = 0x0A000005;  // plays no part
            p.mac = B;
            bytes probe(NBCP_NDRP_LEN);
            probe.resize(nbcp_build_ndrp(probe.data(), &p));
            pair.deliver(probe);
            std::optional<captured_datagram> got = capture.next(500);
            if (!got) {
                return out + "no answer: " + sandbox::log_text();
            }
            std::unique_ptr<nbcp_msg> msg(new nbcp_msg());
            nbcp_decode(got->bytes.data(), got->bytes.size(), msg.get());
            const nbcp_ndsp &a = msg->m.ndsp;
            out += got->dest + " type " + std::to_string(msg->kind) + " mode " +
                   std::to_string(a.mode) + " ip " + std::to_string(a.ip == 0x0A000001) +
                   " state " + std::to_string(a.info.state) + " self " +
                   std::to_string(self_ap_snapshot().info.state) + "; ";
        }
        return out;
    });
    EXPECT_EQ(seen,
              "127.0.0.1 type 11 mode 0 ip 1 state 2 self 2; "
              "127.0.0.1 type 11 mode 3 ip 1 state 3 self 9; ");
}

}  // namespace
