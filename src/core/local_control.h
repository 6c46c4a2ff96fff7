// Local control messages: dispatch of one message received on the local control socket.
#pragma once

#include <sys/un.h>

#include <cstddef>
#include <cstdint>

// Carries out one local control message of len bytes (fields past len read as zero) from the
// sender at from (its path is the answer path of the neighbor-info request). Returns 0.
int handle_recvmsg(const uint8_t *msg, size_t len, const sockaddr_un *from);
