// The static update pass: mark every static neighbor offline and probe it again.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "neighbor/ap_info.h"

// Marks every static neighbor static offline (4) and probes it: an ndrp of mode 3, or in
// cluster mode a cluster query to the platform's cluster process. Takes stngbr_lock.
void update_static_neighbor();

// The cluster query about one static neighbor, 256 bytes:
//   bytes 0..5     the neighbor's MAC
//   bytes 6..155   the neighbor's description after its MAC (tenantId to the end of ap_info,
//                  150 bytes) exactly as the node holds it in memory: host byte order, ip and
//                  qv_ip and pvc_ip as the node stores them (network order), texts zero-padded
//   bytes 156..255 zero
constexpr size_t CLUSTER_QUERY_LEN = 256;
constexpr size_t CLUSTER_QUERY_INFO_OFFSET = 6;
constexpr size_t CLUSTER_QUERY_INFO_LEN = sizeof(ap_info) - offsetof(ap_info, tenantId);
static_assert(CLUSTER_QUERY_INFO_LEN == 150, "the description after the MAC is 150 bytes");
static_assert(CLUSTER_QUERY_INFO_OFFSET + CLUSTER_QUERY_INFO_LEN <= CLUSTER_QUERY_LEN,
              "the description fits the query");
using cluster_query = std::array<uint8_t, CLUSTER_QUERY_LEN>;

cluster_query cluster_query_build(const ap_info &node);

// Sends the cluster query about one static neighbor to "/tmp/socket/static_neighbor_dump";
// nothing is waited for.
void get_cluster_list(const ap_info &node);
