#include <netinet/in.h>

#include <cstring>

#include "core/handlers.h"
#include "core/settings.h"
#include "util/local_socket.h"
#include "util/log.h"

void nbcp_receive(int sock, int kind) {
    memset(buffer, 0, sizeof buffer);
    sockaddr_in6 from;  // 28 bytes: holds an IPv4 or an IPv6 source
    memset(&from, 0, sizeof from);
    socklen_t from_len = sizeof from;
    ssize_t received = RecvMsg(sock, buffer, RECV_MAX, &from, &from_len, kind);
    if (received <= 0) {
        return;
    }
    TARN_DBG("recv nbcp packet type:%d\n", buffer[3]);
}
