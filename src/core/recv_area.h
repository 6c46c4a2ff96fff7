// What the receive thread keeps between datagrams: the decode area of nbcp datagrams and the
// record of which of its lines the last decode wrote, and the clearing of the shared receive
// buffer. Both read as zero wherever the current datagram wrote nothing, and clearing costs what
// the previous datagram used, not the size of the buffer or of the largest message kind.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

#include "proto/nbcp.h"

// Lives in recv_thread's frame, on the receive thread's 3 MiB stack.
struct nbcp_decode_area {
    nbcp_msg msg;
    nbcp_touched touched;

    // Zeroes the record and hands its whole pages back to the kernel, which maps them again,
    // zero-filled, only when a datagram writes there.
    nbcp_decode_area();
    nbcp_decode_area(const nbcp_decode_area &) = delete;
    nbcp_decode_area &operator=(const nbcp_decode_area &) = delete;

    // Clears what the previous datagram wrote, then decodes this one (printing its type line).
    int parse(const uint8_t *data, size_t len);

  private:
    // A crafted datagram can write a few bytes into each of a few hundred pages of the record;
    // clearing zeroes them but leaves them resident. Such pages go back to the kernel at the
    // next decode, at most once a second, so that a flood of them costs no fault per datagram.
    void release_spread_pages();

    bool spread_ = false;
    long next_release_ms_ = 0;
};

// One datagram received into buffer; its bytes are cleared again when it goes out of scope, so
// the buffer reads as zero before every receive.
class received_datagram {
  public:
    received_datagram(int sock, void *from, socklen_t *from_len, int kind);
    ~received_datagram();
    received_datagram(const received_datagram &) = delete;
    received_datagram &operator=(const received_datagram &) = delete;

    // Bytes received; 0 when nothing was (an error or an empty datagram).
    size_t size() const { return size_; }

  private:
    size_t size_ = 0;
};
