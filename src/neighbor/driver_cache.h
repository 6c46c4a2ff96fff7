// Messages from the Wi-Fi driver: the event layouts, the application of its neighbor-cache
// reply to the neighbor table, and the insertion of a newly heard neighbor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "neighbor/ap_info.h"

// Operations of the driver's events (byte 0 of the payload behind the netlink header).
enum drv_event_op : uint8_t {
    DRV_EVENT_AP_HEARD = 1,
    DRV_EVENT_CONFIG_OK = 2,
    DRV_EVENT_CACHE_REPLY = 3,
    DRV_EVENT_AP_DROPPED = 6,
};

// The fixed part of every event. Operation 1 uses all of it, operation 6 only the MAC; in a
// cache reply (operation 3) byte 32, here `rssi`, is the entry count.
struct drv_event {
    uint8_t operation;
    uint8_t unread[3];
    uint32_t ip;  // network byte order
    ip6_addr ip6;
    mac_addr mac;
    uint8_t radioid;
    uint8_t channel;
    uint8_t rssi;
    uint8_t bandwidth;
};
static_assert(offsetof(drv_event, ip) == 4 && offsetof(drv_event, ip6) == 8 &&
                  offsetof(drv_event, mac) == 24 && offsetof(drv_event, radioid) == 30 &&
                  offsetof(drv_event, rssi) == 32 && offsetof(drv_event, bandwidth) == 33,
              "event offsets are fixed by the driver");

constexpr size_t DRV_CACHE_COUNT_OFFSET = 32;
constexpr size_t DRV_CACHE_ENTRIES_OFFSET = 36;

// One neighbor of a cache reply; the bytes named unread carry nothing the daemon uses.
struct drv_cache_entry {
    uint8_t unread1[32];
    mac_addr mac;
    uint8_t unread2[2];
    uint32_t ip;  // network byte order
    ip6_addr ip6;
    radio_info radio[AP_RADIO_MAX];  // radio id, channel, transmit power, RSSI, bandwidth
    uint32_t time;                   // host byte order; the greatest marks the oldest neighbor
    uint8_t unread3[4];
};
static_assert(sizeof(drv_cache_entry) == 88, "the driver's cache entries are 88 bytes");
static_assert(offsetof(drv_cache_entry, mac) == 32 && offsetof(drv_cache_entry, ip) == 40 &&
                  offsetof(drv_cache_entry, ip6) == 44 && offsetof(drv_cache_entry, radio) == 60 &&
                  offsetof(drv_cache_entry, time) == 80,
              "cache entry offsets are fixed by the driver");

// The event at the start of a payload of len bytes; bytes beyond len read as zero.
drv_event drv_event_read(const uint8_t *payload, size_t len);

// Applies a cache reply: of its n entries, those lying wholly inside the payload_len received
// bytes refresh their table entry (addresses, radio facts except transmit power, timestamp) or
// create one, which is then probed. Returns 0.
int neighbor_aps_parse(const uint8_t *payload, uint8_t n, size_t payload_len);

// Inserts a new entry under ngb_lock and returns a copy of its description, which the caller
// probes after the lock is released. When the full table refused it, `entry` stays with the
// caller, who probes it all the same and then releases it.
ap_info neighbor_ap_insert(std::unique_ptr<neighbor_ap> &entry);

// Debug lines describing an operation-1 event.
void neighbor_event_dump(const drv_event &event);
