#include <gtest/gtest.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "util/local_socket.h"

TEST(RecvAddrLen, KindsSelectAddressLengths) {
    EXPECT_EQ(recv_addr_len(RECV_ADDR_IPV4), 16u);
    EXPECT_EQ(recv_addr_len(RECV_ADDR_IPV6), 28u);
    EXPECT_EQ(recv_addr_len(RECV_ADDR_NETLINK), 12u);
    EXPECT_EQ(recv_addr_len(RECV_ADDR_LOCAL), 110u);
    EXPECT_EQ(recv_addr_len(7), 110u);
}
