#include "static/static_update.h"

#include <cstring>

#include "core/probe.h"
#include "static/static_store.h"
#include "sysinfo/sysinfo.h"
#include "util/local_socket.h"
#include "util/log.h"
#include "util/paths.h"

cluster_query cluster_query_build(const ap_info &node) {
    cluster_query query{};
    memcpy(query.data(), node.mac.data(), node.mac.size());
    memcpy(query.data() + CLUSTER_QUERY_INFO_OFFSET,
           reinterpret_cast<const uint8_t *>(&node) + offsetof(ap_info, tenantId),
           CLUSTER_QUERY_INFO_LEN);
    return query;
}

void get_cluster_list(const ap_info &node) {
    const mac_addr &mac = node.mac;
    TARN_DBG("%s: mac:%x:%x:%x:%x:%x:%x\n", "get_cluster_list", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    cluster_query query = cluster_query_build(node);
    send_local_nowait(query.data(), query.size(), STATIC_NEIGHBOR_DUMP_PATH);
}

void update_static_neighbor() {
    // Asked before the lock: it runs a shell command.
    bool cluster = is_cluster_mode() == 1;
    std::lock_guard<std::mutex> guard(stngbr_lock);
    if (static_member_list.count <= 0) {
        TARN_DBG("List is empty!!!\n");
        return;
    }
    for (static_member *node = static_member_list.head; node != nullptr; node = node->next) {
        node->info.state = AP_STATE_STATIC_OFFLINE;
        if (cluster) {
            get_cluster_list(node->info);
        } else {
            TARN_DBG("%s: static ip is %x!!!\n", "update_static_neighbor", node->info.ip);
            send_ndrp(&node->info, NDRP_MODE_STATIC);
        }
    }
}
