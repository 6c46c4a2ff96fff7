// The main thread's loop: runs until SIGINT or SIGTERM.
#pragma once

// Blocks SIGINT and SIGTERM in the calling thread; threads created afterwards inherit the mask,
// so only the main loop takes these signals.
void block_stop_signals();

// Waits until SIGINT or SIGTERM arrives.
void run_main_loop();
