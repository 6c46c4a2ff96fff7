// Catches the probes a test makes the daemon send: a UDP receiver at the IPv4 probe port, each
// datagram reported with the address it was sent to.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "core/settings.h"

struct captured_datagram {
    std::string dest;
    std::vector<uint8_t> bytes;
};

class probe_capture {
  public:
    probe_capture() {
        int on = 1;
        setsockopt(fd_, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
        sockaddr_in addr{AF_INET, htons(NBCP_PORT), {}, {}};
        bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    }
    ~probe_capture() { close(fd_); }
    probe_capture(const probe_capture &) = delete;
    probe_capture &operator=(const probe_capture &) = delete;

    // The next datagram, or nothing after timeout_ms.
    std::optional<captured_datagram> next(int timeout_ms) {
        pollfd ready{fd_, POLLIN, 0};
        if (poll(&ready, 1, timeout_ms) <= 0) {
            return std::nullopt;
        }
        captured_datagram got{"", std::vector<uint8_t>(2048)};
        char control[128];
        iovec iov{got.bytes.data(), got.bytes.size()};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        ssize_t n = recvmsg(fd_, &msg, 0);
        got.bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
        // IP_PKTINFO is the only ancillary data the socket asks for.
        if (cmsghdr *c = CMSG_FIRSTHDR(&msg); c != nullptr && c->cmsg_type == IP_PKTINFO) {
            in_pktinfo info;
            memcpy(&info, CMSG_DATA(c), sizeof info);
            got.dest = inet_ntoa(info.ipi_addr);
        }
        return got;
    }

  private:
    int fd_ = socket(AF_INET, SOCK_DGRAM, 0);
};
