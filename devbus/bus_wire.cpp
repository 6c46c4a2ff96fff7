#include "devbus/bus_wire.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

int64_t wire_now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

namespace {

// Waits until fd is ready for events; WIRE_OK, WIRE_TIMEOUT or WIRE_ERROR.
int wait_ready(int fd, short events, int64_t deadline_ms) {
    for (;;) {
        int64_t left = deadline_ms - wire_now_ms();
        if (left <= 0) {
            return WIRE_TIMEOUT;
        }
        pollfd entry{fd, events, 0};
        int ready = poll(&entry, 1, static_cast<int>(left > INT32_MAX ? INT32_MAX : left));
        if (ready > 0) {
            return WIRE_OK;  // errors and hang-ups show in the following send or recv
        }
        if (ready < 0 && errno != EINTR) {
            return WIRE_ERROR;
        }
    }
}

int write_all(int fd, const char *data, size_t size, int64_t deadline_ms) {
    while (size > 0) {
        ssize_t sent = send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            data += sent;
            size -= static_cast<size_t>(sent);
            continue;
        }
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            int waited = wait_ready(fd, POLLOUT, deadline_ms);
            if (waited != WIRE_OK) {
                return waited;
            }
            continue;
        }
        return (errno == EPIPE || errno == ECONNRESET) ? WIRE_CLOSED : WIRE_ERROR;
    }
    return WIRE_OK;
}

int read_all(int fd, char *data, size_t size, int64_t deadline_ms) {
    while (size > 0) {
        ssize_t got = recv(fd, data, size, MSG_DONTWAIT);
        if (got > 0) {
            data += got;
            size -= static_cast<size_t>(got);
            continue;
        }
        if (got == 0) {
            return WIRE_CLOSED;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            int waited = wait_ready(fd, POLLIN, deadline_ms);
            if (waited != WIRE_OK) {
                return waited;
            }
            continue;
        }
        return errno == ECONNRESET ? WIRE_CLOSED : WIRE_ERROR;
    }
    return WIRE_OK;
}

void put_u32(std::string &out, uint32_t value) {
    uint32_t wire = htonl(value);
    out.append(reinterpret_cast<const char *>(&wire), sizeof wire);
}

uint32_t get_u32(const char *data) {
    uint32_t wire;
    memcpy(&wire, data, sizeof wire);
    return ntohl(wire);
}

// Cuts the text before the next NUL off rest; false when there is no NUL.
bool take_field(std::string_view &rest, std::string &field) {
    size_t end = rest.find('\0');
    if (end == std::string_view::npos) {
        return false;
    }
    field.assign(rest.substr(0, end));
    rest.remove_prefix(end + 1);
    return true;
}

}  // namespace

std::string wire_frame(std::string_view payload) {
    std::string frame;
    frame.reserve(4 + payload.size());
    put_u32(frame, static_cast<uint32_t>(payload.size()));
    return frame.append(payload);
}

int wire_write_frame(int fd, std::string_view payload, int64_t deadline_ms) {
    if (payload.size() > UINT32_MAX) {
        return WIRE_TOO_LARGE;
    }
    std::string frame = wire_frame(payload);
    return write_all(fd, frame.data(), frame.size(), deadline_ms);
}

int wire_read_frame(int fd, size_t max, std::string &payload, int64_t deadline_ms) {
    char header[4];
    int result = read_all(fd, header, sizeof header, deadline_ms);
    if (result != WIRE_OK) {
        return result;
    }
    uint32_t length = get_u32(header);
    if (length > max) {
        return WIRE_TOO_LARGE;
    }
    payload.assign(length, '\0');
    return read_all(fd, payload.data(), length, deadline_ms);
}

size_t frame_collector::feed(std::string_view bytes) {
    size_t taken = 0;
    if (state_ == COLLECTING && header_.size() < 4) {
        taken = std::min(bytes.size(), 4 - header_.size());
        header_.append(bytes.substr(0, taken));
        if (header_.size() < 4) {
            return taken;
        }
        length_ = get_u32(header_.data());
        if (length_ > max_) {
            state_ = TOO_LARGE;
            return taken;
        }
        payload_.reserve(length_);
    }
    if (state_ == COLLECTING) {
        size_t more = std::min(bytes.size() - taken, length_ - payload_.size());
        payload_.append(bytes.substr(taken, more));
        taken += more;
        if (payload_.size() == length_) {
            state_ = COMPLETE;
        }
    }
    return taken;
}

std::string encode_call(std::string_view object, std::string_view method, std::string_view json) {
    std::string payload("call");
    payload.push_back('\0');
    payload.append(object).push_back('\0');
    payload.append(method).push_back('\0');
    payload.append(json);
    return payload;
}

std::string encode_send(std::string_view type, std::string_view json) {
    std::string payload("send");
    payload.push_back('\0');
    payload.append(type).push_back('\0');
    payload.append(json);
    return payload;
}

std::string encode_list(std::string_view path) {
    std::string payload("list");
    payload.push_back('\0');
    payload.append(path).push_back('\0');
    return payload;
}

bool decode_request(std::string_view payload, bus_request &request) {
    request = bus_request{};
    if (!take_field(payload, request.kind) || !take_field(payload, request.name)) {
        return false;
    }
    if (request.kind == "call") {
        if (!take_field(payload, request.method)) {
            return false;
        }
    } else if (request.kind == "list") {
        return payload.empty();
    } else if (request.kind != "send") {
        return false;
    }
    request.json.assign(payload);
    return true;
}

std::string encode_reply(int32_t status, std::string_view json) {
    std::string payload;
    put_u32(payload, static_cast<uint32_t>(status));
    payload.append(json);
    return payload;
}

bool decode_reply(std::string_view payload, int32_t &status, std::string &json) {
    if (payload.size() < 4) {
        return false;
    }
    status = static_cast<int32_t>(get_u32(payload.data()));
    json.assign(payload.substr(4));
    return true;
}

json_ref parse_json_object(std::string_view text) {
    // json-c reads a NUL as the end of the text; a text with one inside is no single object.
    if (text.find('\0') != std::string_view::npos || text.size() > INT32_MAX) {
        return nullptr;
    }
    json_tokener *tokener = json_tokener_new();
    if (tokener == nullptr) {
        return nullptr;
    }
    json_ref value(json_tokener_parse_ex(tokener, text.data(), static_cast<int>(text.size())));
    bool complete = json_tokener_get_error(tokener) == json_tokener_success;
    size_t used = json_tokener_get_parse_end(tokener);
    json_tokener_free(tokener);
    if (!complete || !json_object_is_type(value.get(), json_type_object)) {
        return nullptr;
    }
    if (text.find_first_not_of(" \t\r\n", used) != std::string_view::npos) {
        return nullptr;
    }
    return value;
}
