// AF_UNIX datagram helpers shared by the daemon and its command-line client.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

// Address kinds of RecvMsg: the length of the source-address buffer handed to recvfrom.
enum recv_addr_kind : int {
    RECV_ADDR_LOCAL = 0,    // sockaddr_un, 110 bytes (any value other than 1..3)
    RECV_ADDR_IPV4 = 1,     // sockaddr_in, 16 bytes
    RECV_ADDR_IPV6 = 2,     // sockaddr_in6, 28 bytes
    RECV_ADDR_NETLINK = 3,  // sockaddr_nl, 12 bytes
};

// Length handed to recvfrom for an address kind.
socklen_t recv_addr_len(int kind);

// Creates an AF_UNIX datagram socket bound at path (an old file there is removed first).
// Stores the descriptor through fd as soon as it exists. Returns 1 on success, 0 on failure.
int InitSocket(int *fd, const char *path);

// Sends one datagram of len bytes to path from a fresh unbound socket; waits while the
// receiver's queue is full. For clients, whose one request must reach the daemon.
void send_local(const void *msg, size_t len, const char *path);

// As send_local, but never waits: a receiver whose queue is full loses the datagram (the failed
// send is logged). The daemon sends with this, so no local process that stops reading can
// stall the thread that answers it.
void send_local_nowait(const void *msg, size_t len, const char *path);

// Receives one datagram; returns recvfrom's result, or 0 when a pointer argument is null.
ssize_t RecvMsg(int fd, void *buf, size_t size, void *from, socklen_t *fromlen, int kind);
