// The discovery exchange on real sockets: probes (ndrp) leave to the right address with the
// right bytes, answers (ndsp) update the neighbor table or the static list, probes are
// answered at the prober's address on the nbcp port. The answer's bytes are seen end to end by
// the system tests.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/discovery.h"
#include "core/handlers.h"
#include "core/probe.h"
#include "core/recv_area.h"
#include "neighbor_test_util.h"
#include "probe_capture.h"
#include "proto/nbcp.h"
#include "sandbox.h"
#include "static/static_store.h"
#include "sysinfo/self_ap.h"
#include "util/local_socket.h"

namespace {

using namespace ntest;

const mac_addr A = mac(0x0a);
const mac_addr B = mac(0x0b);

// An answer as a peer AP would send it, encoded.
bytes answer_from(const mac_addr &from_mac, uint8_t mode, uint32_t qv_ip) {
    nbcp_ndsp a{};
    a.kind_flag = 1;
    a.mode = mode;
    a.ip = 0x0A00002A;  // host order, as decoded: 10.0.0.42
    a.mac = from_mac;
    a.info.ip = 0x0A00002A;
    a.info.ip6 = ipv6("2001:db8::2a");
    a.info.qv_ip = qv_ip;
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

// A UDP socket pair on the loopback address of a family: `peer` sends, `rx` is the daemon's
// nbcp socket.
struct udp_pair {
    int rx;
    int peer;
    sockaddr_storage rx_addr{};
    socklen_t rx_len = sizeof rx_addr;

    explicit udp_pair(int family = AF_INET)
        : rx(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
          peer(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        rx_addr.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET) {
            reinterpret_cast<sockaddr_in &>(rx_addr).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        } else {
            reinterpret_cast<sockaddr_in6 &>(rx_addr).sin6_addr = in6addr_loopback;
        }
        rx_len = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        bind(rx, reinterpret_cast<sockaddr *>(&rx_addr), rx_len);
        getsockname(rx, reinterpret_cast<sockaddr *>(&rx_addr), &rx_len);
    }
    ~udp_pair() {
        close(rx);
        close(peer);
    }

    // The peer sends `datagram`; the daemon handles it with the decode area a receive thread
    // keeps from one datagram to the next.
    void deliver(const bytes &datagram) {
        static nbcp_decode_area *area = new nbcp_decode_area();
        sendto(peer, datagram.data(), datagram.size(), 0,
               reinterpret_cast<const sockaddr *>(&rx_addr), rx_len);
        nbcp_receive(rx, RECV_ADDR_IPV6, *area);
    }
};

// The static node with this MAC, described, or "none".
std::string static_node(const mac_addr &m) {
    std::lock_guard<std::mutex> guard(stngbr_lock);
    const static_member *node = static_member_find(m);
    return node != nullptr ? described(node->info) : "none";
}

// One answer to an AP that knows A both as a neighbor (from the driver) and as a static node.
// A dynamic answer (mode 0 to 2) updates the entry: transmit powers, the state and the
// description come from the answer, the radios' other facts and the addresses stay as the
// driver reported them. A static answer (mode 3 and up) records its source address in the
// static node, takes the named fields and marks the node active. Neither creates an entry or
// a node, nor touches the other list.
struct answer_case {
    const char *name;
    mac_addr from;
    uint8_t mode;
    uint32_t qv_ip;     // the answer's management address
    const char *entry;  // entry A afterwards, or "unchanged"
    std::string node;   // static node A afterwards, or "unchanged"
    int family = AF_INET;
};

class Answer : public testing::TestWithParam<answer_case> {
  protected:
    // A known neighbor with the facts the driver reported, and a static node of the same AP.
    void SetUp() override {
        TearDown();
        add_entry(A, ipv4("10.0.0.7"));
        edit_entry(A, [](neighbor_ap &e) {
            e.info.ip6 = ipv6("2001:db8::7");
            e.info.radio[0] = radio_info{0, 36, 0, 41, 1};
            e.info.radio[1] = radio_info{1, 149, 0, 52, 2};
            e.age = 104;
            e.state = e.info.state = AP_STATE_OFFLINE;
        });
        static_member *node = static_member_new();
        node->info.mac = A;
        node->info.ip = ipv4("10.0.5.5");
        node->info.ip6 = ipv6("2001:db8::55");
        node->info.qv_ip = 0x01010101;
        std::lock_guard<std::mutex> guard(stngbr_lock);
        static_member_push(node);
    }
    void TearDown() override {
        neighbor_aps_clear();
        std::lock_guard<std::mutex> guard(stngbr_lock);
        static_member_clear();
    }
    static std::string entry(const mac_addr &m) {
        entry_copy e = table_entry(m);
        return e.found ? std::to_string(e.ap.age) + " " + std::to_string(e.ap.state) + " " +
                             described(e.ap.info)
                       : "none";
    }
};

TEST_P(Answer, UpdatesTheEntryOrTheStaticNode) {
    const answer_case c = GetParam();
    udp_pair pair(c.family);
    const std::string known = entry(A);
    const std::string listed = static_node(A);
    pair.deliver(answer_from(c.from, c.mode, c.qv_ip));
    EXPECT_EQ(entry(A) == known ? "unchanged" : entry(A), c.entry) << c.name;
    EXPECT_EQ(static_node(A) == listed ? "unchanged" : static_node(A), c.node) << c.name;
    EXPECT_EQ(entry(B), "none");
    EXPECT_EQ(static_node(B), "none");
}

constexpr uint32_t QV = 0xC0A80064;  // 192.168.0.100
// Entry A after a dynamic answer, and the end of static node A after a static answer.
const char *const UPDATED =
    "100 0 ip 700000a ip6 2001:db8::7 qv 6400a8c0 pvc 101000a/00/55 "
    "cluster 7/1 [tenant-1 5.1 ap-b] state 0 radios 2: 0/36/19/41/1 "
    "1/149/23/52/2";
const std::string ACTIVE =
    " pvc 0/00/00 cluster 7/0 [tenant-1 5.1 ap-b] state 3 radios 0: "
    "0/0/0/0/0 0/0/0/0/0";

INSTANTIATE_TEST_SUITE_P(
    Answers, Answer,
    testing::Values(answer_case{"dynamic over IPv6, mode 0", A, 0, QV, UPDATED, "unchanged",
                                AF_INET6},
                    answer_case{"dynamic, mode 2", A, 2, QV, UPDATED, "unchanged"},
                    answer_case{"static, mode 255", A, 255, QV, "unchanged",
                                "ip 100007f ip6 2001:db8::55 qv 6400a8c0" + ACTIVE},
                    // Over IPv6 the source address goes to ip6 and the IPv4 address stays.
                    answer_case{"static over IPv6", A, 3, QV, "unchanged",
                                "ip 505000a ip6 ::1 qv 6400a8c0" + ACTIVE, AF_INET6},
                    // An answer without a management address keeps the known one.
                    answer_case{"static, no management address", A, 3, 0, "unchanged",
                                "ip 100007f ip6 2001:db8::55 qv 1010101" + ACTIVE},
                    answer_case{"dynamic from an unknown AP", B, 0, QV, "unchanged", "unchanged"},
                    answer_case{"static from an unlisted AP", B, 3, QV, "unchanged", "unchanged"}));

// A probe of this mode from an AP at ip (host order) with this MAC.
bytes probe_of(uint8_t mode, uint32_t ip, const mac_addr &m) {
    nbcp_ndrp p{};
    p.mode = mode;
    p.ip = ip;
    p.mac = m;
    bytes out(NBCP_NDRP_LEN);
    out.resize(nbcp_build_ndrp(out.data(), &p));
    return out;
}

const mac_addr SELF_MAC = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

// Each IPv4 probe caught, as "<destination> m<mode>", "bad bytes" when it is not this AP's
// probe (192.168.1.10, SELF_MAC) of that mode, joined by ", ", or "none".
std::string caught(probe_capture &capture) {
    std::string seen;
    while (auto got = capture.next(100)) {
        uint8_t mode = got->bytes.size() == NBCP_NDRP_LEN ? got->bytes[19] : 0;
        bool same = got->bytes == probe_of(mode, 0xC0A8010A, SELF_MAC);
        seen += (seen.empty() ? "" : ", ") + got->dest + " m" + std::to_string(mode) +
                (same ? "" : " bad bytes");
    }
    return seen.empty() ? "none" : seen;
}

// A node is probed over IPv4 unless it has no IPv4 address or the reserved one (IPv6 probes
// are seen by the system tests); a probe to an IPv4 address goes to the subnet's broadcast in
// mode 0 for a target inside the subnet and in mode 1 always.
TEST(Probe, ChoosesFamilyAndDestination) {
    SKIP_UNLESS_ROOT();
    const struct {
        bool by_ip4;     // send_ndrp_by_ip4 to ip rather than send_ndrp to a node
        const char *ip;  // nullptr: no IPv4 address
        const char *ip6;
        int mode;
        const char *seen;
    } probes[] = {
        {false, "127.0.0.5", "::1", 2, "127.0.0.5 m0"},
        {false, "192.168.1.254", nullptr, 2, "none"},
        {true, "127.0.3.4", nullptr, 0, "127.0.255.254 m0"},
        {true, "127.9.3.4", nullptr, 0, "127.9.3.4 m0"},
        {true, "127.9.3.4", nullptr, 1, "127.0.255.254 m0"},
        {true, "127.0.3.4", nullptr, 2, "127.0.3.4 m0"},
    };
    std::string seen = sandbox::run_in_sandbox([&probes] {
        probe_capture capture;
        sock_send_nbcp = socket(AF_INET, SOCK_DGRAM, 0);
        {
            std::lock_guard<std::mutex> guard(self_ap_lock);
            self_ap.ip = 0xC0A8010A;
            self_ap.mac = SELF_MAC;
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
            out += got == p.seen ? "" : got + " instead of " + p.seen + "\n";
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
            udp_pair pair;
            sock_recv_nbcp = pair.rx;
            pair.deliver(probe_of(probe_mode, 0x0A000005, B));  // the address plays no part
            auto got = capture.next(500);
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
