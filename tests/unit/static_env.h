// A sandboxed AP for tests of the static neighbor store, the update pass, the local control
// messages and the dumps: the sandbox of sandbox.h plus a private /var/config (tmpfs on /var),
// /tmp/socket, stand-ins for "getmode", "ubus" and "uci" that record their calls, and fresh
// probe sockets.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <mutex>
#include <string>

#include "core/settings.h"
#include "sandbox.h"
#include "static/static_store.h"
#include "util/paths.h"

namespace static_env {

inline std::string prepare() {
    if (mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") != 0 || mkdir("/var/config", 0755) != 0) {
        return "private /var/config";
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
    return "";
}

// Runs body in the sandbox; returns its text or "sandbox failure: ...".
inline std::string run(const std::function<std::string()> &body) {
    return sandbox::run_in_sandbox([&body]() -> std::string {
        std::string failure = prepare();
        if (!failure.empty()) {
            return "sandbox failure: " + failure;
        }
        return body();
    });
}

inline void set_cluster_mode(bool cluster) {
    if (cluster) {
        sandbox::write_file("/tmp/mode", "CLUSTER\n");
    } else {
        unlink("/tmp/mode");
    }
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

inline std::string ip_text(uint32_t ip) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &ip, text, sizeof text);
    return text;
}

inline std::string ip6_text(const ip6_addr &ip6) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, ip6.data(), text, sizeof text);
    return text;
}

// The static list, head first: "mac ip ip6 state" per node, joined by "; ".
inline std::string list_text() {
    std::lock_guard<std::mutex> guard(stngbr_lock);
    std::string text;
    for (static_member *node = static_member_list.head; node != nullptr; node = node->next) {
        text += (text.empty() ? "" : "; ") + mac_text(node->info.mac) + " " +
                ip_text(node->info.ip) + " " + ip6_text(node->info.ip6) + " " +
                std::to_string(node->info.state);
    }
    return text;
}

inline std::string file_text() {
    if (!sandbox::exists(STATIC_NEIGHBOR_CONF_PATH)) {
        return "(missing)";
    }
    return sandbox::read_file(STATIC_NEIGHBOR_CONF_PATH);
}

inline void write_conf(const std::string &text) {
    sandbox::write_file(STATIC_NEIGHBOR_CONF_PATH, text);
}

// A datagram socket bound at path (removed first), with a receive time-out of timeout_ms.
inline int bind_local(const char *path, int timeout_ms = 300) {
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path);
    unlink(path);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    timeval timeout{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    int big = 1 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    return fd;
}

inline bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

}  // namespace static_env
