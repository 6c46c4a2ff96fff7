// The table of neighbor APs reported by the Wi-Fi driver: 67 buckets keyed by MAC, at most
// max_ngbr_num entries, the oldest entry (greatest driver timestamp) replaced when full.
//
// Locking: ngb_lock guards ngb_table, table_cnt and every field of every entry. Only
// neighbor_aps_clear takes it itself; every other function here expects the caller to hold
// it. ngb_lock is never held together with stngbr_lock; a shell command (popen_lock) or a
// self_ap read (self_ap_lock) may happen under it, never the other way round.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <type_traits>

#include "neighbor/ap_info.h"

extern list_head ngb_table[NGB_HASH_SIZE];
extern uint32_t table_cnt;
extern std::mutex ngb_lock;

// The bucket links are the first member, so a bucket node is the entry's own address.
static_assert(std::is_standard_layout<neighbor_ap>::value,
              "neighbor_ap links are its first member");
static_assert(offsetof(neighbor_ap, list) == 0, "neighbor_ap links are its first member");

inline neighbor_ap *neighbor_ap_of(list_head *node) {
    return reinterpret_cast<neighbor_ap *>(node);
}

// Empties all buckets without releasing anything: for start-up, before any thread runs.
void neighbor_table_init();

// Bucket index 0..66 of a MAC.
uint32_t neighbor_ap_hash(const mac_addr &mac);

// A zero-filled entry whose links point to itself, or null when memory is exhausted.
std::unique_ptr<neighbor_ap> neighbor_ap_new();

// The entry with this MAC, or null. The table keeps ownership.
neighbor_ap *neighbor_ap_find(const mac_addr &mac);

// Appends `entry` to the bucket of `mac`; when the table is full the oldest entry is replaced
// first. Returns 0 and takes ownership (entry becomes null), or 1 when the table is full and
// nothing can be replaced (entry stays with the caller). The MAC must not be in the table yet.
int neighbor_ap_add(const mac_addr &mac, std::unique_ptr<neighbor_ap> &entry);

// The entry with the greatest non-zero timestamp (the first of equals in walk order), or null.
neighbor_ap *neighbor_aps_find_oldest();

// Unlinks and releases an entry of the table.
void neighbor_ap_delete(neighbor_ap *entry);

// Takes ngb_lock and deletes every entry.
void neighbor_aps_clear();

// Visits every entry, buckets 0 to 66, each bucket from its first (oldest insertion) to its
// last entry. The caller holds ngb_lock. The visitor may delete the entry it is given, and no
// other. A visitor returning bool stops the walk by returning false.
template <typename Visit>
void neighbor_aps_walk(Visit &&visit) {
    for (int bucket = 0; bucket < NGB_HASH_SIZE; ++bucket) {
        list_head *head = &ngb_table[bucket];
        for (list_head *node = head->next, *next = node->next; node != head;
             node = next, next = node->next) {
            if constexpr (std::is_same_v<decltype(visit(*neighbor_ap_of(node))), bool>) {
                if (!visit(*neighbor_ap_of(node))) {
                    return;
                }
            } else {
                visit(*neighbor_ap_of(node));
            }
        }
    }
}
