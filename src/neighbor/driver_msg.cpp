#include "neighbor/driver_msg.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "core/settings.h"
#include "sysinfo/self_ap.h"
#include "sysinfo/sysinfo.h"
#include "util/log.h"

std::atomic<uint32_t> set_ipaddr{0};

namespace {

// The simulated driver's port id, or 0 when the real driver is used.
uint32_t simulated_driver_port() {
    const char *text = getenv("TARN_DRIVER_PORT");
    if (text == nullptr || *text == '\0') {
        return 0;
    }
    char *end = nullptr;
    unsigned long port = strtoul(text, &end, 10);
    if (*end != '\0' || port == 0 || port > UINT32_MAX) {
        return 0;
    }
    return static_cast<uint32_t>(port);
}

static_assert(NLMSG_SPACE(sizeof(drv_msg)) == DRV_NL_MSG_LEN, "header and payload make 48 bytes");

// The socket of one message, closed on every path.
class driver_socket {
  public:
    driver_socket() : fd_(driver_socket_open()) {}
    ~driver_socket() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    driver_socket(const driver_socket &) = delete;
    driver_socket &operator=(const driver_socket &) = delete;

    // Logs the failure on behalf of `caller`.
    bool opened(const char *caller) const {
        if (fd_ < 0) {
            TARN_ERR("%s: Create netlink socket failed!\n", caller);
            return false;
        }
        return true;
    }
    int fd() const { return fd_; }

  private:
    int fd_;
};

void log_no_message_buffer(const char *caller, uint8_t operation) {
    // Operators search the logs for these exact texts, the spelling of each included.
    if (operation == DRV_OP_SET_AP_INFO) {
        TARN_ERR("%s: Malloc for netlink message failed\n", caller);
    } else {
        TARN_ERR("%s: Malloc for netlink messsage failed\n", caller);
    }
}

int send_payload(const driver_socket &sock, const char *caller, const drv_msg &payload) {
    std::unique_ptr<uint8_t[]> msg(new (std::nothrow) uint8_t[DRV_NL_MSG_LEN]);
    if (!msg) {
        log_no_message_buffer(caller, payload.operation);
        return -1;
    }
    driver_msg_build(payload, msg.get());
    if (payload.operation == DRV_OP_SET_AP_INFO) {
        TARN_DBG("%s: send ap info to driver.\n", caller);
    }
    sockaddr_nl dest = driver_dest_addr();
    // A lost message is repeated by the periodic jobs where it matters, so the result is not
    // looked at.
    (void)sendto(sock.fd(), msg.get(), DRV_NL_MSG_LEN, 0, reinterpret_cast<sockaddr *>(&dest),
                 sizeof dest);
    return 0;
}

// The common road of the senders that carry only an operation and a value.
int send_operation(const char *caller, uint8_t operation, uint8_t value) {
    driver_socket sock;
    if (!sock.opened(caller)) {
        return -1;
    }
    return send_payload(sock, caller, drv_msg_make(operation, value));
}

int send_ap_info(const driver_socket &sock, const char *caller, uint8_t version) {
    neighbor_ap self = self_ap_snapshot();
    drv_msg payload = drv_msg_ap_info(version, self, max_ngbr_num.load());

    TARN_DBG("%s: %x,%x,%x,%d\n", caller, payload.ip, self.ip, ap_ip.load(),
             static_cast<int>(sizeof payload));
    char ip6_text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, payload.ip6.data(), ip6_text, sizeof ip6_text);
    TARN_DBG("%s: ip6: %s\n", caller, ip6_text);
    log_mac(TARN_LOG_DEBUG, payload.mac);

    return send_payload(sock, caller, payload);
}

void run_ignoring_result(const char *command) {
    int status = system(command);
    (void)status;
}

}  // namespace

int driver_netlink_protocol() {
    return simulated_driver_port() != 0 ? NETLINK_USERSOCK : TARN_NL_PROTO;
}

sockaddr_nl driver_dest_addr() {
    sockaddr_nl addr;
    memset(&addr, 0, sizeof addr);
    addr.nl_family = AF_NETLINK;
    addr.nl_pid = simulated_driver_port();
    addr.nl_groups = 0;
    return addr;
}

int driver_socket_open() {
    return socket(AF_NETLINK, SOCK_RAW, driver_netlink_protocol());
}

drv_msg drv_msg_make(uint8_t operation, uint8_t value) {
    drv_msg payload;
    memset(&payload, 0, sizeof payload);
    payload.operation = operation;
    payload.value = value;
    return payload;
}

drv_msg drv_msg_ap_info(uint8_t version, const neighbor_ap &self, uint8_t max_ngbr) {
    drv_msg payload = drv_msg_make(DRV_OP_SET_AP_INFO, version);
    payload.ip = htonl(self.ip);
    payload.ip6 = self.info.ip6;
    payload.mac = self.mac;
    payload.max_ngbr_num = max_ngbr;
    return payload;
}

void driver_msg_build(const drv_msg &payload, uint8_t *out) {
    nlmsghdr header;
    memset(&header, 0, sizeof header);
    header.nlmsg_len = DRV_NL_MSG_LEN;
    header.nlmsg_type = DRV_NL_MSG_TYPE;
    header.nlmsg_flags = 0;
    header.nlmsg_seq = 0;
    header.nlmsg_pid = TARN_NL_PORT_ID;
    memset(out, 0, DRV_NL_MSG_LEN);
    memcpy(out, &header, sizeof header);
    memcpy(out + NLMSG_HDRLEN, &payload, sizeof payload);
}

int netlink_set_rssi(uint8_t rssi) {
    int rc = send_operation("netlink_set_rssi", DRV_OP_SET_RSSI, rssi);
    if (rc == 0) {
        TARN_DBG("%s: set rssi limit:%d\n", "netlink_set_rssi", rssi);
    }
    return rc;
}

int netlink_set_max_ngbr_num(uint8_t num) {
    int rc = send_operation("netlink_set_max_ngbr_num", DRV_OP_SET_MAX_NGBR_NUM, num);
    if (rc == 0) {
        TARN_DBG("%s: set dynamic neighbor num:%d\n", "netlink_set_max_ngbr_num", num);
    }
    return rc;
}

int netlink_aps_get() {
    return send_operation("netlink_aps_get", DRV_OP_GET_APS, 0);
}

int netlink_set_ipaddr(uint8_t version) {
    const char *caller = "netlink_set_ipaddr";
    {
        driver_socket sock;
        if (!sock.opened(caller)) {
            return -1;
        }
        if (send_ap_info(sock, caller, version) != 0) {
            return -1;
        }
    }
    if (is_have_wlan()) {
        run_ignoring_result("iwpriv wifi0 tarn_bcnUpdate 1");
        run_ignoring_result("iwpriv wifi1 tarn_bcnUpdate 1");
    }
    return 0;
}

void log_mac(int priority, const mac_addr &mac) {
    if (tarn_debug.load() == 0 && priority < 8) {
        return;
    }
    TARN_LOG(priority, "mac: %02x:%02x:%02x:%02x:%02x:%02x \n", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
}
