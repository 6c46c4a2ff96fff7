#include "static/client_requests.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/local_msg.h"
#include "core/settings.h"
#include "util/local_socket.h"
#include "util/paths.h"

namespace {

constexpr int GET_RSSI_TIMEOUT_S = 10;
constexpr size_t GET_RSSI_REPLY_MAX = 256;

// Binds the reply socket and sends one request; a client that cannot bind ends at once.
int send_request(tarn_msg_op op, uint8_t value) {
    int sock = -1;
    if (InitSocket(&sock, TARN_CLIENT_PATH) == 0) {
        exit(1);
    }
    local_msg_hdr request;
    memset(&request, 0, sizeof request);
    request.value = value;
    request.op = op;
    send_local(&request, sizeof request, TARN_SOCKET_PATH);
    return sock;
}

}  // namespace

void tarn_update_static() {
    // The reply path stays bound until the next client takes it over.
    send_request(TARN_MSG_UPDATE_STATIC, 0);
}

void tarn_set_rssi(uint8_t rssi) {
    send_request(TARN_MSG_SET_RSSI, rssi);
    unlink(TARN_CLIENT_PATH);
}

void tarn_set_version(uint8_t ver) {
    int sock = send_request(TARN_MSG_SET_VERSION, ver);
    unlink(TARN_CLIENT_PATH);
    close(sock);
}

void tarn_set_dynamic_ngbr_num(uint8_t num) {
    int sock = send_request(TARN_MSG_SET_NGBR_NUM, num);
    unlink(TARN_CLIENT_PATH);
    close(sock);
}

void tarn_get_rssi() {
    int sock = send_request(TARN_MSG_GET_RSSI, 0);
    memset(buffer, 0, GET_RSSI_REPLY_MAX);
    timeval timeout{GET_RSSI_TIMEOUT_S, 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    sockaddr_un from;
    socklen_t from_len = sizeof from;
    ssize_t received = RecvMsg(sock, buffer, GET_RSSI_REPLY_MAX, &from, &from_len, RECV_ADDR_LOCAL);
    if (received <= 0) {
        return;  // no daemon or no answer: nothing printed, the reply path stays
    }
    local_msg_hdr reply;
    memcpy(&reply, buffer, sizeof reply);
    if (reply.op == TARN_MSG_GET_RSSI) {
        printf("current rssi  limit:%d\n", reply.value);
    }
    unlink(TARN_CLIENT_PATH);
    exit(0);
}
