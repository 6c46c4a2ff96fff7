#include "util/local_socket.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "util/log.h"

namespace {

constexpr int LOCAL_SNDBUF = 131070;

sockaddr_un local_addr(const char *path) {
    sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    return addr;
}

}  // namespace

socklen_t recv_addr_len(int kind) {
    switch (kind) {
        case RECV_ADDR_IPV4:
            return sizeof(sockaddr_in);
        case RECV_ADDR_IPV6:
            return sizeof(sockaddr_in6);
        case RECV_ADDR_NETLINK:
            return sizeof(sockaddr_nl);
        default:
            return sizeof(sockaddr_un);
    }
}

int InitSocket(int *fd, const char *path) {
    if (fd == nullptr || path == nullptr) {
        return 0;
    }
    int sock = socket(AF_UNIX, SOCK_DGRAM, 0);
    *fd = sock;
    if (sock < 0) {
        TARN_ERR("%s: Create socket failed\n", "InitSocket");
        return 0;
    }
    sockaddr_un addr = local_addr(path);
    unlink(addr.sun_path);
    if (bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        TARN_ERR("%s: Bind socket failed\n", "InitSocket");
        close(sock);
        unlink(addr.sun_path);
        return 0;
    }
    int sndbuf = LOCAL_SNDBUF;
    if (setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf) < 0) {
        TARN_DBG("%s setsockopt %s", "InitSocket", strerror(errno));
        close(sock);
        unlink(addr.sun_path);
        return 0;
    }
    return 1;
}

namespace {

void send_local_with(const void *msg, size_t len, const char *path, int flags) {
    int sock = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (sock < 0) {
        TARN_ERR("%s: Create local socket failed\n", "send_local");
        return;
    }
    sockaddr_un addr = local_addr(path);
    if (sendto(sock, msg, len, flags, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        TARN_DBG("send packet failed,errno:%d\n", errno);
    }
    close(sock);
}

}  // namespace

void send_local(const void *msg, size_t len, const char *path) {
    send_local_with(msg, len, path, 0);
}

void send_local_nowait(const void *msg, size_t len, const char *path) {
    send_local_with(msg, len, path, MSG_DONTWAIT);
}

ssize_t RecvMsg(int fd, void *buf, size_t size, void *from, socklen_t *fromlen, int kind) {
    if (buf == nullptr || from == nullptr || fromlen == nullptr) {
        TARN_WARN("%s: Socket receive message buf is NULL\n", "RecvMsg");
        return 0;
    }
    socklen_t len = recv_addr_len(kind);
    return recvfrom(fd, buf, size, 0, static_cast<sockaddr *>(from), &len);
}
