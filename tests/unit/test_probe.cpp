// Probes leave through the right socket, to the right address, with the right bytes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "core/probe.h"
#include "core/settings.h"
#include "probe_capture.h"
#include "sandbox.h"
#include "sysinfo/self_ap.h"

namespace {

// The 60-byte probe of an AP at 192.168.1.10 with MAC 00:11:22:33:44:55 and no IPv6 address;
// byte 19 is the mode.
const uint8_t EXPECTED_PROBE[60] = {
    0x00, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00, 0x01, 0x00,
    0x00, 0x81, 0x00, 0x01, 0x00, 0x00, 0x82, 0x00, 0x04, 0xC0, 0xA8, 0x01, 0x0A, 0x00, 0x84,
    0x00, 0x10, 0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0,    0,    0,    0x00, 0x83, 0x00, 0x06, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x00, 0x00};

constexpr size_t MODE_BYTE = 19;

uint32_t ipv4(const char *text) {
    return inet_addr(text);
}

ip6_addr ipv6(const char *text) {
    ip6_addr out{};
    inet_pton(AF_INET6, text, out.data());
    return out;
}

// The next probe caught, as "v4 <destination> mode <m> bytes-ok|bytes-differ", "v6 ...", or
// "none".
struct receivers {
    probe_capture capture;

    std::string next() {
        auto got = capture.next(300);
        if (!got) {
            return "none";
        }
        std::string out = got->v4 ? "v4 " + got->dest : "v6 ";
        uint8_t mode = got->bytes.size() > MODE_BYTE ? got->bytes[MODE_BYTE] : 0;
        out += " mode " + std::to_string(mode);
        uint8_t expected[60];
        memcpy(expected, EXPECTED_PROBE, sizeof expected);
        expected[MODE_BYTE] = mode;
        bool same = got->bytes.size() == sizeof expected &&
                    memcmp(got->bytes.data(), expected, sizeof expected) == 0;
        return out + (same ? " bytes-ok" : " bytes-differ");
    }
};

void become_the_probing_ap() {
    sock_send_nbcp = socket(AF_INET, SOCK_DGRAM, 0);
    int on = 1;
    setsockopt(sock_send_nbcp, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    sock6_nbcp = socket(AF_INET6, SOCK_DGRAM, 0);
    std::lock_guard<std::mutex> guard(self_ap_lock);
    self_ap.ip = 0xC0A8010A;
    self_ap.mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    self_ap.info.ip6 = {};
}

struct probe_case {
    const char *name;
    const char *ip;  // nullptr: no IPv4 address
    const char *ip6;
    int mode;
    const char *seen;
};

class Probe : public testing::TestWithParam<probe_case> {};

TEST_P(Probe, ChoosesFamilyAndDestination) {
    SKIP_UNLESS_ROOT();
    const probe_case c = GetParam();
    std::string seen = sandbox::run_in_sandbox([&c] {
        receivers listen;
        become_the_probing_ap();
        ap_info target{};
        target.ip = c.ip != nullptr ? ipv4(c.ip) : 0;
        target.ip6 = c.ip6 != nullptr ? ipv6(c.ip6) : ip6_addr{};
        std::string seen = std::to_string(send_ndrp(&target, c.mode));
        seen += " " + listen.next();
        seen += " / " + listen.next();
        return seen;
    });
    EXPECT_EQ(seen, c.seen) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Targets, Probe,
    testing::Values(
        probe_case{"dynamic", "127.0.0.5", "::1", 2, "0 v4 127.0.0.5 mode 0 bytes-ok / none"},
        probe_case{"static", "127.0.0.5", nullptr, 3, "0 v4 127.0.0.5 mode 3 bytes-ok / none"},
        probe_case{"reserved address goes over IPv6", "192.168.1.254", "::1", 3,
                   "0 v6  mode 3 bytes-ok / none"},
        probe_case{"reserved address without IPv6", "192.168.1.254", nullptr, 2, "0 none / none"},
        probe_case{"IPv6 only", nullptr, "::1", 2, "0 v6  mode 0 bytes-ok / none"},
        probe_case{"no address", nullptr, nullptr, 2, "0 none / none"}));

struct broadcast_case {
    const char *target;
    int mode;
    const char *seen;
};

class ProbeBroadcast : public testing::TestWithParam<broadcast_case> {};

TEST_P(ProbeBroadcast, ModesPickBroadcastOrTarget) {
    SKIP_UNLESS_ROOT();
    const broadcast_case c = GetParam();
    std::string seen = sandbox::run_in_sandbox([&c] {
        receivers listen;
        become_the_probing_ap();
        // This AP is 127.0.0.1/16; its "broadcast" here is an address the receiver can see.
        ap_ip = ipv4("127.0.0.1");
        pvc_mask = ipv4("255.255.0.0");
        pvc_brast = ipv4("127.0.255.254");
        send_ndrp_by_ip4(ipv4(c.target), c.mode);
        return listen.next();
    });
    EXPECT_EQ(seen, c.seen);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, ProbeBroadcast,
    testing::Values(broadcast_case{"127.0.3.4", 0, "v4 127.0.255.254 mode 0 bytes-ok"},
                    broadcast_case{"127.9.3.4", 0, "v4 127.9.3.4 mode 0 bytes-ok"},
                    broadcast_case{"127.9.3.4", 1, "v4 127.0.255.254 mode 0 bytes-ok"},
                    broadcast_case{"127.0.3.4", 2, "v4 127.0.3.4 mode 0 bytes-ok"},
                    broadcast_case{"127.0.3.4", 3, "v4 127.0.3.4 mode 3 bytes-ok"}));

TEST(ProbeLog, FailedSendIsLogged) {
    SKIP_UNLESS_ROOT();
    std::string log = sandbox::run_in_sandbox([] {
        become_the_probing_ap();
        send_ndrp_by_ip4(ipv4("10.1.2.3"), 2);  // no route in an empty namespace
        send_ndrp_by_ip6(ipv6("fd00::9"), 2);
        return sandbox::log_text();
    });
    EXPECT_NE(log.find("send_ndrp_by_ip4: dest ip is 302010a\n"), std::string::npos) << log;
    EXPECT_NE(log.find("send ndrp failed,errno:101\n"), std::string::npos) << log;
    EXPECT_NE(log.find("send ndrp to ip6[fd00::9] failed,errno:101\n"), std::string::npos) << log;
}

}  // namespace
