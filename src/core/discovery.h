// The discovery exchange: answers (ndsp) to probes, and what a received probe or answer does.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

// Sends this AP's self-description through sock to dest, an AF_INET or AF_INET6 address whose
// port is rewritten in place to the nbcp port (answers never go back to the probe's source
// port). A probe of mode 3 (static) is answered with mode 3 and state 3 and leaves this AP's
// own state alone; any other mode is answered with mode 0 and the WLAN-derived state, which is
// also stored as this AP's state. Returns sendto's result, or -1 (nothing sent) for a null
// address or another family.
ssize_t send_ndsp(int sock, sockaddr *dest, int mode);
