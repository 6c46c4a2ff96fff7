#include "ubus/bus_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ubus/bus_status.h"
#include "ubus/bus_wire.h"
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

void bus_serve_connection(int fd, const bus_service &service) {
    std::string payload;
    int read =
        wire_read_frame(fd, BUS_REQUEST_MAX, payload, wire_now_ms() + BUS_SERVER_IO_TIMEOUT_MS);
    int status = BUS_STATUS_INVALID_ARGUMENT;
    std::string reply_json;
    if (read == WIRE_OK) {
        status = bus_dispatch(service, payload, reply_json);
    } else if (read != WIRE_TOO_LARGE) {
        return;  // nobody to answer, or a client too slow to be waited for
    }
    wire_write_frame(fd, encode_reply(status, reply_json),
                     wire_now_ms() + BUS_SERVER_IO_TIMEOUT_MS);
}

int bus_server_run(int listen_fd, int stop_fd, const bus_service &service) {
    pollfd watched[2] = {{listen_fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
    for (;;) {
        int ready = poll(watched, 2, -1);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            TARN_ERR("%s: poll failed: %s\n", "bus_server_run", strerror(errno));
            return -1;
        }
        if (watched[1].revents != 0) {
            return 0;
        }
        if ((watched[0].revents & (POLLERR | POLLNVAL)) != 0) {
            TARN_ERR("%s: listening socket failed\n", "bus_server_run");
            return -1;
        }
        if ((watched[0].revents & POLLIN) == 0) {
            continue;
        }
        int connection = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (connection < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // The pending client stays queued; pause instead of spinning on it.
                poll(&watched[1], 1, BUS_ACCEPT_RETRY_MS);
            }
            continue;
        }
        bus_serve_connection(connection, service);
        close(connection);
    }
}
