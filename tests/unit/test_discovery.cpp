// The discovery exchange on real sockets: answers (ndsp) update the neighbor table or the
// static list, probes (ndrp) are answered at the prober's address on the nbcp port.
#include <gtest/gtest.h>
#include <sys/un.h>

#include <atomic>
#include <memory>
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

bytes encoded_probe(uint8_t mode, uint32_t ip_host) {
    nbcp_ndrp p;
    memset(&p, 0, sizeof p);
    p.mode = mode;
    p.ip = ip_host;
    p.mac = B;
    bytes out(NBCP_NDRP_LEN);
    out.resize(nbcp_build_ndrp(out.data(), &p));
    return out;
}

// A UDP socket pair on one loopback address: `peer` sends, `rx` is the daemon's nbcp socket.
struct udp_pair {
    int rx = -1;
    int peer = -1;
    sockaddr_storage rx_addr{};
    socklen_t rx_len = 0;

    explicit udp_pair(int family) {
        rx = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        peer = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (family == AF_INET) {
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            bind(rx, reinterpret_cast<sockaddr *>(&a), sizeof a);
        } else {
            sockaddr_in6 a{};
            a.sin6_family = AF_INET6;
            a.sin6_addr = in6addr_loopback;
            bind(rx, reinterpret_cast<sockaddr *>(&a), sizeof a);
        }
        rx_len = sizeof rx_addr;
        getsockname(rx, reinterpret_cast<sockaddr *>(&rx_addr), &rx_len);
    }
    ~udp_pair() {
        close(rx);
        close(peer);
    }
    udp_pair(const udp_pair &) = delete;
    udp_pair &operator=(const udp_pair &) = delete;

    bool ready() const { return rx >= 0 && peer >= 0 && rx_len > 0; }

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

struct static_copy {
    bool found = false;
    ap_info info{};
};

static_copy static_entry(const mac_addr &m) {
    std::lock_guard<std::mutex> guard(stngbr_lock);
    static_copy copy;
    if (const static_member *node = static_member_find(m)) {
        copy.found = true;
        copy.info = node->info;
    }
    return copy;
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
            e.timestamp = 9;
        });
    }
};

class DynamicAnswer : public Answers, public testing::WithParamInterface<uint8_t> {};

TEST_P(DynamicAnswer, KnownNeighborTakesWhatItSaysAboutItself) {
    udp_pair pair(AF_INET);
    ASSERT_TRUE(pair.ready());
    add_known(A);
    std::string log = pair.deliver(encoded(answer_from(A, GetParam())));

    entry_copy e = table_entry(A);
    ASSERT_TRUE(e.found);
    EXPECT_EQ(e.ap.age, 100u);
    EXPECT_EQ(e.ap.state, AP_STATE_ACTIVE);
    EXPECT_EQ(e.ap.info.state, AP_STATE_ACTIVE);
    EXPECT_STREQ(e.ap.info.tenantId, "tenant-1");
    EXPECT_STREQ(e.ap.info.version, "5.1");
    EXPECT_STREQ(e.ap.info.name, "ap-b");
    EXPECT_EQ(e.ap.info.radiocnt, 2);
    EXPECT_EQ(e.ap.info.qv_ip, ipv4("192.168.0.100"));
    EXPECT_EQ(e.ap.info.pvc_ip, ipv4("10.0.1.1"));
    EXPECT_EQ(e.ap.info.cluster_id, 7u);
    EXPECT_EQ(e.ap.info.pvc_mac, (mac_addr{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}));
    EXPECT_EQ(e.ap.info.cluster_flag, 1);
    // Transmit powers come from the answer; everything else about the radios and the
    // addresses stays as the driver reported it.
    EXPECT_EQ(e.ap.info.radio[0].txpower, 19);
    EXPECT_EQ(e.ap.info.radio[1].txpower, 23);
    EXPECT_EQ(e.ap.info.radio[0].channel, 36);
    EXPECT_EQ(e.ap.info.radio[0].rssi, 41);
    EXPECT_EQ(e.ap.info.radio[0].bandwidth, 1);
    EXPECT_EQ(e.ap.info.radio[1].radioid, 1);
    EXPECT_EQ(e.ap.info.radio[1].channel, 149);
    EXPECT_EQ(e.ap.info.radio[1].rssi, 52);
    EXPECT_EQ(e.ap.info.radio[1].bandwidth, 2);
    EXPECT_EQ(e.ap.ip, ipv4("10.0.0.7"));
    EXPECT_EQ(e.ap.info.ip, ipv4("10.0.0.7"));
    EXPECT_EQ(e.ap.info.ip6, ipv6("2001:db8::7"));
    EXPECT_EQ(e.ap.info.mac, A);
    EXPECT_EQ(e.ap.timestamp, 9u);

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

TEST_F(Answers, UnknownNeighborAnswerChangesNothing) {
    udp_pair pair(AF_INET);
    add_known(A);
    add_static(B, ipv4("10.0.5.5"), {});
    const entry_copy before = table_entry(A);
    const static_copy static_before = static_entry(B);
    std::string log = pair.deliver(encoded(answer_from(B, 2)));
    const entry_copy after = table_entry(A);
    EXPECT_EQ(memcmp(&before.ap, &after.ap, sizeof before.ap), 0);
    EXPECT_EQ(table_count(), 1u);
    EXPECT_FALSE(table_entry(B).found) << "an answer never creates an entry";
    const static_copy static_after = static_entry(B);
    EXPECT_EQ(memcmp(&static_before.info, &static_after.info, sizeof(ap_info)), 0)
        << "a dynamic answer does not touch the static list";
    EXPECT_EQ(log, "recv nbcp packet type:11\n");
}

struct static_case {
    const char *name;
    int family;
    uint8_t mode;
};

void PrintTo(const static_case &c, std::ostream *os) {
    *os << c.name;
}

class StaticAnswer : public Answers, public testing::WithParamInterface<static_case> {};

TEST_P(StaticAnswer, RecordsTheSourceAddressAndMarksActive) {
    const static_case c = GetParam();
    udp_pair pair(c.family);
    ASSERT_TRUE(pair.ready());
    add_static(A, ipv4("10.0.5.5"), ipv6("2001:db8::55"));
    add_known(A);  // the same MAC in the table is not touched by a static answer
    const entry_copy table_before = table_entry(A);

    std::string log = pair.deliver(encoded(answer_from(A, c.mode)));

    static_copy s = static_entry(A);
    ASSERT_TRUE(s.found);
    if (c.family == AF_INET6) {
        EXPECT_EQ(s.info.ip6, ipv6("::1"));
        EXPECT_EQ(s.info.ip, ipv4("10.0.5.5"));
    } else {
        EXPECT_EQ(s.info.ip, ipv4("127.0.0.1"));
        EXPECT_EQ(s.info.ip6, ipv6("2001:db8::55"));
    }
    EXPECT_EQ(s.info.state, AP_STATE_STATIC_ACTIVE);
    EXPECT_EQ(s.info.qv_ip, ipv4("192.168.0.100"));
    EXPECT_EQ(s.info.cluster_id, 7u);
    EXPECT_STREQ(s.info.tenantId, "tenant-1");
    EXPECT_STREQ(s.info.version, "5.1");
    EXPECT_STREQ(s.info.name, "ap-b");
    EXPECT_EQ(s.info.radiocnt, 0) << "only the named fields are taken";
    EXPECT_EQ(s.info.pvc_ip, 0u);

    const entry_copy table_after = table_entry(A);
    EXPECT_EQ(memcmp(&table_before.ap, &table_after.ap, sizeof table_before.ap), 0);

    // The list's own lookup may add lines of its own after these.
    const std::string expected =
        "recv nbcp packet type:11\n"
        "nbcp_receive:[ndsp] mac:2:11:22:33:44:a, ip is a00002a\n"
        "nbcp_receive:[ndsp] type:11,mode:" +
        std::to_string(c.mode) +
        ",clusterID:7\n"
        "nbcp_receive:[ndsp] ip6:[2001:db8::2a]\n";
    EXPECT_EQ(log.substr(0, expected.size()), expected) << log;
}

INSTANTIATE_TEST_SUITE_P(Sources, StaticAnswer,
                         testing::Values(static_case{"IPv6 mode 3", AF_INET6, 3},
                                         static_case{"IPv4 mode 3", AF_INET, 3},
                                         static_case{"IPv4 mode 200", AF_INET, 200}));

TEST_F(Answers, StaticAnswerWithoutManagementAddressKeepsTheKnownOne) {
    udp_pair pair(AF_INET);
    add_static(A, 0, {});
    nbcp_ndsp a = answer_from(A, 3);
    a.info.qv_ip = 0;
    pair.deliver(encoded(a));
    EXPECT_EQ(static_entry(A).info.qv_ip, 0x01010101u);
    EXPECT_EQ(static_entry(A).info.state, AP_STATE_STATIC_ACTIVE);
}

TEST_F(Answers, StaticAnswerFromUnlistedApChangesNothing) {
    udp_pair pair(AF_INET);
    add_static(B, ipv4("10.0.5.5"), {});
    add_known(A);
    const entry_copy before = table_entry(A);
    pair.deliver(encoded(answer_from(A, 3)));
    EXPECT_EQ(static_entry(B).info.state, AP_STATE_STATIC_OFFLINE);
    EXPECT_EQ(static_entry(B).info.ip, ipv4("10.0.5.5"));
    EXPECT_FALSE(static_entry(A).found);
    const entry_copy after = table_entry(A);
    EXPECT_EQ(memcmp(&before.ap, &after.ap, sizeof before.ap), 0);
}

struct other_case {
    const char *name;
    bytes datagram;
    std::string log;
};

void PrintTo(const other_case &c, std::ostream *os) {
    *os << c.name;
}

class OtherDatagrams : public Answers, public testing::WithParamInterface<other_case> {};

TEST_P(OtherDatagrams, AreLoggedAndDropped) {
    const other_case c = GetParam();
    udp_pair pair(AF_INET);
    add_known(A);
    const entry_copy before = table_entry(A);
    EXPECT_EQ(pair.deliver(c.datagram), c.log);
    const entry_copy after = table_entry(A);
    EXPECT_EQ(memcmp(&before.ap, &after.ap, sizeof before.ap), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, OtherDatagrams,
    testing::Values(
        other_case{"empty", {}, ""},
        other_case{"kind 2 in TLV form",
                   {0, 0, 0, 22, 0, 0, 0, 0, 0, 0, 0, 0},
                   "recv nbcp packet type:2\n"},
        other_case{"unknown type", {0, 0, 0, 12, 0, 0, 0, 0, 0, 0}, "recv nbcp packet type:12\n"},
        other_case{"one byte", {11}, "recv nbcp packet type:0\n"},
        other_case{"answer header only", {0, 0, 0, 11}, "recv nbcp packet type:11\n"}));

// The decode area lives in the receive thread's frame: the largest kind must fit the thread's
// stack, with room for what the handler calls.
TEST(ReceiveThreadStack, HoldsTheDecodeAreaOfTheLargestKind) {
    static udp_pair *pair;
    static std::atomic<bool> done;
    udp_pair local(AF_INET);
    ASSERT_TRUE(local.ready());
    pair = &local;
    done = false;
    bytes largest{0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff};
    sendto(local.peer, largest.data(), largest.size(), 0,
           reinterpret_cast<const sockaddr *>(&local.rx_addr), local.rx_len);
    pthread_t thread;
    ASSERT_EQ(create_thread(
                  &thread,
                  [](void *) -> void * {
                      nbcp_decode_area area;  // as in recv_thread's frame
                      nbcp_receive(pair->rx, RECV_ADDR_IPV6, area);
                      done = true;
                      return nullptr;
                  },
                  nullptr),
              1);
    for (int i = 0; i < 500 && !done; ++i) {
        usleep(10000);
    }
    EXPECT_TRUE(done);
}

TEST(SendNdsp, RefusesWhatIsNotAnInternetAddress) {
    EXPECT_EQ(send_ndsp(-1, nullptr, 0), -1);
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    EXPECT_EQ(send_ndsp(-1, reinterpret_cast<sockaddr *>(&local), 0), -1);
}

TEST(SendNdsp, FailedSendIsLoggedWithTheStateSent) {
    sockaddr_in dest{};
    dest.sin_family = AF_INET;
    dest.sin_port = htons(40000);
    dest.sin_addr.s_addr = ipv4("10.0.0.5");
    ssize_t result = 0;
    std::string log =
        logged([&] { result = send_ndsp(-1, reinterpret_cast<sockaddr *>(&dest), 3); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(ntohs(dest.sin_port), NBCP_PORT) << "the port is rewritten in place";
    EXPECT_EQ(log, "send ndsp to ip: 500000a\nsend ndsp:-1 ,errno:9,mode:3\n");
}

// Probes are answered at the prober's address on the nbcp port. These run in a network
// namespace of their own: the daemon's socket and the prober's answer socket both sit on port
// 32766, each on an address of its own added to the loopback interface.
struct probe_case {
    const char *name;
    int family;
    uint8_t probe_mode;
    bool have_vap;
    const char *seen;
};

void PrintTo(const probe_case &c, std::ostream *os) {
    *os << c.name;
}

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

// An IPv6 address takes its local route a moment after it is added; packets to it are lost
// until then.
bool local_routes_ready(const std::vector<std::string> &addresses) {
    for (int attempt = 0; attempt < 200; ++attempt) {
        bool all = true;
        for (const std::string &a : addresses) {
            all = all && sandbox::sh("ip -6 route show table local | grep -q '^local " + a + " '");
        }
        if (all) {
            return true;
        }
        usleep(10000);
    }
    return false;
}

int bound_udp(int family, const char *addr, uint16_t port) {
    int fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (family == AF_INET) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = ipv4(addr);
        return bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 ? fd : -1;
    }
    int on = 1;
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(port);
    ip6_addr bytes6 = ipv6(addr);
    memcpy(&a.sin6_addr, bytes6.data(), 16);
    return bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 ? fd : -1;
}

std::string text_of(const sockaddr_storage &a) {
    char text[INET6_ADDRSTRLEN] = "";
    uint16_t port = 0;
    if (a.ss_family == AF_INET) {
        const auto *v4 = reinterpret_cast<const sockaddr_in *>(&a);
        inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
        port = ntohs(v4->sin_port);
    } else {
        const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(&a);
        inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
        port = ntohs(v6->sin6_port);
    }
    return std::string(text) + " port " + std::to_string(port);
}

TEST_P(ProbeAnswer, GoesToTheProberOnTheNbcpPort) {
    SKIP_UNLESS_ROOT();
    const probe_case c = GetParam();
    std::string seen = sandbox::run_in_sandbox([&c] {
        const bool v4 = c.family == AF_INET;
        if (!sandbox::sh("ip addr add 10.0.0.1/32 dev lo") ||
            !sandbox::sh("ip addr add 10.0.0.5/32 dev lo") ||
            !sandbox::sh("ip -6 addr add fd00::1/128 dev lo nodad") ||
            !sandbox::sh("ip -6 addr add fd00::5/128 dev lo nodad") ||
            !local_routes_ready({"fd00::1", "fd00::5"})) {
            return std::string("sandbox failure: addresses");
        }
        if (c.have_vap && !sandbox::sh("ip link add ath00 type veth peer name vap-peer")) {
            return std::string("sandbox failure: vap");
        }
        become_answering_ap();
        // The daemon's receiving socket, the prober's sending socket (port 40000) and the
        // prober's own nbcp socket, where the answer must arrive.
        int daemon = bound_udp(c.family, v4 ? "10.0.0.1" : "fd00::1", NBCP_PORT);
        int prober = bound_udp(c.family, v4 ? "10.0.0.5" : "fd00::5", 40000);
        int prober_nbcp = bound_udp(c.family, v4 ? "10.0.0.5" : "fd00::5", NBCP_PORT);
        if (daemon < 0 || prober < 0 || prober_nbcp < 0) {
            return std::string("sandbox failure: sockets");
        }
        sock_recv_nbcp = daemon;
        sockaddr_storage to{};
        socklen_t to_len = 0;
        if (v4) {
            auto *a = reinterpret_cast<sockaddr_in *>(&to);
            a->sin_family = AF_INET;
            a->sin_port = htons(NBCP_PORT);
            a->sin_addr.s_addr = ipv4("10.0.0.1");
            to_len = sizeof(sockaddr_in);
        } else {
            auto *a = reinterpret_cast<sockaddr_in6 *>(&to);
            a->sin6_family = AF_INET6;
            a->sin6_port = htons(NBCP_PORT);
            ip6_addr d = ipv6("fd00::1");
            memcpy(&a->sin6_addr, d.data(), 16);
            to_len = sizeof(sockaddr_in6);
        }
        bytes probe = encoded_probe(c.probe_mode, 0x0A000005);
        ssize_t sent = sendto(prober, probe.data(), probe.size(), 0,
                              reinterpret_cast<sockaddr *>(&to), to_len);
        int send_errno = errno;
        nbcp_receive(daemon, RECV_ADDR_IPV6, decode_area());

        pollfd p{prober_nbcp, POLLIN, 0};
        if (poll(&p, 1, 500) <= 0) {
            return "no answer (probe sent " + std::to_string(sent) + " errno " +
                   std::to_string(send_errno) + ") " + sandbox::log_text();
        }
        uint8_t data[NBCP_NDSP_MAX + 16] = {};
        sockaddr_storage from{};
        socklen_t from_len = sizeof from;
        ssize_t n = recvfrom(prober_nbcp, data, sizeof data, 0, reinterpret_cast<sockaddr *>(&from),
                             &from_len);
        std::unique_ptr<nbcp_msg> msg(new nbcp_msg());
        nbcp_decode(data, static_cast<size_t>(n), msg.get());
        const nbcp_ndsp &a = msg->m.ndsp;
        const neighbor_ap self = self_ap_snapshot();
        bool fields_ok =
            a.kind_flag == 1 && a.ip == 0x0A000001 && a.mac == self.mac &&
            a.info.ip == 0x0A000001 && a.info.ip6 == ipv6("fd00::1") &&
            a.info.qv_ip == 0xC0A80064 && a.info.mac == mac_addr{} &&
            std::string(a.info.tenantId) == "t-1" && std::string(a.info.version) == "6.0.2" &&
            std::string(a.info.name) == "ap-one" && a.info.radiocnt == 2 &&
            a.info.radio[0].txpower == 17 && a.info.radio[1].txpower == 21 &&
            a.info.radio[1].radioid == 1 && a.pvc_ip == 0x0A000101 && a.cluster_id == 7 &&
            a.pvc_mac == self.info.pvc_mac && a.cluster_flag == 1 && a.info.pvc_ip == 0 &&
            a.info.cluster_id == 0 && a.info.cluster_flag == 0;
        std::string log = sandbox::log_text();
        bool logged_dest = log.find(v4 ? "send ndsp to ip: 500000a\n" : "send ndsp to ip6: fd\n") !=
                           std::string::npos;
        bool logged_probe =
            log.find(v4 ? "nbcp_receive:[ndrp] type:10, mode:" + std::to_string(c.probe_mode) +
                              ", ip:a000005\n"
                        : "nbcp_receive:[ndrp] type:10, mode:" + std::to_string(c.probe_mode) +
                              ", ip6:fd\n") != std::string::npos;
        return "from " + text_of(from) + " type " + std::to_string(msg->kind) + " mode " +
               std::to_string(a.mode) + " state " + std::to_string(a.info.state) + " self state " +
               std::to_string(self.info.state) + (fields_ok ? " fields-ok" : " fields-differ") +
               (logged_dest && logged_probe ? " logs-ok" : " logs-differ: " + log);
    });
    EXPECT_EQ(seen, c.seen) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Probes, ProbeAnswer,
    testing::Values(
        probe_case{"IPv4, no VAP", AF_INET, 0, false,
                   "from 10.0.0.1 port 32766 type 11 mode 0 state 2 self state 2 fields-ok "
                   "logs-ok"},
        probe_case{"IPv4 with a VAP", AF_INET, 0, true,
                   "from 10.0.0.1 port 32766 type 11 mode 0 state 0 self state 0 fields-ok "
                   "logs-ok"},
        probe_case{"IPv4 mode 2 answered as 0", AF_INET, 2, true,
                   "from 10.0.0.1 port 32766 type 11 mode 0 state 0 self state 0 fields-ok "
                   "logs-ok"},
        probe_case{"IPv4 static probe", AF_INET, 3, true,
                   "from 10.0.0.1 port 32766 type 11 mode 3 state 3 self state 9 fields-ok "
                   "logs-ok"},
        probe_case{"IPv6, no VAP", AF_INET6, 0, false,
                   "from fd00::1 port 32766 type 11 mode 0 state 2 self state 2 fields-ok "
                   "logs-ok"},
        probe_case{"IPv6 static probe", AF_INET6, 3, false,
                   "from fd00::1 port 32766 type 11 mode 3 state 3 self state 9 fields-ok "
                   "logs-ok"}));

// The daemon's own IPv4 socket, bound to every address as at start-up, answers a probe from
// 10.0.0.5 port 40000 at 10.0.0.5 port 32766.
TEST(ProbeAnswerThroughDaemonSocket, AnsweredAtTheSourceAddressPort32766) {
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        if (!sandbox::sh("ip addr add 10.0.0.1/32 dev lo") ||
            !sandbox::sh("ip addr add 10.0.0.5/32 dev lo")) {
            return std::string("sandbox failure: addresses");
        }
        become_answering_ap();
        sock_recv_nbcp = bound_udp(AF_INET, "0.0.0.0", NBCP_PORT);
        int prober = bound_udp(AF_INET, "10.0.0.5", 40000);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(NBCP_PORT);
        to.sin_addr.s_addr = ipv4("10.0.0.1");
        bytes probe = encoded_probe(0, 0x0A000005);
        sendto(prober, probe.data(), probe.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        // The answer to 10.0.0.5:32766 comes back to the same wildcard socket; the packet
        // information tells where it was addressed.
        int on = 1;
        setsockopt(sock_recv_nbcp, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
        nbcp_receive(sock_recv_nbcp, RECV_ADDR_IPV6, decode_area());
        pollfd p{sock_recv_nbcp, POLLIN, 0};
        if (poll(&p, 1, 500) <= 0) {
            return std::string("no answer");
        }
        uint8_t data[NBCP_NDSP_MAX] = {};
        char control[128];
        sockaddr_in from{};
        iovec iov{data, sizeof data};
        msghdr msg{};
        msg.msg_name = &from;
        msg.msg_namelen = sizeof from;
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        recvmsg(sock_recv_nbcp, &msg, 0);
        std::string dest = "?";
        for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
                in_pktinfo info;
                memcpy(&info, CMSG_DATA(c), sizeof info);
                dest = inet_ntoa(info.ipi_addr);
            }
        }
        return "type " + std::to_string(data[3]) + " to " + dest + " from port " +
               std::to_string(ntohs(from.sin_port));
    });
    EXPECT_EQ(seen, "type 11 to 10.0.0.5 from port 32766");
}

}  // namespace
