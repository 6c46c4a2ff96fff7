#include "diag/neighbor_dump.h"

#include <array>
#include <cstring>

#include "core/local_msg.h"
#include "neighbor/neighbor_table.h"
#include "proto/nbcp.h"
#include "static/static_store.h"
#include "util/local_socket.h"
#include "util/log.h"

neighbor_list_writer::neighbor_list_writer(int type) : out_(NBCP_LIST_MAX, 0) {
    local_msg_hdr hdr;
    memset(&hdr, 0, sizeof hdr);
    hdr.op = static_cast<uint16_t>(type);  // the encoder replaces it by the list reply code
    len_ = nbcp_list_put(out_.data(), nullptr, &hdr, NBCP_LIST_PIECE_HEADER);
}

bool neighbor_list_writer::add(const ap_info &entry) {
    if (len_ + NBCP_LIST_ENTRY_MAX + NBCP_END_LEN > out_.size()) {
        ++refused_;
        return false;
    }
    len_ += nbcp_list_put(out_.data() + len_, &entry, nullptr, NBCP_LIST_PIECE_ENTRY);
    ++entries_;
    return true;
}

const std::vector<uint8_t> &neighbor_list_writer::finish() {
    len_ += nbcp_list_put(out_.data() + len_, nullptr, nullptr, NBCP_LIST_PIECE_END);
    out_.resize(len_);
    return out_;
}

namespace {

void send_list(neighbor_list_writer &list, const char *path, const char *caller) {
    if (list.refused() > 0) {
        TARN_WARN("%s: list full, %zu entries left out\n", caller, list.refused());
    }
    const std::vector<uint8_t> &datagram = list.finish();
    send_local_nowait(datagram.data(), datagram.size(), path);
}

void add_static_neighbors(neighbor_list_writer &list, const ap_info *array, int count) {
    for (int i = 0; i < count; ++i) {
        list.add(array[i]);
    }
}

}  // namespace

int static_aps_collect(ap_info *array) {
    std::lock_guard<std::mutex> guard(stngbr_lock);
    if (static_member_list.head == nullptr) {
        TARN_DBG("Static neighbot list is empty!!!\n");
        return 0;
    }
    int count = 0;
    for (const static_member *node = static_member_list.head;
         node != nullptr && count < STATIC_NGBR_MAX; node = node->next, ++count) {
        const ap_info &from = node->info;
        ap_info &to = array[count];
        memset(&to, 0, sizeof to);
        to.ip = from.ip;
        to.ip6 = from.ip6;
        to.qv_ip = from.qv_ip;
        to.mac = from.mac;
        to.state = from.state;
        memcpy(to.version, from.version, sizeof to.version);
        memcpy(to.name, from.name, sizeof to.name);
        to.cluster_id = from.cluster_id;
    }
    return count;
}

void neighbor_aps_send(const char *path, int type) {
    neighbor_list_writer list(type);
    {
        std::lock_guard<std::mutex> guard(ngb_lock);
        neighbor_aps_walk([&list](neighbor_ap &entry) { list.add(entry.info); });
    }
    std::array<ap_info, STATIC_NGBR_MAX> statics{};
    int count = static_aps_collect(statics.data());
    TARN_DBG("%s: static neighbor count = %d\n", "neighbor_aps_send", count);
    add_static_neighbors(list, statics.data(), count);
    send_list(list, path, "neighbor_aps_send");
}

void static_aps_send(const char *path, int type) {
    neighbor_list_writer list(type);
    std::array<ap_info, STATIC_NGBR_MAX> statics{};
    int count = static_aps_collect(statics.data());
    add_static_neighbors(list, statics.data(), count);
    send_list(list, path, "static_aps_send");
}
