// The sandbox for the static store, the update pass, local control and the dumps: a private
// /var/config and /tmp/socket, recording "getmode", "ubus" and "uci" stand-ins, probe sockets.
#pragma once

#include <arpa/inet.h>
#include <sys/un.h>

#include <mutex>

#include "sandbox.h"  // with the mount, socket, file and string headers it includes
#include "static/static_store.h"
#include "util/paths.h"

namespace static_env {

// Runs body in the sandbox; returns its text or "sandbox failure: ...".
inline std::string run(const std::function<std::string()> &body) {
    return sandbox::run_in_sandbox([&body]() -> std::string {
        if (mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") != 0 ||
            mkdir("/var/config", 0755) != 0) {
            return "sandbox failure: private /var/config";
        }
        mkdir("/tmp/socket", 0755);
        // The mode the platform reports is read from /tmp/mode (absent: not in cluster mode).
        sandbox::install_command("getmode", "cat /tmp/mode 2>/dev/null || echo FIT");
        sandbox::install_command("ubus", "echo \"$*\" >> /tmp/calls.ubus");
        sandbox::install_command("uci", "echo \"$*\" >> /tmp/calls.uci");
        sock_send_nbcp = socket(AF_INET, SOCK_DGRAM, 0);
        int on = 1;
        setsockopt(sock_send_nbcp, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
        sock6_nbcp = socket(AF_INET6, SOCK_DGRAM, 0);
        return body();
    });
}

// The recorded command lines of a stand-in ("ubus" or "uci"), one per line.
inline std::string calls(const std::string &command) {
    return sandbox::read_file("/tmp/calls." + command);
}

inline std::string mac_text(const mac_addr &mac) {
    char text[18];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return text;
}

// An IPv4 address (uint32_t in network order) or an IPv6 one (ip6_addr) as text.
template <typename Address>
std::string ip_text(const Address &ip) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(sizeof ip == 4 ? AF_INET : AF_INET6, &ip, text, sizeof text);
    return text;
}

// The static list, head first: "mac ip ip6 state" per node, joined by "; ".
inline std::string list_text() {
    std::lock_guard<std::mutex> guard(stngbr_lock);
    std::string text;
    for (static_member *node = static_member_list.head; node != nullptr; node = node->next) {
        const ap_info &n = node->info;
        text += (text.empty() ? "" : "; ") + mac_text(n.mac) + " " + ip_text(n.ip) + " " +
                ip_text(n.ip6) + " " + std::to_string(n.state);
    }
    return text;
}

// Nodes 00:00:00:00:00:0i for each i in order, all at the IPv4 address `ip`, as list_text
// gives them.
inline std::string nodes(std::initializer_list<int> order, const char *ip = "0.0.0.0") {
    std::string text;
    for (int i : order) {
        text += (text.empty() ? "00:00:00:00:00:0" : "; 00:00:00:00:00:0") + std::to_string(i) +
                " " + ip + " :: 4";
    }
    return text;
}

inline std::string file_text() {
    const char *path = STATIC_NEIGHBOR_CONF_PATH;
    return sandbox::exists(path) ? sandbox::read_file(path) : "(missing)";
}

inline void write_conf(const std::string &text) {
    sandbox::write_file(STATIC_NEIGHBOR_CONF_PATH, text);
}

// A datagram socket bound at path (removed first), with a receive time-out of 300 ms.
inline int bind_local(const char *path) {
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr{AF_UNIX, {}};
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path);
    unlink(path);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    timeval timeout{0, 300000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return fd;
}

}  // namespace static_env
