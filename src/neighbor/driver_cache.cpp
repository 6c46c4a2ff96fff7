#include "neighbor/driver_cache.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <mutex>

#include "core/probe.h"
#include "neighbor/driver_msg.h"
#include "neighbor/neighbor_table.h"
#include "util/log.h"

namespace {

drv_cache_entry cache_entry_read(const uint8_t *payload, size_t index) {
    drv_cache_entry entry;
    memcpy(&entry, payload + DRV_CACHE_ENTRIES_OFFSET + index * sizeof entry, sizeof entry);
    return entry;
}

// The number of the n announced entries that lie wholly inside the received bytes.
size_t complete_entries(uint8_t n, size_t payload_len) {
    if (payload_len < DRV_CACHE_ENTRIES_OFFSET) {
        return 0;
    }
    return std::min<size_t>(n, (payload_len - DRV_CACHE_ENTRIES_OFFSET) / sizeof(drv_cache_entry));
}

// The neighbor cache is the driver's periodic view, not a sign of life from the neighbor: it
// moves addresses and radio facts but leaves age and state to events and answers. Transmit
// power is the neighbor's own word (its answer), so the driver's value does not replace it.
void cache_refresh(neighbor_ap &entry, const drv_cache_entry &cached) {
    entry.ip = cached.ip;
    entry.info.ip = cached.ip;
    entry.info.ip6 = cached.ip6;
    for (int i = 0; i < AP_RADIO_MAX; ++i) {
        radio_info &radio = entry.info.radio[i];
        radio.radioid = cached.radio[i].radioid;
        radio.channel = cached.radio[i].channel;
        radio.rssi = cached.radio[i].rssi;
        radio.bandwidth = cached.radio[i].bandwidth;
    }
    entry.timestamp = cached.time;
}

void cache_fill_new(neighbor_ap &entry, const drv_cache_entry &cached) {
    entry.ip = cached.ip;
    entry.info.ip = cached.ip;
    entry.info.ip6 = cached.ip6;
    entry.info.radiocnt = 2;
    entry.age = NGB_AGE_FRESH;
    entry.timestamp = cached.time;
    entry.mac = cached.mac;
    entry.info.mac = cached.mac;
    memcpy(entry.info.radio, cached.radio, sizeof entry.info.radio);
    entry.info.state = AP_STATE_ACTIVE;
    entry.state = AP_STATE_ACTIVE;
}

// True when the entry was known and has been refreshed.
bool cache_refresh_known(const drv_cache_entry &cached) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    neighbor_ap *entry = neighbor_ap_find(cached.mac);
    if (entry == nullptr) {
        return false;
    }
    cache_refresh(*entry, cached);
    return true;
}

void cache_add_new(const drv_cache_entry &cached) {
    TARN_DBG("neighbor is not exist, add it!\n");
    std::unique_ptr<neighbor_ap> entry = neighbor_ap_new();
    if (!entry) {
        TARN_ERR("%s: Malloc for neighbor ap failed\n", "neighbor_aps_parse");
        return;
    }
    cache_fill_new(*entry, cached);
    ap_info target = neighbor_ap_insert(entry);
    send_ndrp(&target, NDRP_MODE_DYNAMIC);
    // A refused entry (table full, nothing replaceable) has had its one probe and goes here.
}

}  // namespace

drv_event drv_event_read(const uint8_t *payload, size_t len) {
    drv_event event;
    memset(&event, 0, sizeof event);
    if (payload != nullptr) {
        memcpy(&event, payload, std::min(len, sizeof event));
    }
    return event;
}

ap_info neighbor_ap_insert(std::unique_ptr<neighbor_ap> &entry) {
    ap_info target = entry->info;
    std::lock_guard<std::mutex> guard(ngb_lock);
    neighbor_ap_add(entry->mac, entry);
    return target;
}

int neighbor_aps_parse(const uint8_t *payload, uint8_t n, size_t payload_len) {
    if (payload == nullptr) {
        return 0;
    }
    const size_t usable = complete_entries(n, payload_len);
    for (size_t i = 0; i < usable; ++i) {
        const drv_cache_entry cached = cache_entry_read(payload, i);
        if (!cache_refresh_known(cached)) {
            cache_add_new(cached);
        }
    }
    return 0;
}

void neighbor_event_dump(const drv_event &event) {
    TARN_DBG("channel: %d\n", event.channel);
    TARN_DBG("radioid: %d\n", event.radioid);
    TARN_DBG("rssi: %d\n", event.rssi);
    log_mac(TARN_LOG_DEBUG, event.mac);
    in_addr ip;
    ip.s_addr = event.ip;
    char ip_text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &ip, ip_text, sizeof ip_text);
    TARN_DBG("ip: %s\n", ip_text);
    char ip6_text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, event.ip6.data(), ip6_text, sizeof ip6_text);
    TARN_DBG("ipv6 addr:[%s]\n", ip6_text);
}
