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

    // Makes the record read as zero without writing it: its whole pages go back to the kernel,
    // which maps them again, zero-filled, only where a datagram writes. Start-up therefore
    // leaves the record's 1.7 MiB untouched and the process's peak where its resident size is.
    nbcp_decode_area();
    nbcp_decode_area(const nbcp_decode_area &) = delete;
    nbcp_decode_area &operator=(const nbcp_decode_area &) = delete;

    // Clears whatever a decode left uncleared, then decodes this datagram (printing its type
    // line).
    int parse(const uint8_t *data, size_t len);

    // Called once the decoded datagram has been handled: clears what it wrote and, when that
    // was spread over many pages (a crafted datagram can write a few bytes into each of a few
    // hundred), hands those pages back at once, so memory is back where it was before the
    // datagram without waiting for another one.
    void finish();
};

// Handles the datagram in the area and finishes it when it goes out of scope.
class decoded_datagram {
  public:
    explicit decoded_datagram(nbcp_decode_area &area) : area_(area) {}
    ~decoded_datagram() { area_.finish(); }
    decoded_datagram(const decoded_datagram &) = delete;
    decoded_datagram &operator=(const decoded_datagram &) = delete;

  private:
    nbcp_decode_area &area_;
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
