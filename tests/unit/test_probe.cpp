// Probes leave through the right socket, to the right address, with the right bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "core/probe.h"
#include "neighbor_test_util.h"
#include "sandbox.h"
#include "sysinfo/self_ap.h"

namespace {

using ntest::ipv4;
using ntest::ipv6;

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

// Runs send_each in a sandbox as the probing AP; send_each calls its argument after each send.
using sender = std::function<void(const std::function<void()> &)>;
std::string probe_all(const sender &send_each) {
    return sandbox::run_in_sandbox([&send_each] {
        probe_capture capture;
        sock_send_nbcp = socket(AF_INET, SOCK_DGRAM, 0);
        int on = 1;
        setsockopt(sock_send_nbcp, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
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
        std::string seen;
        send_each([&] { seen += caught(capture) + " | "; });
        return seen;
    });
}

TEST(Probe, ChoosesFamilyAndDestinationOfANode) {
    SKIP_UNLESS_ROOT();
    const struct {
        const char *ip;  // nullptr: no IPv4 address
        const char *ip6;
        int mode;
    } targets[] = {
        {"127.0.0.5", "::1", 2},       {"127.0.0.5", nullptr, 3},
        {"192.168.1.254", "::1", 3},  // the reserved address goes over IPv6
        {"192.168.1.254", nullptr, 2}, {nullptr, "::1", 2},
        {nullptr, nullptr, 2},
    };
    std::string seen = probe_all([&](const std::function<void()> &after_each) {
        for (const auto &t : targets) {
            ap_info target{};
            target.ip = t.ip != nullptr ? ipv4(t.ip) : 0;
            target.ip6 = t.ip6 != nullptr ? ipv6(t.ip6) : ip6_addr{};
            send_ndrp(&target, t.mode);
            after_each();
        }
    });
    EXPECT_EQ(seen, "v4 127.0.0.5 m0 | v4 127.0.0.5 m3 | v6 m3 | none | v6 m0 | none | ");
}

TEST(Probe, ModesPickTheBroadcastOrTheTarget) {
    SKIP_UNLESS_ROOT();
    const struct {
        const char *target;
        int mode;
    } probes[] = {{"127.0.3.4", 0}, {"127.9.3.4", 0}, {"127.9.3.4", 1}, {"127.0.3.4", 2}};
    std::string seen = probe_all([&](const std::function<void()> &after_each) {
        for (const auto &p : probes) {
            send_ndrp_by_ip4(ipv4(p.target), p.mode);
            after_each();
        }
    });
    EXPECT_EQ(seen,
              "v4 127.0.255.254 m0 | v4 127.9.3.4 m0 | v4 127.0.255.254 m0 | "
              "v4 127.0.3.4 m0 | ");
}

}  // namespace
