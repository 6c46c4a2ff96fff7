// The shared receive buffer is cleared over the bytes each datagram brought, not over all of
// it: across random sequences of datagram sizes it must read exactly as a full clear leaves it.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
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
TEST(ReceivedDatagram, SpreadDecodeAreaPagesGoBackToTheKernel) {
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

}  // namespace
