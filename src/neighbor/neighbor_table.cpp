#include "neighbor/neighbor_table.h"

#include <cstring>
#include <new>

#include "core/settings.h"
#include "neighbor/list_ops.h"
#include "util/log.h"

list_head ngb_table[NGB_HASH_SIZE];
uint32_t table_cnt = 0;
std::mutex ngb_lock;

namespace {

// Buckets are usable (empty) even before start-up gets to neighbor_table_init.
[[maybe_unused]] const bool buckets_ready = (neighbor_table_init(), true);

}  // namespace

void neighbor_table_init() {
    for (list_head &bucket : ngb_table) {
        INIT_LIST_HEAD(&bucket);
    }
    table_cnt = 0;
}

uint32_t neighbor_ap_hash(const mac_addr &mac) {
    uint32_t sum = uint32_t{mac[3]} + uint32_t{mac[4]} + (uint32_t{mac[5]} >> 4);
    return sum % NGB_HASH_SIZE;
}

std::unique_ptr<neighbor_ap> neighbor_ap_new() {
    std::unique_ptr<neighbor_ap> entry(new (std::nothrow) neighbor_ap());
    if (entry) {
        INIT_LIST_HEAD(&entry->list);
    }
    return entry;
}

neighbor_ap *neighbor_ap_find(const mac_addr &mac) {
    list_head *head = &ngb_table[neighbor_ap_hash(mac)];
    for (list_head *node = head->next; node != head; node = node->next) {
        neighbor_ap *entry = neighbor_ap_of(node);
        if (entry->mac == mac) {
            return entry;
        }
    }
    return nullptr;
}

int neighbor_ap_add(const mac_addr &mac, std::unique_ptr<neighbor_ap> &entry) {
    if (!entry) {
        return 1;
    }
    if (table_cnt == max_ngbr_num.load()) {
        TARN_DBG("neighbor table is full!!!\n");
        neighbor_ap *victim = neighbor_aps_find_oldest();
        if (victim == nullptr) {
            TARN_DBG("%s: table is full,replace error!\n", "neighbor_ap_add");
            return 1;
        }
        neighbor_ap_delete(victim);
    }

    uint32_t bucket = neighbor_ap_hash(mac);
    TARN_DBG("%s: hash:%d\n", "neighbor_ap_add", static_cast<int>(bucket));
    list_add_tail(&entry.release()->list, &ngb_table[bucket]);
    ++table_cnt;
    return 0;
}

neighbor_ap *neighbor_aps_find_oldest() {
    neighbor_ap *oldest = nullptr;
    uint32_t greatest = 0;
    neighbor_aps_walk([&](neighbor_ap &entry) {
        if (entry.timestamp > greatest) {
            greatest = entry.timestamp;
            oldest = &entry;
        }
    });
    TARN_DBG("%s: Find time out ap:%d\n", "neighbor_aps_find_oldest", static_cast<int>(greatest));
    return oldest;
}

void neighbor_ap_delete(neighbor_ap *entry) {
    if (entry == nullptr) {
        return;
    }
    list_del(&entry->list);
    delete entry;
    --table_cnt;
}

void neighbor_aps_clear() {
    std::lock_guard<std::mutex> guard(ngb_lock);
    neighbor_aps_walk([](neighbor_ap &entry) { neighbor_ap_delete(&entry); });
}
