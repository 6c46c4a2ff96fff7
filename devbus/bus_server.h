// The embedded bus: serves one object and its event listeners on a local stream socket, for
// systems without the platform's ubus (development machines, the lab's virtual APs). The thread
// that runs bus_server_run serves its connections side by side; their handlers run on it one
// at a time, each as soon as its request is whole.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "ubus/methods.h"

// Under /tmp because every virtual AP of the lab has a /tmp of its own, so several daemons on
// one host never share a bus socket.
constexpr const char *TARN_BUS_SOCKET_PATH = "/tmp/socket/tarn_bus";

// How long one connection may take to deliver its request and to take its reply; a slower one
// is closed. It holds a slot meanwhile, never the server.
constexpr int BUS_SERVER_IO_TIMEOUT_MS = 1000;
// Connections served at once; more wait in the listening backlog.
constexpr size_t BUS_SERVER_MAX_CONNECTIONS = 64;

struct bus_event_listener {
    const char *type;  // exact event name
    event_handler_fn handler;
};

struct bus_service {
    const char *object;
    const method_entry *methods;
    size_t method_count;
    const bus_event_listener *listeners;
    size_t listener_count;
};

// Creates the listening socket at path (a stale socket file there is replaced; a missing parent
// directory is created). Returns the descriptor, or -1.
int bus_server_open(const char *path);

// Handles one request payload: returns the bus status, and in reply_json the reply's JSON text
// when the method produced one.
int bus_dispatch(const bus_service &service, std::string_view payload, std::string &reply_json);

// Serves connections on listen_fd until stop_fd becomes readable (it is not read), then closes
// every open connection at once. Returns 0 then, or -1 when waiting fails.
int bus_server_run(int listen_fd, int stop_fd, const bus_service &service);
