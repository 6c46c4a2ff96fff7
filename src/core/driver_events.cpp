#include <linux/netlink.h>

#include <cstring>

#include "core/handlers.h"
#include "core/settings.h"
#include "util/local_socket.h"
#include "util/log.h"

namespace {

// The driver's event follows the netlink header.
constexpr size_t DRV_EVENT_OFFSET = NLMSG_HDRLEN;

}  // namespace

void hand_receive() {
    memset(buffer, 0, sizeof buffer);
    sockaddr_nl from;
    memset(&from, 0, sizeof from);
    socklen_t from_len = sizeof from;
    ssize_t received =
        RecvMsg(sock_recv_hand, buffer, RECV_MAX, &from, &from_len, RECV_ADDR_NETLINK);
    if (received <= 0) {
        return;
    }
    const uint8_t *event = buffer + DRV_EVENT_OFFSET;
    TARN_DBG("%s: hand op is %d\n", "hand_receive", event[0]);
}
