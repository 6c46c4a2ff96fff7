// Signals that end the daemon.
#pragma once

// Blocks SIGINT and SIGTERM in the calling thread; threads created afterwards inherit the mask,
// so only the bus loop of the main thread takes these signals.
void block_stop_signals();
