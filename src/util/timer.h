// Process-wide one-shot timers, fired one at a time by a dedicated thread that sleeps in
// sigwait() for SIGALRM while the real-time interval timer (ITIMER_REAL) is programmed for the
// earliest pending timer. A periodic job re-registers itself from its own callback.
//
// Ownership of callback arguments: the caller keeps its argument unless it hands it to the
// service, which happens with timer_cancel(id, 1) and, for every timer still pending and not
// cancelled, with timer_service_destroy(). The service releases such arguments with free(), so
// an argument that may be handed over must come from malloc() (or be null).
//
// Locking: the service's lock is never held while a callback runs, so callbacks may call
// timer_add() and timer_cancel() and take any other lock of the program. The service never
// takes another lock while holding its own.
#pragma once

#include <cstdint>

// A point on the service's clock; usec always in 0..999999.
struct timer_time {
    int64_t sec;
    int64_t usec;
};

using timer_callback = void (*)(void *);

// One pending timer; allocated by timer_add() and freed by the service.
struct timer_node {
    timer_time expire;  // absolute expiry on the service's clock
    timer_callback callback;
    void *arg;
    uint32_t id;
    uint32_t in_use;     // 1 while the interval timer is programmed for this node
    uint32_t cancelled;  // cancelled while in_use: dropped at its alarm, never called
    timer_node *next;
    timer_node *prev;
};

// What timer_add() returns when nothing was registered.
constexpr uint32_t TIMER_ADD_FAILED = 0xFFFFFFFFu;

// The service's clock: whole seconds of CLOCK_MONOTONIC; usec is always the constant 555.
timer_time timer_now();

// Blocks SIGALRM in the calling thread and starts the timer thread. Call it from the main
// thread before any other thread exists, so that every thread inherits the blocked SIGALRM.
// Call it once, or again only after timer_service_destroy(). Returns 1 when the timer thread
// runs, 0 on failure (nothing is started then).
int timer_service_init();

// Registers callback(arg) to run once, sec seconds plus usec microseconds from now (usec may
// exceed one second). Returns the timer's id (0, 1, 2, ... in order of registration), or
// TIMER_ADD_FAILED when callback is null, either delay is negative, both delays are 0 or memory
// is exhausted.
uint32_t timer_add(int64_t sec, int64_t usec, timer_callback callback, void *arg);

// Cancels a pending timer; with free_arg non-zero its argument is released with free(). An
// unknown id (including a timer that already fired) is ignored.
void timer_cancel(uint32_t id, int free_arg);

// Prints the pending timers, earliest first, to standard output.
void timer_dump();

// Stops the timer thread and frees every pending timer. Only after timer_service_init()
// returned 1, and never from a callback (it waits for the timer thread to end).
void timer_service_destroy();

// Writes the wall-clock time into /tmp/echo_time through the shell (diagnostic).
void echo_time();
