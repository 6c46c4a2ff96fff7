// Local control messages on "/tmp/socket/tarn_socket": one datagram, one operation.
#include "core/local_control.h"

#include <arpa/inet.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/handlers.h"
#include "core/local_msg.h"
#include "core/probe.h"
#include "core/recv_area.h"
#include "core/settings.h"
#include "diag/neighbor_dump.h"
#include "neighbor/driver_msg.h"
#include "neighbor/neighbor_table.h"
#include "static/static_update.h"
#include "util/local_socket.h"
#include "util/log.h"
#include "util/paths.h"

namespace {

constexpr size_t VALUE_OFFSET = offsetof(local_msg_hdr, value);
constexpr size_t OP_OFFSET = offsetof(local_msg_hdr, op);
constexpr size_t PROBE_IP_OFFSET = LOCAL_MSG_HDR_LEN;

// Reads a field at a fixed position; bytes past the end of the message read as zero, as they
// do in the cleared receive buffer.
template <typename T>
T field_at(const uint8_t *msg, size_t len, size_t offset) {
    uint8_t bytes[sizeof(T)] = {};
    if (offset < len) {
        memcpy(bytes, msg + offset, std::min(sizeof(T), len - offset));
    }
    T value;
    memcpy(&value, bytes, sizeof value);
    return value;
}

// The sender's bound path; empty for an unbound (or abstract) sender.
std::string sender_path(const sockaddr_un *from) {
    if (from == nullptr || from->sun_family != AF_UNIX) {
        return "";
    }
    return std::string(from->sun_path, strnlen(from->sun_path, sizeof from->sun_path));
}

void answer_rssi() {
    local_msg_hdr answer;
    memset(&answer, 0, sizeof answer);
    answer.value = rssi_min;
    answer.op = TARN_MSG_GET_RSSI;
    send_local_nowait(&answer, sizeof answer, TARN_CLIENT_PATH);
}

void set_rssi(uint8_t value) {
    neighbor_aps_clear();
    netlink_set_rssi(value);
    rssi_min = value;
}

void set_version(uint8_t value) {
    if (value == version) {
        return;
    }
    version = value;
    char command[64];
    snprintf(command, sizeof command, "uci set tarn.config.version=%d;uci commit tarn", value);
    int status = system(command);
    (void)status;  // the daemon runs the new version whether or not it was stored
    netlink_set_ipaddr(value);
    netlink_set_rssi(rssi_min);
    neighbor_aps_clear();
}

void set_ngbr_num(uint8_t value) {
    if (value == max_ngbr_num) {
        return;
    }
    max_ngbr_num = value;
    netlink_set_max_ngbr_num(value);
    neighbor_aps_clear();
}

void probe_address(uint32_t ip_host) {
    TARN_DBG("dump ip :%x\n", ip_host);
    if (ip_host != 0) {
        send_ndrp_by_ip4(htonl(ip_host), NDRP_MODE_STATIC);
    }
}

}  // namespace

void local_receive() {
    sockaddr_un from;
    memset(&from, 0, sizeof from);
    socklen_t from_len = sizeof from;
    received_datagram datagram(sock_recv_local, &from, &from_len, RECV_ADDR_LOCAL);
    if (datagram.size() == 0) {
        return;
    }
    TARN_DBG("buff:%x,%x,%x,%x,%x,%x,%x,%x\n", buffer[0], buffer[1], buffer[2], buffer[3],
             buffer[4], buffer[5], buffer[6], buffer[7]);
    handle_recvmsg(buffer, datagram.size(), &from);
}

int handle_recvmsg(const uint8_t *msg, size_t len, const sockaddr_un *from) {
    if (msg == nullptr) {
        len = 0;
    }
    uint16_t op = field_at<uint16_t>(msg, len, OP_OFFSET);
    uint8_t value = field_at<uint8_t>(msg, len, VALUE_OFFSET);
    TARN_DBG("%s: operation=%d\n", "handle_recvmsg", op);
    switch (op) {
        case TARN_MSG_NGBR_INFO:
            TARN_DBG("tarn ngbr info!!!");
            neighbor_aps_send(sender_path(from).c_str(), TARN_MSG_NGBR_INFO);
            netlink_aps_get();
            break;
        case TARN_MSG_DUMP_NGBR:
            TARN_DBG("dump tarn ngbr info!!!");
            neighbor_aps_send(TARN_CLIENT_PATH, TARN_MSG_DUMP_NGBR);
            break;
        case TARN_MSG_DUMP_CLUSTER:
            TARN_DBG("dump cluster ngbr info!!!");
            neighbor_aps_send(CLUSTER_NEIGHBOR_DUMP_PATH, TARN_MSG_DUMP_NGBR);
            break;
        case TARN_MSG_SET_RSSI:
            set_rssi(value);
            break;
        case TARN_MSG_GET_RSSI:
            answer_rssi();
            break;
        case TARN_MSG_ADD_MAC:
        case TARN_MSG_DEL_MAC:
            // Static neighbors are edited through the bus; these are accepted and ignored.
            break;
        case TARN_MSG_DUMP_STATIC:
            static_aps_send(TARN_CLIENT_PATH, TARN_MSG_DUMP_STATIC);
            break;
        case TARN_MSG_UPDATE_STATIC:
            update_static_neighbor();
            break;
        case TARN_MSG_DUMP_IP:
            probe_address(field_at<uint32_t>(msg, len, PROBE_IP_OFFSET));
            break;
        case TARN_MSG_SET_VERSION:
            set_version(value);
            break;
        case TARN_MSG_SET_NGBR_NUM:
            set_ngbr_num(value);
            break;
        default:
            TARN_DBG("unknow msg type:%d!!!", op);
            break;
    }
    return 0;
}
