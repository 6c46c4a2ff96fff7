// Probes leave through the right socket, to the right address, with the right bytes.
#include <gtest/gtest.h>

#include <cstring>
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
        sock_send_nbcp = ntest::open_probe_socket();
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
            out += got == p.seen ? ""
                                 : std::string(p.ip ? p.ip : "-") + " mode " +
                                       std::to_string(p.mode) + ": " + got + "\n";
        }
        return out;
    });
    EXPECT_EQ(seen, "");
}

}  // namespace
