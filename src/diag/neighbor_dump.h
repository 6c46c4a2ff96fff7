// Neighbor-list answers of the daemon: the neighbor table and the static neighbors, encoded as
// one list datagram and sent to a local socket path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "neighbor/ap_info.h"

// Encodes the table (walker order) and then the static neighbors, and sends the list to path.
// Takes ngb_lock for the walk, then stngbr_lock for the static copy, never both at once.
void neighbor_aps_send(const char *path, int type);

// Copies the static neighbors (at most STATIC_NGBR_MAX, list order) into array, keeping only
// ip, ip6, qv_ip, mac, state, version, name and cluster_id; every other field of the copied
// records is zero. Takes stngbr_lock. Returns the number copied.
int static_aps_collect(ap_info *array);

// Encodes the static neighbors alone and sends the list to path.
void static_aps_send(const char *path, int type);

// A neighbor list being encoded into one datagram. Entries that would not leave room for the
// end of the list are refused, so the buffer never overflows whatever the table holds.
class neighbor_list_writer {
  public:
    explicit neighbor_list_writer(int type);
    // false (nothing written) when the entry might not fit.
    bool add(const ap_info &entry);
    // Appends the end of the list; returns the encoded datagram.
    const std::vector<uint8_t> &finish();
    size_t entries() const { return entries_; }
    size_t refused() const { return refused_; }

  private:
    std::vector<uint8_t> out_;
    size_t len_ = 0;
    size_t entries_ = 0;
    size_t refused_ = 0;
};
