#include "diag/show_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/local_msg.h"
#include "core/settings.h"
#include "diag/show_tables.h"
#include "proto/nbcp.h"
#include "util/local_socket.h"
#include "util/log.h"
#include "util/paths.h"

namespace {

// The daemon reads only the header, but the request has always been a full-size datagram.
constexpr size_t SHOW_REQUEST_LEN = 65535;

void send_dump_request() {
    std::vector<uint8_t> request(SHOW_REQUEST_LEN, 0);
    local_msg_hdr hdr;
    memset(&hdr, 0, sizeof hdr);
    hdr.op = TARN_MSG_DUMP_NGBR;
    memcpy(request.data(), &hdr, sizeof hdr);
    send_local(request.data(), request.size(), TARN_SOCKET_PATH);
}

uint16_t reply_op(const uint8_t *reply) {
    uint16_t op;
    memcpy(&op, reply + offsetof(local_msg_hdr, op), sizeof op);
    return op;
}

}  // namespace

void show_ngbrs_list(int kind) {
    int sock = -1;
    if (InitSocket(&sock, TARN_CLIENT_PATH) == 0) {
        TARN_ERR("%s: Create local socket failed\n", "show_ngbrs_list");
        exit(1);
    }
    send_dump_request();

    timeval timeout{SHOW_TIMEOUT_S, 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    memset(buffer, 0, sizeof buffer);
    sockaddr_un from;
    socklen_t from_len = sizeof from;
    ssize_t received = RecvMsg(sock, buffer, RECV_MAX, &from, &from_len, RECV_ADDR_LOCAL);
    if (received <= 0) {
        return;  // no daemon or no answer: nothing printed, the reply path stays
    }

    std::vector<ap_info> list(NGB_HASH_SIZE);
    int n = static_cast<int>(
        nbcp_list_read(buffer, static_cast<size_t>(received), list.data(), list.size()));
    uint16_t op = reply_op(buffer);
    if (op == TARN_MSG_NGBR_INFO || op == TARN_MSG_DUMP_NGBR) {
        TARN_DBG("dump----> type:%d\n", op);
        print_wireless_table(list.data(), n);
    } else {
        print_show_table(kind, list.data(), n);
    }
    fflush(stdout);
    unlink(TARN_CLIENT_PATH);
    exit(0);
}
