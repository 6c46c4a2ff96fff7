// Process entry: client or daemon.
#pragma once

#include <pthread.h>

int tarn_main(int argc, char **argv);

// The daemon's initialisation sequence; exits the process when a socket cannot be opened.
void tarn_init();

// Starts the timer service and the four periodic jobs.
void init_timers();

// Creates a detached thread with a 3 MiB stack. Returns 1 on success, 0 on failure or when
// thread is null.
int create_thread(pthread_t *thread, void *(*start)(void *), void *arg);
