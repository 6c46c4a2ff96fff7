// Catches the probes a test makes the daemon send: UDP receivers on both families at the probe
// port, each datagram reported with the IPv4 address it was sent to.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "core/settings.h"

struct captured_datagram {
    bool v4;
    std::string dest;  // IPv4 destination address; empty for IPv6
    std::vector<uint8_t> bytes;
};

class probe_capture {
  public:
    probe_capture() {
        int on = 1;
        setsockopt(v4_, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
        sockaddr_in a4{};
        a4.sin_family = AF_INET;
        a4.sin_port = htons(NBCP_PORT);
        bind(v4_, reinterpret_cast<sockaddr *>(&a4), sizeof a4);
        setsockopt(v6_, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        sockaddr_in6 a6{};
        a6.sin6_family = AF_INET6;
        a6.sin6_port = htons(NBCP_PORT);
        bind(v6_, reinterpret_cast<sockaddr *>(&a6), sizeof a6);
    }
    ~probe_capture() {
        close(v4_);
        close(v6_);
    }
    probe_capture(const probe_capture &) = delete;
    probe_capture &operator=(const probe_capture &) = delete;

    // The next datagram on either family, or nothing after timeout_ms.
    std::optional<captured_datagram> next(int timeout_ms) {
        pollfd fds[2] = {{v4_, POLLIN, 0}, {v6_, POLLIN, 0}};
        if (poll(fds, 2, timeout_ms) <= 0) {
            return std::nullopt;
        }
        captured_datagram got{(fds[0].revents & POLLIN) != 0, "", std::vector<uint8_t>(2048)};
        char control[128];
        iovec iov{got.bytes.data(), got.bytes.size()};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        ssize_t n = recvmsg(got.v4 ? v4_ : v6_, &msg, 0);
        got.bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
        for (cmsghdr *c = CMSG_FIRSTHDR(&msg); got.v4 && c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
                in_pktinfo info;
                memcpy(&info, CMSG_DATA(c), sizeof info);
                got.dest = inet_ntoa(info.ipi_addr);
            }
        }
        return got;
    }

  private:
    int v4_ = socket(AF_INET, SOCK_DGRAM, 0);
    int v6_ = socket(AF_INET6, SOCK_DGRAM, 0);
};
