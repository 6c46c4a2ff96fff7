#include "core/sockets.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "core/handlers.h"
#include "core/recv_area.h"
#include "core/settings.h"
#include "neighbor/driver_msg.h"
#include "util/local_socket.h"
#include "util/log.h"
#include "util/paths.h"

namespace {

[[noreturn]] void fail(const char *format, const char *function) {
    TARN_ERR(format, function);
    exit(1);
}

int open_ipv4_send_socket() {
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        fail("%s: Create nbcp send socket failed\n", "tarn_socket_init");
    }
    int on = 1;
    setsockopt(sock, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);  // probes may be broadcast
    return sock;
}

int open_ipv4_recv_socket() {
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        fail("%s: Create nbcp recv socket failed\n", "tarn_socket_init");
    }
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(NBCP_PORT);
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        fail("%s: Bind recv nbcp socket failed\n", "tarn_socket_init");
    }
    return sock;
}

int open_driver_socket() {
    int sock = driver_socket_open();
    if (sock < 0) {
        fail("%s: Create hand recv netlink socket failed\n", "tarn_socket_init");
    }
    sockaddr_nl addr;
    memset(&addr, 0, sizeof addr);
    addr.nl_family = AF_NETLINK;
    addr.nl_pid = TARN_NL_PORT_ID;
    addr.nl_groups = 0;
    if (bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        fail("%s: Bind recv hand socket failed\n", "tarn_socket_init");
    }
    return sock;
}

int open_local_socket() {
    int sock = -1;
    if (InitSocket(&sock, TARN_SOCKET_PATH) == 0) {
        TARN_ERR("%s: Create local socket %s failed\n", "tarn_socket_init", TARN_SOCKET_PATH);
        exit(1);
    }
    return sock;
}

}  // namespace

void tarn_socket_init() {
    sock_send_nbcp = open_ipv4_send_socket();
    sock_recv_nbcp = open_ipv4_recv_socket();
    sock_recv_hand = open_driver_socket();
    sock_recv_local = open_local_socket();
}

void tarn_socket6_init() {
    sock6_nbcp = socket(AF_INET6, SOCK_DGRAM, 0);
    if (sock6_nbcp < 0) {
        fail("%s: Create nbcp recv socket with ipv6 failed\n", "tarn_socket6_init");
    }
    int on = 1;
    if (setsockopt(sock6_nbcp, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) < 0) {
        fail("%s: setsockopt recv nbcp socket IPV6_V6ONLY failed\n", "tarn_socket6_init");
    }
    sockaddr_in6 addr;
    memset(&addr, 0, sizeof addr);
    addr.sin6_family = AF_INET6;
    addr.sin6_port = htons(NBCP_PORT);
    addr.sin6_flowinfo = 0;
    addr.sin6_addr = in6addr_any;
    addr.sin6_scope_id = 0;
    if (bind(sock6_nbcp, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        fail("%s: Bind recv nbcp socket with ipv6 failed\n", "tarn_socket6_init");
    }
}

void recv_once(nbcp_decode_area &area) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(sock_recv_nbcp, &readable);
    FD_SET(sock6_nbcp, &readable);
    FD_SET(sock_recv_hand, &readable);
    FD_SET(sock_recv_local, &readable);
    int highest = std::max({sock_recv_nbcp, sock6_nbcp, sock_recv_hand, sock_recv_local});

    TARN_DBG("%s: receive fd listening >>>>>\n", "recv_thread");
    if (select(highest + 1, &readable, nullptr, nullptr, nullptr) <= 0) {
        return;
    }
    // Fixed order: the driver's reports first, then the peers, then local clients.
    if (FD_ISSET(sock_recv_hand, &readable)) {
        hand_receive();
        ++rcv_hand_cnt;
    }
    if (FD_ISSET(sock_recv_nbcp, &readable)) {
        nbcp_receive(sock_recv_nbcp, RECV_ADDR_IPV6, area);
        ++rcv_nbcp_cnt;
    }
    if (FD_ISSET(sock6_nbcp, &readable)) {
        nbcp_receive(sock6_nbcp, RECV_ADDR_IPV6, area);
        ++rcv_nbcp_ip6_cnt;
    }
    if (FD_ISSET(sock_recv_local, &readable)) {
        local_receive();
        ++rcv_local_cnt;
    }
}

void *recv_thread(void *) {
    nbcp_decode_area area;  // on this thread's stack for the life of the process
    for (;;) {
        recv_once(area);
    }
    return nullptr;
}
