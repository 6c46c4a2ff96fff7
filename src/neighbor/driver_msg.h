// Messages from the daemon to the Wi-Fi driver: one netlink message each, sent from a socket
// opened and closed for that message, so the senders need no lock and may run on any thread.
//
// How the driver is reached is decided here alone. On the AP the driver speaks netlink protocol
// 27 and takes messages at port id 0. When the environment names a user-space driver
// (TARN_DRIVER_PORT=N), every driver socket uses NETLINK_USERSOCK instead and messages go to
// port id N. Framing and contents are identical.
#pragma once

#include <linux/netlink.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "neighbor/ap_info.h"

constexpr int TARN_NL_PROTO = 27;
constexpr uint32_t TARN_NL_PORT_ID = 4;  // the daemon's own netlink port id

// Netlink protocol of every driver socket.
int driver_netlink_protocol();
// Netlink address that messages to the driver are sent to.
sockaddr_nl driver_dest_addr();
// A raw netlink socket to the driver, or -1.
int driver_socket_open();

// Operations carried in drv_msg::operation.
enum drv_operation : uint8_t {
    DRV_OP_SET_AP_INFO = 1,
    DRV_OP_GET_APS = 2,
    DRV_OP_SET_RSSI = 4,
    DRV_OP_SET_MAX_NGBR_NUM = 5,
};

// Payload of every message to the driver, host byte order except where noted.
struct drv_msg {
    uint8_t operation;
    uint8_t value;
    uint8_t reserved1[2];
    uint32_t ip;           // network byte order; operation 1 only
    ip6_addr ip6;          // operation 1 only
    mac_addr mac;          // operation 1 only
    uint8_t max_ngbr_num;  // operation 1 only
    uint8_t reserved2;
};
static_assert(sizeof(drv_msg) == 32, "the driver takes a 32-byte payload");
static_assert(offsetof(drv_msg, ip) == 4 && offsetof(drv_msg, ip6) == 8 &&
                  offsetof(drv_msg, mac) == 24 && offsetof(drv_msg, max_ngbr_num) == 30,
              "payload offsets are fixed by the driver");

// Netlink header (16 bytes) plus the payload, rounded to 4: every message is this long.
constexpr size_t DRV_NL_MSG_LEN = 48;
// The driver expects its protocol number in the header's type field.
constexpr uint16_t DRV_NL_MSG_TYPE = 27;

// 0 until the driver has confirmed this AP's information (operation 1), then 1.
extern std::atomic<uint32_t> set_ipaddr;

// A zero-filled payload carrying an operation and its value.
drv_msg drv_msg_make(uint8_t operation, uint8_t value);
// The operation-1 payload describing `self` (this AP's record) to the driver.
drv_msg drv_msg_ap_info(uint8_t version, const neighbor_ap &self, uint8_t max_ngbr);
// Writes the complete 48-byte netlink message for `payload` into `out`.
void driver_msg_build(const drv_msg &payload, uint8_t *out);

// Each sends one message to the driver; 0, or -1 when no socket or buffer could be had.
int netlink_set_rssi(uint8_t rssi);
int netlink_set_max_ngbr_num(uint8_t num);
int netlink_aps_get();
// Sends this AP's address, MAC and neighbor limit, then refreshes the beacons of both radios
// when the AP has a wireless VAP.
int netlink_set_ipaddr(uint8_t version);

// Logs a MAC address when debugging is on or the priority is 8 or more.
void log_mac(int priority, const mac_addr &mac);
