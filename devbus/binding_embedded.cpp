// The bus service on the embedded bus.
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

#include "devbus/bus_server.h"
#include "ubus/tarn_object.h"
#include "ubus/ubus_service.h"
#include "util/log.h"

namespace {

// The embedded counterpart of the ubus connection: the listening socket and the descriptor
// that reports SIGINT and SIGTERM.
struct embedded_bus_ctx {
    int listen_fd = -1;
    int signal_fd = -1;
};

embedded_bus_ctx bus_ctx;

const bus_event_listener tarn_listeners[] = {{RELOAD_EVENT_TYPE, ubus_reload_event}};

const bus_service tarn_service = {TARN_OBJECT_NAME, tarn_methods, TARN_METHOD_COUNT, tarn_listeners,
                                  1};

void close_descriptor(int &fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

// Start-up blocks SIGINT and SIGTERM in every thread; the loop takes them from a descriptor.
int open_stop_signals() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    return signalfd(-1, &stop, SFD_CLOEXEC);
}

}  // namespace

int ubus_init() {
    bus_ctx.listen_fd = bus_server_open(TARN_BUS_SOCKET_PATH);
    if (bus_ctx.listen_fd < 0) {
        TARN_ERR("%s: Ubus connect faild!\n", "ubus_init");
        return -1;
    }
    bus_ctx.signal_fd = open_stop_signals();
    if (bus_ctx.signal_fd < 0) {
        TARN_ERR("%s: Ubus connect faild!\n", "ubus_init");
        close_descriptor(bus_ctx.listen_fd);
        unlink(TARN_BUS_SOCKET_PATH);
        return -1;
    }
    return 0;
}

void ubus_loop_run() {
    TARN_DBG("ubus init success, uloop run.\n");
    if (bus_ctx.listen_fd < 0 || bus_ctx.signal_fd < 0) {
        return;
    }
    // The platform's loop ignores SIGPIPE while it runs: a write to a closed pipe or socket (the
    // type lines on standard output, a log line to a closed standard error) then fails with
    // EPIPE instead of ending the daemon. This bus does the same, so both builds behave alike.
    struct sigaction ignore {};
    struct sigaction previous {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, &previous);
    bus_server_run(bus_ctx.listen_fd, bus_ctx.signal_fd, tarn_service);
    sigaction(SIGPIPE, &previous, nullptr);
}

void ubus_teardown() {
    if (bus_ctx.listen_fd >= 0) {
        unlink(TARN_BUS_SOCKET_PATH);
    }
    close_descriptor(bus_ctx.listen_fd);
    close_descriptor(bus_ctx.signal_fd);
    TARN_DBG("ubus free success.\n");
}
