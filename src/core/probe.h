// Probes (ndrp) to neighbor APs, over IPv4 or IPv6.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "neighbor/ap_info.h"

// Probe modes: 0 broadcast within the subnet, 1 always broadcast, 2 a dynamic neighbor,
// 3 a static neighbor (or an explicitly named address).
enum ndrp_mode : int {
    NDRP_MODE_SUBNET_BROADCAST = 0,
    NDRP_MODE_BROADCAST = 1,
    NDRP_MODE_DYNAMIC = 2,
    NDRP_MODE_STATIC = 3,
};

// Probes target over IPv4 (target->ip, network order) when it has an address other than
// 192.168.1.254, else over IPv6 when it has one, else not at all. Returns -1 for a null target,
// else 0.
int send_ndrp(const ap_info *target, int mode);

// Sends one ndrp to the IPv4 address (network order) chosen by mode; returns sendto's result.
ssize_t send_ndrp_by_ip4(uint32_t target, int mode);

// Sends one ndrp to the IPv6 address.
void send_ndrp_by_ip6(const ip6_addr &target, int mode);
