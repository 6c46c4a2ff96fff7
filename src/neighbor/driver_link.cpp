#include "neighbor/driver_link.h"

#include <sys/socket.h>

#include <cstdlib>
#include <cstring>

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
