// The local side of the receive thread: the shared receive buffer, the decode area's pages,
// and the control messages the daemon receives on "/tmp/socket/tarn_socket" with their effects
// and answers.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

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
#include "core/settings.h"
#include "driver_sink.h"
#include "neighbor/neighbor_table.h"
#include "neighbor_test_util.h"
#include "proto/nbcp.h"
#include "sandbox.h"
#include "static/static_store.h"
#include "static_env.h"
#include "util/local_socket.h"
#include "util/paths.h"

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

// A crafted datagram that writes a few bytes into each of hundreds of pages of the decode area
// (255 entry heads of a fixed-layout kind) leaves them resident only until the next decode.
TEST(ReceiveArea, SpreadDecodePagesGoBackToTheKernel) {
    auto area = std::make_unique<nbcp_decode_area>();
    std::vector<uint8_t> spread = {0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 255};
    for (int entry = 0; entry < 255; ++entry) {
        spread.insert(spread.end(), {1, 0, 0});
        spread.resize(spread.size() + 14);
    }
    const uint8_t unknown[12] = {0, 0, 0, 200};

    area->parse(spread.data(), spread.size());
    const size_t after_spread = resident_pages(&area->msg, sizeof area->msg);
    area->parse(unknown, sizeof unknown);
    EXPECT_GT(after_spread, 200u);
    EXPECT_LT(resident_pages(&area->msg, sizeof area->msg), 8u);
}

bytes message(uint16_t op, uint8_t value = 0, size_t len = LOCAL_MSG_HDR_LEN) {
    bytes out(std::max(len, LOCAL_MSG_HDR_LEN), 0);
    out[0] = value;
    memcpy(out.data() + 4, &op, sizeof op);
    out.resize(len);
    return out;
}

bytes probe_request(const char *ip) {
    bytes out = message(TARN_MSG_DUMP_IP, 0, 12);
    uint32_t host = ntohl(inet_addr(ip));
    memcpy(out.data() + 8, &host, sizeof host);
    return out;
}

void fill_table(int n) {
    for (int i = 0; i < n; ++i) {
        ntest::add_entry(ntest::mac(static_cast<uint8_t>(i)), 0);
    }
}

// A datagram waiting at fd, as hex when it is a bare header and as "list of n" when it is a
// neighbor list, else the probe waiting at probes, or "-" when there is none.
std::string answer(int fd, int probes) {
    bytes data(70000);
    ssize_t n = recv(fd, data.data(), data.size(), MSG_DONTWAIT);
    if (n <= 0) {
        n = recv(probes, data.data(), data.size(), MSG_DONTWAIT);
        return n == NBCP_NDRP_LEN ? "probe mode " + std::to_string(data[19]) : "-";
    }
    data.resize(static_cast<size_t>(n));
    std::string out;
    if (n == LOCAL_MSG_HDR_LEN) {
        for (uint8_t b : data) {
            out += "0123456789abcdef"[b >> 4];
            out += "0123456789abcdef"[b & 15];
        }
        return out;
    }
    std::array<ap_info, NGB_HASH_SIZE> entries{};
    size_t count = nbcp_list_read(data.data(), data.size(), entries.data(), entries.size());
    return "op " + std::to_string(data[4]) + " list of " + std::to_string(count);
}

struct control_step {
    bytes msg;
    int fill;          // entries put into the table before the message
    const char *from;  // the sender's bound path, or none
    std::string expected;
};

// One daemon through a sequence of requests: after each, what was answered at the client
// path (or the sender's path) or probed, the table size, and the driver messages ("op:value").
TEST(LocalControl, RequestsEffectsAndAnswers) {
    SKIP_UNLESS_ROOT();
    const control_step steps[] = {
        {message(TARN_MSG_GET_RSSI), 0, nullptr, "0500000005000000 0 | -"},
        {message(TARN_MSG_SET_RSSI, 44), 3, nullptr, "- 0 | 4:44"},
        {message(TARN_MSG_GET_RSSI, 9, 64), 0, nullptr, "2c00000005000000 0 | -"},
        // The op's high byte cut off reads as zero.
        {message(TARN_MSG_GET_RSSI, 0, 5), 0, nullptr, "2c00000005000000 0 | -"},
        {message(TARN_MSG_SET_VERSION, 1), 3, nullptr, "- 3 | -"},  // the running version
        {message(TARN_MSG_SET_VERSION, 3), 0, nullptr, "- 0 | 1:3 4:44"},
        {message(TARN_MSG_SET_NGBR_NUM, 16), 2, nullptr, "- 0 | 5:16"},
        {message(TARN_MSG_SET_NGBR_NUM, 200), 2, nullptr, "- 0 | 5:200"},
        {message(TARN_MSG_SET_NGBR_NUM, 200), 2, nullptr, "- 2 | -"},
        // Accepted and ignored, unknown, or with the op cut off: nothing happens.
        {message(TARN_MSG_ADD_MAC, 0, LOCAL_MSG_HDR_LEN + sizeof(ap_info)), 0, nullptr, "- 2 | -"},
        {message(TARN_MSG_DEL_MAC, 0, LOCAL_MSG_HDR_LEN + sizeof(ap_info)), 0, nullptr, "- 2 | -"},
        {message(TARN_MSG_LIST_REPLY), 0, nullptr, "- 2 | -"},
        {message(13), 0, nullptr, "- 2 | -"},
        {message(TARN_MSG_GET_RSSI, 0, 4), 0, nullptr, "- 2 | -"},
        // The lists: the table and the one static neighbor.
        {message(TARN_MSG_DUMP_NGBR), 0, nullptr, "op 51 list of 3 2 | -"},
        {message(TARN_MSG_DUMP_STATIC), 0, nullptr, "op 51 list of 1 2 | -"},
        {message(TARN_MSG_NGBR_INFO), 0, "/tmp/requester", "op 51 list of 3 2 | 2:0"},
        {message(TARN_MSG_NGBR_INFO), 0, nullptr, "- 2 | 2:0"},
        // A zero or missing address is not probed.
        {probe_request("0.0.0.0"), 0, nullptr, "- 2 | -"},
        {message(TARN_MSG_DUMP_IP), 0, nullptr, "- 2 | -"},
        {probe_request("127.0.0.5"), 0, nullptr, "probe mode 3 2 | -"},
    };
    std::string seen = static_env::run([&steps] {
        DriverSink driver;
        neighbor_table_init();
        if (InitSocket(&sock_recv_local, TARN_SOCKET_PATH) != 1) {
            return std::string("no local socket");
        }
        static_mac_add("00:00:00:00:00:07", "127.0.0.7", nullptr);
        int client = static_env::bind_local(TARN_CLIENT_PATH);
        int probes = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in at{AF_INET, htons(NBCP_PORT), {INADDR_ANY}, {}};
        bind(probes, reinterpret_cast<sockaddr *>(&at), sizeof at);
        std::string out;
        for (const control_step &s : steps) {
            fill_table(s.fill);
            int from =
                s.from != nullptr ? static_env::bind_local(s.from) : socket(AF_UNIX, SOCK_DGRAM, 0);
            sockaddr_un to{AF_UNIX, {}};
            snprintf(to.sun_path, sizeof to.sun_path, "%s", TARN_SOCKET_PATH);
            sendto(from, s.msg.data(), s.msg.size(), 0, reinterpret_cast<sockaddr *>(&to),
                   sizeof to);
            local_receive();
            std::string driver_ops;
            for (const bytes &m : driver.take_all()) {
                driver_ops += (driver_ops.empty() ? "" : " ") + std::to_string(m[16]) + ":" +
                              std::to_string(m[17]);
            }
            out += answer(s.from != nullptr ? from : client, probes) + " " +
                   std::to_string(ntest::table_count()) + " | " +
                   (driver_ops.empty() ? "-" : driver_ops) + "\n";
            close(from);
        }
        return out + static_env::calls("uci");
    });
    std::string expected;
    for (const control_step &s : steps) {
        // Where no netlink user socket can stand in for the driver (qemu-user), only the
        // driver messages go unseen.
        std::string line = s.expected;
        if (!sandbox::netlink_unavailable().empty()) {
            line = line.substr(0, line.find(" | ")) + " | -";
        }
        expected += line + "\n";
    }
    EXPECT_EQ(seen, expected + "set tarn.config.version=3\ncommit tarn\n");
}

}  // namespace
