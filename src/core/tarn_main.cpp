#include "core/tarn_main.h"

#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "core/cmdline.h"
#include "core/settings.h"
#include "core/sockets.h"
#include "diag/show_client.h"
#include "neighbor/driver_msg.h"
#include "neighbor/neighbor_table.h"
#include "neighbor/periodic_jobs.h"
#include "static/client_requests.h"
#include "static/static_store.h"
#include "sysinfo/self_ap.h"
#include "sysinfo/sysinfo.h"
#include "ubus/ubus_service.h"
#include "util/log.h"
#include "util/timer.h"

namespace {

constexpr size_t THREAD_STACK_SIZE = 3 * 1024 * 1024;

// Blocks SIGINT and SIGTERM in the calling thread; threads created afterwards inherit the mask,
// so only the bus loop of the main thread takes these signals.
void block_stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void run_client_request(const cmdline_decision &decision) {
    switch (decision.request) {
        case client_request::set_rssi:
            tarn_set_rssi(decision.value);
            break;
        case client_request::set_version:
            tarn_set_version(decision.value);
            break;
        case client_request::set_count:
            tarn_set_dynamic_ngbr_num(decision.value);
            break;
        case client_request::get_rssi:
            tarn_get_rssi();
            break;
        case client_request::static_update:
            tarn_update_static();
            break;
        case client_request::show:
            show_ngbrs_list(decision.value);
            break;
    }
}

}  // namespace

int parse_args(int argc, char **argv) {
    cmdline_decision decision = parse_cmdline(argc, argv);
    switch (decision.outcome) {
        case cmdline_outcome::run_daemon:
            return decision.had_arguments ? 0 : 1;
        case cmdline_outcome::exit_now:
            exit(decision.exit_status);
        case cmdline_outcome::client:
            run_client_request(decision);
            exit(0);
    }
    return 0;
}

int create_thread(pthread_t *thread, void *(*start)(void *), void *arg) {
    if (thread == nullptr) {
        return 0;
    }
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        return 0;
    }
    int ok = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED) == 0 &&
             pthread_attr_setstacksize(&attr, THREAD_STACK_SIZE) == 0 &&
             pthread_create(thread, &attr, start, arg) == 0;
    pthread_attr_destroy(&attr);
    return ok ? 1 : 0;
}

void init_timers() {
    // A failed start is not fatal: the daemon still serves, only the periodic jobs never fire.
    timer_service_init();
    // Each job runs once now and then re-arms itself with its period.
    start_periodic_jobs();
}

void tarn_init() {
    {
        std::lock_guard<std::mutex> guard(self_ap_lock);
        memset(&self_ap, 0, sizeof self_ap);
    }
    TARN_DBG("tarn init\n");
    // The mutexes are statically initialised, usable before this point (the static neighbor
    // file is loaded before tarn_init).
    neighbor_table_init();
    uint8_t radiocnt = static_cast<uint8_t>(get_radio_count());
    {
        std::lock_guard<std::mutex> guard(self_ap_lock);
        self_ap.info.radiocnt = radiocnt;
    }
    tarn_socket_init();
    tarn_socket6_init();
    get_mac();
    get_ipaddr();
    init_timers();
    {
        std::lock_guard<std::mutex> guard(self_ap_lock);
        self_ap.info.mac = self_ap.mac;
    }
    Get_Ap_Name(self_ap.info.name);
    Get_Ap_Version(self_ap.info.version);
    Get_QV_ipaddr();
    if (rssi_min != RSSI_MIN_DEFAULT) {
        netlink_set_rssi(rssi_min);
    }
}

int tarn_main(int argc, char **argv) {
    umask(0);
    parse_args(argc, argv);
    load_static_neighbor();  // a missing or bad file does not stop the start-up
    // The main loop takes SIGINT and SIGTERM; no other thread may.
    block_stop_signals();
    tarn_init();
    TARN_DBG("init ok!\n");

    pthread_t receiver;
    if (create_thread(&receiver, recv_thread, nullptr) == 0) {
        TARN_ERR("%s: Create receive thread failed\n", "main");
        exit(1);
    }
    if (ubus_init() < 0) {
        TARN_ERR("ubus init failed.\n");
        return -1;
    }
    ubus_loop_run();
    ubus_teardown();
    return 0;
}
