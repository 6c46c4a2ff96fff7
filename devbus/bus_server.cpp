#include "devbus/bus_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "devbus/bus_status.h"
#include "devbus/bus_wire.h"
#include "util/log.h"

namespace {

constexpr int BUS_LISTEN_BACKLOG = 16;
constexpr int BUS_ACCEPT_RETRY_MS = 100;

bool make_address(const char *path, sockaddr_un &addr) {
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path == nullptr || path[0] == '\0' || strlen(path) >= sizeof addr.sun_path) {
        return false;
    }
    strcpy(addr.sun_path, path);
    return true;
}

void make_parent_directory(const char *path) {
    std::string parent(path);
    size_t slash = parent.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        return;
    }
    parent.resize(slash);
    if (mkdir(parent.c_str(), 0755) < 0 && errno != EEXIST) {
        TARN_ERR("%s: mkdir %s failed: %s\n", "bus_server_open", parent.c_str(), strerror(errno));
    }
}

int dispatch_call(const bus_service &service, const bus_request &request, std::string &reply_json) {
    if (request.name != service.object) {
        return BUS_STATUS_NOT_FOUND;
    }
    const method_entry *entry =
        find_method(service.methods, service.method_count, request.method.c_str());
    if (entry == nullptr) {
        return BUS_STATUS_METHOD_NOT_FOUND;
    }
    json_ref arguments = parse_json_object(request.json);
    if (!arguments) {
        return BUS_STATUS_INVALID_ARGUMENT;
    }
    json_ref reply;
    int status = entry->handler(entry->name, arguments.get(), reply);
    if (status == 0 && reply) {
        reply_json = json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PLAIN);
    }
    return status;
}

int dispatch_send(const bus_service &service, const bus_request &request) {
    json_ref message = parse_json_object(request.json);
    if (request.name.empty() || !message) {
        return BUS_STATUS_INVALID_ARGUMENT;
    }
    // As on ubus, an event nobody listens to is delivered to nobody and still succeeds.
    for (size_t i = 0; i < service.listener_count; ++i) {
        if (request.name == service.listeners[i].type) {
            service.listeners[i].handler(request.name.c_str(), message.get());
        }
    }
    return BUS_STATUS_OK;
}

// {object: {method: {argument: type name}}}, as the ubus command lists signatures.
int dispatch_list(const bus_service &service, const bus_request &request, std::string &reply_json) {
    if (!request.name.empty() && request.name != service.object) {
        return BUS_STATUS_NOT_FOUND;
    }
    json_ref objects(json_object_new_object());
    json_object *methods = json_object_new_object();
    json_object_object_add(objects.get(), service.object, methods);
    for (size_t i = 0; i < service.method_count; ++i) {
        const method_entry &entry = service.methods[i];
        json_object *signature = json_object_new_object();
        for (size_t j = 0; j < entry.policy_count; ++j) {
            json_object_object_add(signature, entry.policy[j].name,
                                   json_object_new_string(arg_type_name(entry.policy[j].type)));
        }
        json_object_object_add(methods, entry.name, signature);
    }
    reply_json = json_object_to_json_string_ext(objects.get(), JSON_C_TO_STRING_PLAIN);
    return BUS_STATUS_OK;
}

}  // namespace

int bus_server_open(const char *path) {
    sockaddr_un addr;
    if (!make_address(path, addr)) {
        TARN_ERR("%s: bad socket path\n", "bus_server_open");
        return -1;
    }
    make_parent_directory(path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        TARN_ERR("%s: socket failed: %s\n", "bus_server_open", strerror(errno));
        return -1;
    }
    unlink(path);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0 ||
        listen(fd, BUS_LISTEN_BACKLOG) < 0) {
        TARN_ERR("%s: bind %s failed: %s\n", "bus_server_open", path, strerror(errno));
        close(fd);
        return -1;
    }
    return fd;
}

int bus_dispatch(const bus_service &service, std::string_view payload, std::string &reply_json) {
    reply_json.clear();
    bus_request request;
    if (!decode_request(payload, request)) {
        return BUS_STATUS_INVALID_COMMAND;
    }
    if (request.kind == "call") {
        return dispatch_call(service, request, reply_json);
    }
    if (request.kind == "list") {
        return dispatch_list(service, request, reply_json);
    }
    return dispatch_send(service, request);
}

namespace {

// One client: its request as it arrives, then its reply as the socket takes it.
struct bus_connection {
    bus_connection(int socket, int64_t deadline) : fd(socket), deadline_ms(deadline) {}

    int fd;
    int64_t deadline_ms;
    frame_collector request{BUS_REQUEST_MAX};
    std::string reply;  // the whole reply frame once the request is handled
    size_t sent = 0;
};

enum class step { keep, done };

void handle_request(bus_connection &c, const bus_service &service) {
    int status = BUS_STATUS_INVALID_ARGUMENT;  // a refused (too large) frame
    std::string reply_json;
    if (c.request.status() == frame_collector::COMPLETE) {
        status = bus_dispatch(service, c.request.payload(), reply_json);
    }
    c.reply = wire_frame(encode_reply(status, reply_json));
    c.deadline_ms = wire_now_ms() + BUS_SERVER_IO_TIMEOUT_MS;
}

step write_some(bus_connection &c) {
    while (c.sent < c.reply.size()) {
        ssize_t n = send(c.fd, c.reply.data() + c.sent, c.reply.size() - c.sent,
                         MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            c.sent += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? step::keep : step::done;
        }
    }
    return step::done;  // one request per connection: the reply ends it
}

step read_some(bus_connection &c, const bus_service &service) {
    char chunk[4096];
    ssize_t n = recv(c.fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        return step::keep;
    }
    if (n <= 0) {
        return step::done;  // closed before its request was whole: nobody to answer
    }
    c.request.feed(std::string_view(chunk, static_cast<size_t>(n)));
    if (c.request.status() == frame_collector::COLLECTING) {
        return step::keep;
    }
    handle_request(c, service);
    return write_some(c);
}

// Serves whatever a connection's socket is ready for; done when it is to be closed.
step serve(bus_connection &c, short revents, const bus_service &service) {
    if (!c.reply.empty()) {
        return (revents & (POLLOUT | POLLERR | POLLHUP)) != 0 ? write_some(c) : step::keep;
    }
    return (revents & (POLLIN | POLLERR | POLLHUP)) != 0 ? read_some(c, service) : step::keep;
}

// Milliseconds until the earliest deadline, or -1 (wait without limit) when nothing is open.
int poll_timeout(const std::vector<bus_connection> &open) {
    if (open.empty()) {
        return -1;
    }
    int64_t earliest = open.front().deadline_ms;
    for (const bus_connection &c : open) {
        earliest = std::min(earliest, c.deadline_ms);
    }
    return static_cast<int>(std::clamp<int64_t>(earliest - wire_now_ms(), 0, INT32_MAX));
}

void accept_one(int listen_fd, int stop_fd, std::vector<bus_connection> &open) {
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) {
        open.emplace_back(fd, wire_now_ms() + BUS_SERVER_IO_TIMEOUT_MS);
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // The pending client stays queued; pause instead of spinning on it.
        pollfd stop{stop_fd, POLLIN, 0};
        poll(&stop, 1, BUS_ACCEPT_RETRY_MS);
    }
}

void close_all(std::vector<bus_connection> &open) {
    for (bus_connection &c : open) {
        close(c.fd);
    }
    open.clear();
}

}  // namespace

int bus_server_run(int listen_fd, int stop_fd, const bus_service &service) {
    std::vector<bus_connection> open;
    std::vector<pollfd> watched;
    for (;;) {
        // While the table is full the listening socket is not watched: new clients wait in
        // its backlog until a slot frees, at the latest when a deadline passes.
        short accepting = open.size() < BUS_SERVER_MAX_CONNECTIONS ? POLLIN : 0;
        watched.assign({{stop_fd, POLLIN, 0}, {listen_fd, accepting, 0}});
        for (const bus_connection &c : open) {
            watched.push_back({c.fd, static_cast<short>(c.reply.empty() ? POLLIN : POLLOUT), 0});
        }
        int ready = poll(watched.data(), watched.size(), poll_timeout(open));
        if (ready < 0 && errno != EINTR) {
            TARN_ERR("%s: poll failed: %s\n", "bus_server_run", strerror(errno));
            close_all(open);
            return -1;
        }
        if (ready > 0 && watched[0].revents != 0) {
            close_all(open);
            return 0;
        }
        if ((watched[1].revents & (POLLERR | POLLNVAL)) != 0) {
            TARN_ERR("%s: listening socket failed\n", "bus_server_run");
            close_all(open);
            return -1;
        }
        int64_t now = wire_now_ms();
        size_t kept = 0;
        for (size_t i = 0; i < open.size(); ++i) {
            bus_connection &c = open[i];
            short revents = ready > 0 ? watched[i + 2].revents : 0;
            if (serve(c, revents, service) == step::done || now >= c.deadline_ms) {
                close(c.fd);  // done, or too slow to be waited for any longer
            } else {
                if (kept != i) {  // a string moved onto itself may come out empty
                    open[kept] = std::move(c);
                }
                ++kept;
            }
        }
        open.erase(open.begin() + static_cast<std::ptrdiff_t>(kept), open.end());
        if ((watched[1].revents & POLLIN) != 0) {
            accept_one(listen_fd, stop_fd, open);
        }
    }
}
