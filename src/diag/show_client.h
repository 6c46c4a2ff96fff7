// The client side of the show commands.
#pragma once

// Which show table a client asks for.
enum show_kind : int {
    SHOW_WIRELESS = 0,
    SHOW_CLUSTER = 1,
    SHOW_UBUS = 2,
    SHOW_NEIGHBOR = 3,
};

// How long a show client waits for the daemon's list.
constexpr int SHOW_TIMEOUT_S = 15;

// Asks the running daemon for its neighbor list, prints the table of kind (a show_kind) and
// ends the process with status 0; returns (status 0 follows in the caller) when no answer came
// within SHOW_TIMEOUT_S, printing nothing. Ends the process with status 1 when the reply socket
// cannot be bound.
void show_ngbrs_list(int kind);
