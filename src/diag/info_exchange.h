// tarn-info's exchange with the daemon: local operation 1 from a reply socket of its own, and
// the check that the daemon is alive.
#pragma once

#include <cstdint>
#include <vector>

#include "diag/info_string.h"

// The root-only directory of the daemon's socket and of tarn-info's own files.
constexpr const char *INFO_RUN_DIR = "/tmp/socket";
// The daemon's socket name inside that directory.
constexpr const char *INFO_DAEMON_SOCKET = "tarn_socket";
// How long one exchange waits for the answer, leaving room within the 2 s a failing call has.
constexpr int INFO_ANSWER_WAIT_MS = 1500;

// Whether a daemon is bound at dir's daemon socket: 0 when a connect of a separate, unbound
// datagram socket succeeds, else why not (ECONNREFUSED or ENOENT: no daemon; EACCES: not
// root). Nothing is sent.
int info_daemon_probe(const info_string &dir);

// Sends operation 1 from the socket dir/tarn_info.<pid> (removed again on return, a stale one of
// the same pid taken over) and waits up to wait_ms for the answer, which is stored whole.
// Returns false with a message in error on failure or when interrupted.
bool info_exchange(const info_string &dir, int wait_ms, std::vector<uint8_t> &answer,
                   info_string &error);

// Makes SIGINT, SIGTERM and SIGHUP interrupt tarn-info's waits instead of killing it, so that
// every file it created is removed on the way out.
void info_catch_signals();
bool info_interrupted();
