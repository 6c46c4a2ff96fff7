// The local side of the receive thread: the shared receive buffer, the decode area's pages, and
// the control messages on "/tmp/socket/tarn_socket" with their effects and answers.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/handlers.h"
#include "core/local_msg.h"
#include "core/recv_area.h"
#include "driver_sink.h"
#include "neighbor/neighbor_table.h"
#include "neighbor_test_util.h"
#include "proto/nbcp.h"
#include "static_env.h"  // the sandbox, the static store, sockets and the daemon's paths
#include "util/local_socket.h"

namespace {

using bytes = std::vector<uint8_t>;

// The shared receive buffer is cleared over the bytes each datagram brought, not over all of
// it: across random datagram sizes, longer ones cut at RECV_MAX, it must read exactly as a
// full clear leaves it.
TEST(LocalSocket, ReceivedDatagramLeavesTheBufferAsAFullClear) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    int size = 1 << 20;
    setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    setsockopt(pair[1], SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    std::mt19937 gen(77);
    bytes expected(RECV_BUFFER_SIZE);
    for (int i = 0; i < 3000; ++i) {
        bytes dg(gen() % 10 == 0 ? gen() % (RECV_MAX + 100) : gen() % 600);
        std::generate(dg.begin(), dg.end(), [&gen] { return uint8_t(gen() | 1); });  // never 0
        ASSERT_EQ(send(pair[0], dg.data(), dg.size(), 0), static_cast<ssize_t>(dg.size()));
        sockaddr_un from;
        socklen_t from_len = sizeof from;
        received_datagram got(pair[1], &from, &from_len, RECV_ADDR_LOCAL);
        ASSERT_EQ(got.size(), std::min(dg.size(), RECV_MAX));
        std::fill(std::copy_n(dg.begin(), got.size(), expected.begin()), expected.end(), 0);
        ASSERT_EQ(memcmp(buffer, expected.data(), expected.size()), 0) << i;
    }
    close(pair[0]);
    close(pair[1]);
}

// How many pages of [p, p + n) are in memory.
size_t resident_pages(const void *p, size_t n) {
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = reinterpret_cast<uintptr_t>(p) / page * page;
    const size_t pages = (reinterpret_cast<uintptr_t>(p) + n - begin + page - 1) / page;
    std::vector<unsigned char> in_core(pages);
    EXPECT_EQ(mincore(reinterpret_cast<void *>(begin), pages * page, in_core.data()), 0);
    return static_cast<size_t>(
        std::count_if(in_core.begin(), in_core.end(), [](auto v) { return v & 1; }));
}

bool all_zero(const nbcp_msg &msg) {
    const auto *p = reinterpret_cast<const uint8_t *>(&msg);
    return std::all_of(p, p + sizeof msg, [](uint8_t b) { return b == 0; });
}

// Making the decode area makes none of its pages resident. A crafted datagram that writes a few
// bytes into each of hundreds of pages (255 entry heads of a fixed-layout kind) keeps them
// resident only while it is handled: once done, they are gone and the area reads as zero.
TEST(ReceiveArea, PagesAreResidentOnlyWhileASpreadDatagramIsHandled) {
    auto area = std::make_unique<nbcp_decode_area>();
    EXPECT_LT(resident_pages(&area->msg, sizeof area->msg), 8u);
    std::vector<uint8_t> spread = {0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 255};
    for (int entry = 0; entry < 255; ++entry) {
        spread.insert(spread.end(), {1, 0, 0});
        spread.resize(spread.size() + 14);
    }
    for (int round = 0; round < 2; ++round) {
        size_t while_handled = 0;
        {
            decoded_datagram decoded(*area);
            area->parse(spread.data(), spread.size());
            while_handled = resident_pages(&area->msg, sizeof area->msg);
        }
        EXPECT_GT(while_handled, 200u) << round;
        EXPECT_LT(resident_pages(&area->msg, sizeof area->msg), 8u) << round;
        EXPECT_TRUE(all_zero(area->msg)) << round;
    }
}

bytes message(uint16_t op, uint8_t value = 0) {
    bytes out(LOCAL_MSG_HDR_LEN, 0);
    out[0] = value;
    memcpy(out.data() + 4, &op, sizeof op);
    return out;
}

bytes probe_request(uint32_t host_order_ip) {
    bytes out = message(TARN_MSG_DUMP_IP);
    out.resize(LOCAL_MSG_HDR_LEN + sizeof host_order_ip);
    memcpy(out.data() + LOCAL_MSG_HDR_LEN, &host_order_ip, sizeof host_order_ip);
    return out;
}

// The rssi or the neighbor list waiting at fd, else the probe waiting at probes, or "-" when
// there is none.
std::string answer(int fd, int probes) {
    bytes data(70000);
    ssize_t n = recv(fd, data.data(), data.size(), MSG_DONTWAIT);
    if (n <= 0) {
        n = recv(probes, data.data(), data.size(), MSG_DONTWAIT);
        return n == NBCP_NDRP_LEN ? "probe mode " + std::to_string(data[19]) : "-";
    }
    if (data[4] == TARN_MSG_GET_RSSI) {
        return "rssi " + std::to_string(data[0]);
    }
    std::array<ap_info, NGB_HASH_SIZE> entries{};
    size_t count = nbcp_list_read(data.data(), size_t(n), entries.data(), entries.size());
    return "op " + std::to_string(data[4]) + " list of " + std::to_string(count);
}

// One daemon through a sequence of requests: after each, what was answered at the client
// path or probed, the table size, and the driver messages ("op:value").
TEST(LocalControl, RequestsEffectsAndAnswers) {
    SKIP_UNLESS_ROOT();
    const struct {
        bytes msg;
        int fill;  // entries put into the table before the message
        std::string expected;
    } steps[] = {
        {message(TARN_MSG_SET_RSSI, 44), 3, "- 0 | 4:44"},
        {message(TARN_MSG_GET_RSSI), 0, "rssi 44 0 | -"},
        {message(TARN_MSG_SET_VERSION, 3), 3, "- 0 | 1:3 4:44"},
        {message(TARN_MSG_SET_NGBR_NUM, 200), 2, "- 0 | 5:200"},
        {message(TARN_MSG_SET_NGBR_NUM, 200), 2, "- 2 | -"},  // unchanged: no effect
        {message(13), 0, "- 2 | -"},                          // unknown: nothing happens
        // The static list; the neighbor list, after the driver is asked for its cache.
        {message(TARN_MSG_DUMP_STATIC), 0, "op 51 list of 1 2 | -"},
        {message(TARN_MSG_NGBR_INFO), 0, "- 2 | 2:0"},  // answered at the sender's own path
        {probe_request(0x7f000005), 0, "probe mode 3 2 | -"},
        // The settings are taken as sent: the range checks are the client's.
        {message(TARN_MSG_SET_RSSI, 0), 1, "- 0 | 4:0"},
        {message(TARN_MSG_SET_RSSI, 201), 1, "- 0 | 4:201"},
        {message(TARN_MSG_SET_VERSION, 0), 1, "- 0 | 1:0 4:201"},
        {message(TARN_MSG_SET_NGBR_NUM, 15), 1, "- 0 | 5:15"},
    };
    std::string seen = static_env::run([&steps] {
        DriverSink driver;
        neighbor_table_init();
        InitSocket(&sock_recv_local, TARN_SOCKET_PATH);
        static_mac_add("00:00:00:00:00:07", "127.0.0.7", nullptr);
        int client = static_env::bind_local(TARN_CLIENT_PATH);
        int probes = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in at{AF_INET, htons(NBCP_PORT), {INADDR_ANY}, {}};
        bind(probes, reinterpret_cast<sockaddr *>(&at), sizeof at);
        int sender = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un to{AF_UNIX, {}};
        snprintf(to.sun_path, sizeof to.sun_path, "%s", TARN_SOCKET_PATH);
        std::string out;
        for (const auto &s : steps) {
            for (int i = 0; i < s.fill; ++i) {
                ntest::add_entry(ntest::mac(static_cast<uint8_t>(i)), 0);
            }
            sendto(sender, s.msg.data(), s.msg.size(), 0, reinterpret_cast<sockaddr *>(&to),
                   sizeof to);
            local_receive();
            std::string driver_ops;
            for (const bytes &m : driver.take_all()) {
                driver_ops += " " + std::to_string(m[16]) + ":" + std::to_string(m[17]);
            }
            out += answer(client, probes) + " " + std::to_string(ntest::table_count()) + " |" +
                   (driver_ops.empty() ? " -" : driver_ops) + "\n";
        }
        return out + static_env::calls("uci");
    });
    // Where no netlink user socket can stand in for the driver (qemu-user), only the driver
    // messages go unseen.
    const bool no_driver = !sandbox::netlink_unavailable().empty();
    std::string expected;
    for (const auto &s : steps) {
        expected +=
            (no_driver ? s.expected.substr(0, s.expected.find(" | ")) + " | -" : s.expected) + "\n";
    }
    EXPECT_EQ(seen, expected +
                        "set tarn.config.version=3\ncommit tarn\n"
                        "set tarn.config.version=0\ncommit tarn\n");
}

}  // namespace
