#include "devbus/bus_client.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "devbus/bus_status.h"
#include "devbus/bus_wire.h"

namespace {

// Closes the descriptor when the exchange ends, however it ends.
struct socket_guard {
    int fd;
    ~socket_guard() {
        if (fd >= 0) {
            close(fd);
        }
    }
};

// Connects to the bus within timeout_ms; returns the descriptor or a negated bus status.
int connect_bus(const char *path, int timeout_ms) {
    sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path == nullptr || strlen(path) >= sizeof addr.sun_path) {
        return -BUS_STATUS_CONNECTION_FAILED;
    }
    strcpy(addr.sun_path, path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -BUS_STATUS_CONNECTION_FAILED;
    }
    // A server whose backlog is full makes connect wait; the send time-out bounds that wait.
    timeval limit{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        int failure = errno;
        close(fd);
        return failure == EAGAIN ? -BUS_STATUS_TIMEOUT : -BUS_STATUS_CONNECTION_FAILED;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    return fd;
}

// The canonical text of args, which must be one JSON object; false otherwise.
bool canonical_args(const char *args, std::string &text) {
    if (args == nullptr) {
        text = "{}";
        return true;
    }
    json_ref parsed = parse_json_object(args);
    if (!parsed) {
        return false;
    }
    text = json_object_to_json_string_ext(parsed.get(), JSON_C_TO_STRING_PLAIN);
    return true;
}

int exchange(const char *path, int timeout_ms, const std::string &request,
             std::string &reply_json) {
    reply_json.clear();
    int64_t deadline = wire_now_ms() + timeout_ms;
    int fd = connect_bus(path, timeout_ms);
    if (fd < 0) {
        return -fd;
    }
    socket_guard guard{fd};
    int written = wire_write_frame(fd, request, deadline);
    if (written == WIRE_TIMEOUT) {
        return BUS_STATUS_TIMEOUT;
    }
    if (written != WIRE_OK) {
        return BUS_STATUS_CONNECTION_FAILED;
    }
    std::string payload;
    int read = wire_read_frame(fd, BUS_REPLY_MAX, payload, deadline);
    if (read == WIRE_TIMEOUT) {
        return BUS_STATUS_TIMEOUT;
    }
    if (read == WIRE_CLOSED) {
        return BUS_STATUS_NO_DATA;
    }
    int32_t status = 0;
    if (read != WIRE_OK || !decode_reply(payload, status, reply_json)) {
        return BUS_STATUS_UNKNOWN_ERROR;
    }
    if (!reply_json.empty() && !parse_json_object(reply_json)) {
        reply_json.clear();
        return BUS_STATUS_UNKNOWN_ERROR;
    }
    return status;
}

}  // namespace

int bus_call(const char *socket_path, const char *object, const char *method, const char *args,
             int timeout_ms, std::string &reply_json) {
    reply_json.clear();
    std::string text;
    if (!canonical_args(args, text)) {
        return BUS_STATUS_INVALID_ARGUMENT;
    }
    return exchange(socket_path, timeout_ms, encode_call(object, method, text), reply_json);
}

bool bus_reachable(const char *socket_path, int timeout_ms) {
    int fd = connect_bus(socket_path, timeout_ms);
    if (fd < 0) {
        return false;
    }
    close(fd);
    return true;
}

int bus_list(const char *socket_path, const char *path, int timeout_ms, std::string &reply_json) {
    return exchange(socket_path, timeout_ms, encode_list(path), reply_json);
}

int bus_send(const char *socket_path, const char *type, const char *message, int timeout_ms) {
    std::string text;
    if (!canonical_args(message, text)) {
        return BUS_STATUS_INVALID_ARGUMENT;
    }
    std::string reply_json;
    return exchange(socket_path, timeout_ms, encode_send(type, text), reply_json);
}
