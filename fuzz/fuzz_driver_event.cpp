// Feeds arbitrary netlink datagrams to hand_receive through a socket, exactly as the receive
// thread gets them from the driver (events of operation 1, 2, 3 and 6, and the cache reply).
// Checks that the table's count matches its entries and never exceeds the limit, that an
// entry keeps its own MAC, that a heard neighbor is in the table afterwards and a dropped one
// is not, and that a report changes exactly the fields it carries: its addresses, state and
// age, and the radio slot its radio id names (none for an id of 4 or more).
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <optional>

#include "core/handlers.h"
#include "core/settings.h"
#include "fuzz_invariants.h"
#include "neighbor/driver_cache.h"
#include "neighbor/neighbor_table.h"

namespace {

int driver_side = -1;  // the end the "driver" writes to; the daemon reads sock_recv_hand

constexpr size_t EVENT_OFFSET = 16;  // the netlink header

void check_table(const drv_event &event, bool event_applies) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    uint32_t walked = 0;
    neighbor_aps_walk([&walked](neighbor_ap &entry) {
        FUZZ_CHECK(entry.mac == entry.info.mac && entry.state == entry.info.state);
        FUZZ_CHECK(terminated(entry.info.name) && terminated(entry.info.version));
        ++walked;
    });
    FUZZ_CHECK(walked == table_cnt && table_cnt <= max_ngbr_num);
    if (!event_applies) {
        return;
    }
    const neighbor_ap *entry = neighbor_ap_find(event.mac);
    if (event.operation == DRV_EVENT_AP_HEARD) {
        FUZZ_CHECK(entry != nullptr && entry->age == 100 && entry->state == 0);
    } else if (event.operation == DRV_EVENT_AP_DROPPED) {
        FUZZ_CHECK(entry == nullptr);
    }
}

std::optional<ap_info> entry_info(const mac_addr &mac) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    const neighbor_ap *entry = neighbor_ap_find(mac);
    return entry != nullptr ? std::optional<ap_info>(entry->info) : std::nullopt;
}

// What a report of a heard neighbor must leave in its entry: the entry as it was (a new one:
// its MAC and two radios announced), with the report's addresses, state 0 and, for a radio id
// below 4, that slot's facts. The stored RSSI is an average the check does not redo.
ap_info expected_heard(const drv_event &event, const std::optional<ap_info> &before,
                       const ap_info &after) {
    ap_info want{};
    if (before) {
        want = *before;
    } else {
        want.mac = event.mac;
        want.radiocnt = 2;
    }
    want.ip = event.ip;
    want.ip6 = event.ip6;
    want.state = 0;
    if (event.radioid < AP_RADIO_MAX) {
        radio_info &radio = want.radio[event.radioid];
        radio.radioid = event.radioid;
        radio.channel = event.channel;
        radio.bandwidth = event.bandwidth;
        radio.rssi = before ? after.radio[event.radioid].rssi : event.rssi;
    }
    return want;
}

void check_heard_fields(const ap_info &got, const ap_info &want) {
    FUZZ_CHECK(same_carried_info(got, want));
    for (int r = 0; r < AP_RADIO_MAX; ++r) {  // every slot, not only those announced
        const radio_info &x = got.radio[r];
        const radio_info &y = want.radio[r];
        FUZZ_CHECK(x.radioid == y.radioid && x.channel == y.channel && x.txpower == y.txpower &&
                   x.rssi == y.rssi && x.bandwidth == y.bandwidth);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    int pair[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair) == 0);
    int big = 1 << 20;
    setsockopt(pair[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    setsockopt(pair[0], SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    sock_recv_hand = pair[0];
    driver_side = pair[1];
    // Probes of new neighbors go nowhere.
    sock_send_nbcp = -1;
    sock6_nbcp = -1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > RECV_MAX) {
        return 0;  // a datagram of no bytes is no event; the socket cuts longer ones
    }
    FUZZ_CHECK(send(driver_side, data, size, 0) == static_cast<ssize_t>(size));
    // A datagram cut short reads zeros, as in the daemon's cleared buffer.
    const uint8_t *payload = size > EVENT_OFFSET ? data + EVENT_OFFSET : nullptr;
    drv_event event = drv_event_read(payload, payload != nullptr ? size - EVENT_OFFSET : 0);
    bool table_had_room;
    {
        std::lock_guard<std::mutex> guard(ngb_lock);
        table_had_room = table_cnt < max_ngbr_num;
    }
    const std::optional<ap_info> before = entry_info(event.mac);
    hand_receive();
    // A heard neighbor always gets in: into free room, or in place of the oldest entry (which
    // may be refused only when no entry can be replaced, not the case for a table it fills).
    const bool applies = table_had_room || event.operation == DRV_EVENT_AP_DROPPED;
    check_table(event, applies);
    if (applies && event.operation == DRV_EVENT_AP_HEARD) {
        const std::optional<ap_info> after = entry_info(event.mac);
        check_heard_fields(*after, expected_heard(event, before, *after));
    }
    if (table_cnt >= max_ngbr_num) {
        neighbor_aps_clear();
    }
    return 0;
}
