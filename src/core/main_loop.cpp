#include "core/main_loop.h"

#include <pthread.h>
#include <signal.h>

namespace {

sigset_t stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

void block_stop_signals() {
    sigset_t set = stop_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void run_main_loop() {
    sigset_t set = stop_signals();
    int signal_number = 0;
    while (sigwait(&set, &signal_number) != 0) {
    }
}
