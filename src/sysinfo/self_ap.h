// This AP's own description and uplink addresses.
//
// self_ap is written by the main thread at start-up and by the timer thread (learning, IP
// detection), and read by the receive and bus threads. Every read and write of it goes through
// self_ap_lock, a leaf lock: no other lock is taken while it is held, and it is never held
// while a shell command runs or a message is sent. Readers copy the record out with
// self_ap_snapshot() and work on the copy; the gatherers (sysinfo.h) gather first and then
// store through the self_ap_store_* functions, which hold the lock for the store alone.
//
// Lock order of the process: ngb_lock or stngbr_lock (never both together) may be held while
// popen_lock or self_ap_lock is taken, never the other way round. popen_lock and self_ap_lock
// are never held together and nothing is locked under either.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "neighbor/ap_info.h"

extern neighbor_ap self_ap;
extern std::mutex self_ap_lock;

// A consistent copy of self_ap.
neighbor_ap self_ap_snapshot();

// Uplink IPv4 address, netmask and broadcast address, network byte order (get_ipaddr).
extern std::atomic<uint32_t> ap_ip;
extern std::atomic<uint32_t> pvc_mask;
extern std::atomic<uint32_t> pvc_brast;
