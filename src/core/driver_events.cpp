#include <linux/netlink.h>

#include <cstring>
#include <memory>
#include <mutex>

#include "core/handlers.h"
#include "core/probe.h"
#include "core/recv_area.h"
#include "core/settings.h"
#include "neighbor/driver_cache.h"
#include "neighbor/driver_msg.h"
#include "neighbor/neighbor_table.h"
#include "util/local_socket.h"
#include "util/log.h"

namespace {

// The driver's event follows the netlink header.
constexpr size_t DRV_EVENT_OFFSET = NLMSG_HDRLEN;

// The driver describes one radio per event; its radio id names the slot.
bool radio_slot_valid(const drv_event &event) {
    return event.radioid < AP_RADIO_MAX;
}

void log_radio_out_of_range(const drv_event &event) {
    TARN_DBG("%s: radio id %d out of range, radio facts not stored\n", "hand_receive",
             event.radioid);
}

// The stored RSSI is a running average weighting the history four to one, so that a single
// weak or strong beacon does not swing it.
uint8_t averaged_rssi(uint8_t stored, uint8_t reported) {
    if (stored == 0) {
        return reported;
    }
    return static_cast<uint8_t>((4u * stored + reported) / 5u);
}

// An event is a sign of life: addresses, state and age are refreshed even when the radio id
// names no slot (the neighbor was heard all the same); only the radio facts are then dropped.
void mark_heard(neighbor_ap &entry, const drv_event &event) {
    entry.ip = event.ip;
    entry.info.ip = event.ip;
    entry.info.ip6 = event.ip6;
    entry.info.state = AP_STATE_ACTIVE;
    entry.state = AP_STATE_ACTIVE;
    entry.age = NGB_AGE_FRESH;
}

// Stores the event's radio facts in the slot its radio id names; a known entry averages RSSI.
void store_radio(neighbor_ap &entry, const drv_event &event, bool average_rssi) {
    if (!radio_slot_valid(event)) {
        log_radio_out_of_range(event);
        return;
    }
    radio_info &radio = entry.info.radio[event.radioid];
    radio.radioid = event.radioid;
    radio.channel = event.channel;
    radio.rssi = average_rssi ? averaged_rssi(radio.rssi, event.rssi) : event.rssi;
    radio.bandwidth = event.bandwidth;
}

void heard_refresh(neighbor_ap &entry, const drv_event &event) {
    mark_heard(entry, event);
    store_radio(entry, event, true);
}

void heard_fill_new(neighbor_ap &entry, const drv_event &event) {
    entry.mac = event.mac;
    entry.info.mac = event.mac;
    mark_heard(entry, event);
    store_radio(entry, event, false);
    entry.info.radiocnt = 2;
}

// True when the neighbor was known and has been refreshed.
bool heard_refresh_known(const drv_event &event) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    neighbor_ap *entry = neighbor_ap_find(event.mac);
    if (entry == nullptr) {
        return false;
    }
    TARN_DBG("%s: neighbor is existed, update the timestamp!\n", "hand_receive");
    neighbor_event_dump(event);
    heard_refresh(*entry, event);
    return true;
}

// Only this thread inserts entries, so the MAC found absent cannot appear before the insertion.
void heard_add_new(const drv_event &event) {
    TARN_DBG("%s: neighbor is not existed, add it!\n", "hand_receive");
    std::unique_ptr<neighbor_ap> entry = neighbor_ap_new();
    if (!entry) {
        TARN_ERR("%s: Malloc for neighbor ap failed\n", "hand_receive");
        return;
    }
    heard_fill_new(*entry, event);
    ap_info target = neighbor_ap_insert(entry);
    neighbor_event_dump(event);
    send_ndrp(&target, NDRP_MODE_DYNAMIC);
    // A refused entry (table full, nothing replaceable) has had its one probe and goes here.
}

void on_ap_heard(const drv_event &event) {
    if (!heard_refresh_known(event)) {
        heard_add_new(event);
    }
}

void on_config_ok() {
    TARN_DBG("%s: netlink set config ok!\n", "hand_receive");
    set_ipaddr = 1;
}

// The log shows the entry count the driver announced (byte 32), which may exceed the entries
// actually applied when the message was cut short.
void on_cache_reply(const uint8_t *payload, size_t payload_len) {
    const uint8_t count = payload[DRV_CACHE_COUNT_OFFSET];
    TARN_DBG("%s: get neighbors cache ok:%d\n", "hand_receive", count);
    neighbor_aps_parse(payload, count, payload_len);
}

void on_ap_dropped(const drv_event &event) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    neighbor_ap *entry = neighbor_ap_find(event.mac);
    if (entry == nullptr) {
        return;
    }
    neighbor_ap_delete(entry);
    TARN_DBG("%s: delete neighbor\n", "hand_receive");
}

}  // namespace

void hand_receive() {
    sockaddr_nl from;
    memset(&from, 0, sizeof from);
    socklen_t from_len = sizeof from;
    received_datagram datagram(sock_recv_hand, &from, &from_len, RECV_ADDR_NETLINK);
    if (datagram.size() == 0) {
        return;
    }
    // A datagram shorter than what its event claims reads zeros: the buffer reads as zero past
    // every datagram, and its guard bytes keep every fixed-offset read of the event inside it.
    const uint8_t *payload = buffer + DRV_EVENT_OFFSET;
    const size_t received_len = datagram.size();
    const size_t payload_len =
        received_len > DRV_EVENT_OFFSET ? received_len - DRV_EVENT_OFFSET : 0;
    const drv_event event = drv_event_read(payload, sizeof(drv_event));
    TARN_DBG("%s: hand op is %d\n", "hand_receive", event.operation);

    switch (event.operation) {
        case DRV_EVENT_AP_HEARD:
            on_ap_heard(event);
            break;
        case DRV_EVENT_CONFIG_OK:
            on_config_ok();
            break;
        case DRV_EVENT_CACHE_REPLY:
            on_cache_reply(payload, payload_len);
            break;
        case DRV_EVENT_AP_DROPPED:
            on_ap_dropped(event);
            break;
        default:
            break;  // operations 4 and 5 travel only to the driver
    }
}
