// Test helpers for the code that feeds the neighbor table: a stand-in driver that delivers
// crafted netlink events to the daemon's driver socket, builders of the driver's event
// payloads, and readers of the table, the pending timers and the log.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "core/settings.h"
#include "neighbor/ap_info.h"
#include "neighbor/neighbor_table.h"
#include "probe_capture.h"
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
    if (b.size() < offset + len) {
        b.resize(offset + len, 0);
    }
    memcpy(b.data() + offset, data, len);
}

// Operation 1: a neighbor was heard on one radio.
struct heard {
    mac_addr mac;
    uint32_t ip = 0;  // network order
    ip6_addr ip6{};
    uint8_t radioid = 0;
    uint8_t channel = 0;
    uint8_t rssi = 0;
    uint8_t bandwidth = 0;

    bytes payload() const {
        bytes b(34, 0);
        b[0] = 1;
        put(b, 4, &ip, 4);
        put(b, 8, ip6.data(), 16);
        put(b, 24, mac.data(), 6);
        b[30] = radioid;
        b[31] = channel;
        b[32] = rssi;
        b[33] = bandwidth;
        return b;
    }
};

// Operations that carry only a MAC at bytes 24-29 (6), or nothing but the operation.
inline bytes op_with_mac(uint8_t operation, const mac_addr &m) {
    bytes b(30, 0);
    b[0] = operation;
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

// A stand-in driver: a NETLINK_USERSOCK pair whose receiving end becomes sock_recv_hand.
class driver_feed {
  public:
    driver_feed() {
        rx_ = open_bound(&rx_port_);
        tx_ = open_bound(nullptr);
        saved_hand_ = sock_recv_hand;
        sock_recv_hand = rx_;
    }
    ~driver_feed() {
        sock_recv_hand = saved_hand_;
        close(rx_);
        close(tx_);
    }
    driver_feed(const driver_feed &) = delete;
    driver_feed &operator=(const driver_feed &) = delete;

    bool ready() const { return rx_ >= 0 && tx_ >= 0; }

    // Sends payload behind a 16-byte netlink header, as the driver does.
    void send_event(const bytes &payload) {
        bytes msg(NLMSG_HDRLEN, 0);
        nlmsghdr hdr{};
        hdr.nlmsg_len = static_cast<uint32_t>(NLMSG_HDRLEN + payload.size());
        hdr.nlmsg_type = 27;
        memcpy(msg.data(), &hdr, sizeof hdr);
        msg.insert(msg.end(), payload.begin(), payload.end());
        send_raw(msg);
    }
    // Sends exactly these bytes, header or not.
    void send_raw(const bytes &datagram) {
        sockaddr_nl dest{};
        dest.nl_family = AF_NETLINK;
        dest.nl_pid = rx_port_;
        sendto(tx_, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&dest),
               sizeof dest);
    }

  private:
    static int open_bound(uint32_t *port) {
        int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK);
        if (fd < 0) {
            return -1;
        }
        sockaddr_nl addr{};
        addr.nl_family = AF_NETLINK;
        socklen_t len = sizeof addr;
        if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
            close(fd);
            return -1;
        }
        if (port != nullptr) {
            *port = addr.nl_pid;
        }
        return fd;
    }

    int rx_ = -1;
    int tx_ = -1;
    uint32_t rx_port_ = 0;
    int saved_hand_ = 0;
};

// Log lines written while `action` runs (debug logging on, copied to standard error).
template <typename Action>
std::string logged(Action &&action) {
    int saved_debug = tarn_debug;
    tarn_debug = 1;
    setenv("TARN_LOG_STDERR", "1", 1);
    testing::internal::CaptureStderr();
    action();
    fflush(stderr);
    std::string text = testing::internal::GetCapturedStderr();
    tarn_debug = saved_debug;
    return text;
}

inline int count_of(const std::string &text, const std::string &what) {
    int n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) {
        ++n;
    }
    return n;
}

// A copy of the table entry with this MAC; `found` tells whether there was one.
struct entry_copy {
    bool found = false;
    neighbor_ap ap{};
};

inline entry_copy table_entry(const mac_addr &m) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    entry_copy copy;
    if (const neighbor_ap *entry = neighbor_ap_find(m)) {
        copy.found = true;
        copy.ap = *entry;
    }
    return copy;
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
    if (entry == nullptr) {
        return false;
    }
    change(*entry);
    return true;
}

// Inserts an entry as a driver event would create it.
inline void add_entry(const mac_addr &m, uint32_t ip, uint32_t timestamp = 0) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    std::unique_ptr<neighbor_ap> entry = neighbor_ap_new();
    entry->mac = m;
    entry->info.mac = m;
    entry->ip = ip;
    entry->info.ip = ip;
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
    std::string dump = timer_listing();
    std::string key = "id=<" + std::to_string(static_cast<int>(id)) + ">, expire=<";
    size_t at = dump.find(key);
    int64_t expiry = at == std::string::npos ? -1 : std::stoll(dump.substr(at + key.size()));
    return expiry >= from + period && expiry <= timer_now().sec + period;
}

// Opens the IPv4 probe socket as start-up does (the caller closes it).
inline int open_probe_socket() {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    return fd;
}

}  // namespace ntest
