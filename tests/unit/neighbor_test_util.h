// Test helpers for the code that feeds the neighbor table: a stand-in driver that delivers
// crafted netlink events to the daemon's driver socket, builders of the driver's event
// payloads, and readers of the table, the pending timers and the log.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "core/handlers.h"
#include "core/settings.h"
#include "neighbor/neighbor_table.h"
#include "util/timer.h"

namespace ntest {

using bytes = std::vector<uint8_t>;

inline uint32_t ipv4(const char *text) {
    return inet_addr(text);
}

inline ip6_addr ipv6(const char *text) {
    ip6_addr out{};
    inet_pton(AF_INET6, text, out.data());
    return out;
}

inline mac_addr mac(uint8_t last, uint8_t fifth = 0x44) {
    return mac_addr{0x02, 0x11, 0x22, 0x33, fifth, last};
}

inline void put(bytes &b, size_t offset, const void *data, size_t len) {
    b.resize(std::max(b.size(), offset + len));
    memcpy(b.data() + offset, data, len);
}

// Operation 1: a neighbor was heard on one radio.
struct heard {
    mac_addr mac;
    uint32_t ip = 0;  // network order
    ip6_addr ip6{};
    uint8_t radioid = 0, channel = 0, rssi = 0, bandwidth = 0;

    bytes payload() const {
        bytes b{1};
        put(b, 4, &ip, 4);
        put(b, 8, ip6.data(), 16);
        put(b, 24, mac.data(), 6);
        const uint8_t radio[] = {radioid, channel, rssi, bandwidth};
        put(b, 30, radio, 4);
        return b;
    }
};

// Operations that carry only a MAC at bytes 24-29 (6), or nothing but the operation.
inline bytes op_with_mac(uint8_t operation, const mac_addr &m) {
    bytes b{operation};
    put(b, 24, m.data(), 6);
    return b;
}

// One neighbor of a cache reply.
struct cached {
    mac_addr mac;
    uint32_t ip = 0;  // network order
    ip6_addr ip6{};
    radio_info radio[AP_RADIO_MAX]{};
    uint32_t time = 0;

    bytes entry() const {
        bytes b(88, 0xA5);  // bytes the daemon does not read are not zero
        put(b, 32, mac.data(), 6);
        put(b, 40, &ip, 4);
        put(b, 44, ip6.data(), 16);
        put(b, 60, radio, sizeof radio);
        put(b, 80, &time, 4);
        return b;
    }
};

// Operation 3 announcing `count` entries and carrying `entries`.
inline bytes cache_reply(uint8_t count, const std::vector<cached> &entries) {
    bytes b(36, 0);
    b[0] = 3;
    b[32] = count;
    for (const cached &c : entries) {
        bytes e = c.entry();
        b.insert(b.end(), e.begin(), e.end());
    }
    return b;
}

// A stand-in driver: a NETLINK_USERSOCK socket that becomes sock_recv_hand and sends each event
// to its own port, where the daemon's driver socket would receive it.
class driver_feed {
  public:
    driver_feed() {
        socklen_t len = sizeof port_;  // port id 0 at bind: the kernel picks a free one
        if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&port_), len) == 0 &&
            getsockname(fd_, reinterpret_cast<sockaddr *>(&port_), &len) == 0) {
            sock_recv_hand = fd_;
        }
    }
    ~driver_feed() {
        sock_recv_hand = saved_hand_;
        close(fd_);
    }
    driver_feed(const driver_feed &) = delete;
    driver_feed &operator=(const driver_feed &) = delete;

    bool ready() const { return fd_ >= 0 && sock_recv_hand == fd_; }

    // Sends payload behind a 16-byte netlink header, as the driver does.
    void send_event(const bytes &payload) {
        nlmsghdr hdr{static_cast<uint32_t>(NLMSG_HDRLEN + payload.size()), 27, 0, 0, 0};
        bytes msg(NLMSG_HDRLEN, 0);
        memcpy(msg.data(), &hdr, sizeof hdr);
        msg.insert(msg.end(), payload.begin(), payload.end());
        sendto(fd_, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr *>(&port_), sizeof port_);
    }

    // Sends the event and handles it at once, as the receive thread does.
    void deliver(const bytes &payload) {
        send_event(payload);
        hand_receive();
    }

  private:
    int saved_hand_ = sock_recv_hand;
    int fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK);
    sockaddr_nl port_{AF_NETLINK, 0, 0, 0};
};

// A copy of the table entry with this MAC; `found` tells whether there was one.
struct entry_copy {
    bool found = false;
    neighbor_ap ap{};
};

inline entry_copy table_entry(const mac_addr &m) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    const neighbor_ap *entry = neighbor_ap_find(m);
    return entry != nullptr ? entry_copy{true, *entry} : entry_copy{};
}

inline uint32_t table_count() {
    std::lock_guard<std::mutex> guard(ngb_lock);
    return table_cnt;
}

// Runs `change` on the entry with this MAC under ngb_lock; false when there is none.
template <typename Change>
bool edit_entry(const mac_addr &m, Change &&change) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    neighbor_ap *entry = neighbor_ap_find(m);
    if (entry != nullptr) {
        change(*entry);
    }
    return entry != nullptr;
}

// Inserts an entry as a driver event would create it.
inline void add_entry(const mac_addr &m, uint32_t ip, uint32_t timestamp = 0) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    std::unique_ptr<neighbor_ap> entry = neighbor_ap_new();
    entry->mac = entry->info.mac = m;
    entry->ip = entry->info.ip = ip;
    entry->age = NGB_AGE_FRESH;
    entry->info.radiocnt = 2;
    entry->timestamp = timestamp;
    neighbor_ap_add(m, entry);
}

// The pending timers, from the service's own listing.
inline std::string timer_listing() {
    fflush(stdout);
    testing::internal::CaptureStdout();
    timer_dump();
    return testing::internal::GetCapturedStdout();
}

// Whether the timer with this id is pending for `period` seconds after a moment between the
// clock's seconds `from` and now.
inline bool pending_for(uint32_t id, int64_t period, int64_t from) {
    const std::string key = "id=<" + std::to_string(static_cast<int>(id)) + ">, expire=<";
    const std::string dump = timer_listing();
    const size_t at = dump.find(key);
    const int64_t expiry = at == std::string::npos ? -1 : std::stoll(dump.substr(at + key.size()));
    return expiry >= from + period && expiry <= timer_now().sec + period;
}

}  // namespace ntest
