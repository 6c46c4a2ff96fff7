// Local datagram helpers: binding over stale files, missing directories, unanswered sends.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/settings.h"
#include "util/local_socket.h"

namespace {

class LocalSocket : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/tarn-local-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override {
        std::string cmd = "rm -rf " + dir_;
        ASSERT_EQ(system(cmd.c_str()), 0);
        tarn_debug = 0;
        unsetenv("TARN_LOG_STDERR");
    }
    std::string path(const char *name) const { return dir_ + "/" + name; }
    std::string dir_;
};

TEST(RecvAddrLen, KindsSelectAddressLengths) {
    EXPECT_EQ(recv_addr_len(RECV_ADDR_IPV4), 16u);
    EXPECT_EQ(recv_addr_len(RECV_ADDR_IPV6), 28u);
    EXPECT_EQ(recv_addr_len(RECV_ADDR_NETLINK), 12u);
    EXPECT_EQ(recv_addr_len(RECV_ADDR_LOCAL), 110u);
    EXPECT_EQ(recv_addr_len(7), 110u);
}

TEST_F(LocalSocket, BindsOverAnExistingFileAndReceives) {
    std::string sock_path = path("sock");
    FILE *stale = fopen(sock_path.c_str(), "w");
    ASSERT_NE(stale, nullptr);
    fclose(stale);

    int fd = -1;
    ASSERT_EQ(InitSocket(&fd, sock_path.c_str()), 1);
    struct stat st;
    ASSERT_EQ(stat(sock_path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    int sndbuf = 0;
    socklen_t len = sizeof sndbuf;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, &len), 0);
    EXPECT_GE(sndbuf, 131070);  // the kernel reports twice the requested size

    const char message[] = "hello";
    send_local(message, sizeof message, sock_path.c_str());
    char received[16] = {};
    sockaddr_un from;
    socklen_t from_len = 0;
    ssize_t n = RecvMsg(fd, received, sizeof received, &from, &from_len, RECV_ADDR_LOCAL);
    EXPECT_EQ(n, static_cast<ssize_t>(sizeof message));
    EXPECT_STREQ(received, "hello");
    EXPECT_EQ(from_len, 0u) << "the length variable is not written";
    close(fd);
}

TEST_F(LocalSocket, LargestDatagramIsReadWholeAndLongerOnesAreCut) {
    std::string sock_path = path("big");
    int fd = -1;
    ASSERT_EQ(InitSocket(&fd, sock_path.c_str()), 1);
    std::string big(RECV_MAX, 'x');
    send_local(big.data(), big.size(), sock_path.c_str());
    sockaddr_un from;
    socklen_t from_len = 0;
    EXPECT_EQ(RecvMsg(fd, buffer, RECV_MAX, &from, &from_len, RECV_ADDR_LOCAL),
              static_cast<ssize_t>(RECV_MAX));

    int bigger_buf = 300000;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bigger_buf, sizeof bigger_buf);
    std::string longer(RECV_MAX + 100, 'y');
    send_local(longer.data(), longer.size(), sock_path.c_str());
    EXPECT_EQ(RecvMsg(fd, buffer, RECV_MAX, &from, &from_len, RECV_ADDR_LOCAL),
              static_cast<ssize_t>(RECV_MAX));
    close(fd);
}

TEST_F(LocalSocket, BindInMissingDirectoryFailsAndLogs) {
    tarn_debug = 1;
    setenv("TARN_LOG_STDERR", "1", 1);
    int fd = -1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(InitSocket(&fd, path("missing/sock").c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "InitSocket: Bind socket failed\n");
}

TEST_F(LocalSocket, SendToNobodyLogsErrnoAndReturns) {
    tarn_debug = 1;
    setenv("TARN_LOG_STDERR", "1", 1);
    testing::internal::CaptureStderr();
    send_local("x", 1, path("nobody").c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "send packet failed,errno:2\n");
}

TEST_F(LocalSocket, RecvMsgRefusesNullPointers) {
    char buf[4];
    sockaddr_un from;
    socklen_t len = 0;
    EXPECT_EQ(RecvMsg(0, nullptr, 4, &from, &len, 0), 0);
    EXPECT_EQ(RecvMsg(0, buf, 4, nullptr, &len, 0), 0);
    EXPECT_EQ(RecvMsg(0, buf, 4, &from, nullptr, 0), 0);
}

}  // namespace
