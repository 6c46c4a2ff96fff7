// The one place that decides how the daemon reaches the Wi-Fi driver.
//
// On the AP the driver speaks netlink protocol 27 and takes messages at port id 0. When the
// environment names a user-space driver (TARN_DRIVER_PORT=N), every driver socket uses
// NETLINK_USERSOCK instead and messages go to port id N. Framing and contents are identical.
#pragma once

#include <linux/netlink.h>

#include <cstdint>

constexpr int TARN_NL_PROTO = 27;
constexpr uint32_t TARN_NL_PORT_ID = 4;  // the daemon's own netlink port id

// Netlink protocol of every driver socket.
int driver_netlink_protocol();
// Netlink address that messages to the driver are sent to.
sockaddr_nl driver_dest_addr();
// A raw netlink socket to the driver, or -1.
int driver_socket_open();
