// A stand-in for the Wi-Fi driver: a NETLINK_USERSOCK socket that the daemon's driver messages
// reach while it exists (it sets TARN_DRIVER_PORT to its own port id).
#pragma once

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

class DriverSink {
  public:
    DriverSink() {
        sockaddr_nl addr{AF_NETLINK, 0, 0, 0};  // port id 0: the kernel picks a free one
        socklen_t len = sizeof addr;
        if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
            getsockname(fd_, reinterpret_cast<sockaddr *>(&addr), &len) == 0) {
            setenv("TARN_DRIVER_PORT", std::to_string(addr.nl_pid).c_str(), 1);
            ready_ = true;
        }
    }
    ~DriverSink() {
        unsetenv("TARN_DRIVER_PORT");
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    DriverSink(const DriverSink &) = delete;
    DriverSink &operator=(const DriverSink &) = delete;

    bool ready() const { return ready_; }

    // Every message queued so far. Netlink delivers to a local socket before the send returns,
    // so nothing is still on its way once the sender has returned.
    std::vector<std::vector<uint8_t>> take_all() {
        std::vector<std::vector<uint8_t>> messages;
        std::vector<uint8_t> message(4096);
        for (ssize_t n; (n = recv(fd_, message.data(), message.size(), MSG_DONTWAIT)) >= 0;) {
            messages.emplace_back(message.begin(), message.begin() + n);
        }
        return messages;
    }

  private:
    int fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK);
    bool ready_ = false;
};
