// The shared receive buffer is cleared over the bytes each datagram brought, not over all of
// it: across random sequences of datagram sizes it must read exactly as a full clear leaves it.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <vector>

#include "core/recv_area.h"
#include "core/settings.h"
#include "util/local_socket.h"

namespace {

TEST(ReceivedDatagram, BufferReadsAsAFullClearLeavesIt) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    int size = 1 << 20;
    setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    setsockopt(pair[1], SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    std::mt19937 gen(77);
    std::vector<uint8_t> expected(RECV_BUFFER_SIZE);
    for (int i = 0; i < 3000; ++i) {
        std::vector<uint8_t> dg(gen() % 10 == 0 ? gen() % (RECV_MAX + 1) : gen() % 600);
        for (auto &b : dg) {
            b = static_cast<uint8_t>(gen() | 1);  // never zero, so leftovers show
        }
        ASSERT_EQ(send(pair[0], dg.data(), dg.size(), 0), static_cast<ssize_t>(dg.size()));
        {
            sockaddr_un from;
            socklen_t from_len = sizeof from;
            received_datagram got(pair[1], &from, &from_len, RECV_ADDR_LOCAL);
            ASSERT_EQ(got.size(), dg.size());
            std::fill(expected.begin(), expected.end(), 0);
            std::copy(dg.begin(), dg.end(), expected.begin());
            ASSERT_EQ(std::memcmp(buffer, expected.data(), expected.size()), 0) << i;
        }
    }
    std::fill(expected.begin(), expected.end(), 0);
    EXPECT_EQ(std::memcmp(buffer, expected.data(), expected.size()), 0);
    close(pair[0]);
    close(pair[1]);
}

}  // namespace
