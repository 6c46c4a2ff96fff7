#include <sys/un.h>

#include <cstring>

#include "core/handlers.h"
#include "core/settings.h"
#include "util/local_socket.h"
#include "util/log.h"

int handle_recvmsg(const uint8_t *msg, size_t len, const sockaddr_un *from);

void local_receive() {
    memset(buffer, 0, sizeof buffer);
    sockaddr_un from;
    memset(&from, 0, sizeof from);
    socklen_t from_len = sizeof from;
    ssize_t received =
        RecvMsg(sock_recv_local, buffer, RECV_MAX, &from, &from_len, RECV_ADDR_LOCAL);
    if (received <= 0) {
        return;
    }
    TARN_DBG("buff:%x,%x,%x,%x,%x,%x,%x,%x\n", buffer[0], buffer[1], buffer[2], buffer[3],
             buffer[4], buffer[5], buffer[6], buffer[7]);
    handle_recvmsg(buffer, static_cast<size_t>(received), &from);
}

int handle_recvmsg(const uint8_t *msg, size_t, const sockaddr_un *) {
    uint16_t op;
    memcpy(&op, msg + 4, sizeof op);
    TARN_DBG("%s: operation=%d\n", "handle_recvmsg", op);
    return 0;
}
