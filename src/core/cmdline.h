// The command line: client sub-commands and daemon options.
#pragma once

#include <cstdint>

enum class cmdline_outcome {
    run_daemon,  // options parsed (or none given): start the daemon
    exit_now,    // usage, a refused value or an ignored sub-command: exit with exit_status
    client,      // send one request to the running daemon, then exit 0
};

enum class client_request {
    set_rssi,
    set_version,
    set_count,
    get_rssi,
    static_update,
    show,
};

struct cmdline_decision {
    cmdline_outcome outcome;
    int exit_status;         // for exit_now
    client_request request;  // for client
    uint8_t value;           // argument of the set requests, show_kind of show
    bool had_arguments;      // false when the command line was the program name alone
};

// Reads the command line. Settings given on it (version, rssi_min, max_ngbr_num, tarn_debug)
// are stored into the globals as they are read, numbers cut to 8 bits as atoi gives them;
// messages (usage, refused values) are printed here. Nothing is sent and nothing exits.
cmdline_decision parse_cmdline(int argc, char **argv);

// The daemon's entry to the command line: returns 1 when there is no argument at all, 0 when the
// daemon options have been parsed; for a client sub-command, -h or a refused value it carries the
// request out and ends the process.
int parse_args(int argc, char **argv);
