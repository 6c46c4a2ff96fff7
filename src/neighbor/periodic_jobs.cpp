#include "neighbor/periodic_jobs.h"

#include <mutex>

#include "core/probe.h"
#include "neighbor/driver_msg.h"
#include "neighbor/neighbor_table.h"
#include "static/static_update.h"
#include "sysinfo/self_ap.h"
#include "sysinfo/sysinfo.h"
#include "util/log.h"
#include "util/timer.h"

uint32_t nbcp_update_id = 0;
uint32_t table_ageing_id = 0;
uint32_t static_update_id = 0;

namespace {

// The gatherers run shell commands, so they run before ngb_lock is taken; each stores into
// self_ap under self_ap_lock on its own.
void refresh_self() {
    get_ipaddr();
    Get_Ap_Name(self_ap.info.name);
    get_self_wireless_info();
    get_cluster_info();
    Get_QV_ipaddr();
    get_tenantId();
}

}  // namespace

void neighbor_aps_learning() {
    refresh_self();
    std::lock_guard<std::mutex> guard(ngb_lock);
    int count = 0;
    neighbor_aps_walk([&count](neighbor_ap &entry) {
        if (count >= NGB_WALK_LIMIT) {
            return false;
        }
        send_ndrp(&entry.info, NDRP_MODE_DYNAMIC);
        ++count;
        TARN_DBG("%s: count:%d, ip:%x\n", "neighbor_aps_learning", count, entry.ip);
        return true;
    });
}

void neighbor_aps_timer() {
    std::lock_guard<std::mutex> guard(ngb_lock);
    int count = 0;
    neighbor_aps_walk([&count](neighbor_ap &entry) {
        if (count >= NGB_WALK_LIMIT) {
            return false;
        }
        if (entry.age < NGB_AGE_OFFLINE) {
            ++entry.age;
        } else {
            const mac_addr &mac = entry.mac;
            TARN_DBG("%s: neighbor [%02x:%02x:%02x:%02x:%02x:%02x] ageing\n", "neighbor_aps_timer",
                     mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
            entry.info.state = AP_STATE_OFFLINE;
            entry.state = AP_STATE_OFFLINE;
        }
        ++count;
        TARN_DBG("%s: count:%d, timer:%d\n", "neighbor_aps_timer", count,
                 static_cast<int>(entry.age));
        return true;
    });
}

void create_nbcp_update_timer(void *) {
    TARN_DBG("Create neighbors learn ageing timer\n");
    neighbor_aps_learning();
    nbcp_update_id = timer_add(NBCP_UPDATE_PERIOD_SEC, 0, create_nbcp_update_timer, nullptr);
}

void create_table_ageing_timer(void *) {
    TARN_DBG("Create neighbor table ageing timer\n");
    neighbor_aps_timer();
    table_ageing_id = timer_add(TABLE_AGEING_PERIOD_SEC, 0, create_table_ageing_timer, nullptr);
}

void create_static_update_timer(void *) {
    TARN_DBG("Create static neighbor update timer\n");
    update_static_neighbor();
    static_update_id = timer_add(STATIC_UPDATE_PERIOD_SEC, 0, create_static_update_timer, nullptr);
}

void create_ip_detect_timer(void *) {
    if (set_ipaddr != 0) {
        return;
    }
    TARN_DBG("Create ip detect timer\n");
    get_ipaddr();
    timer_add(IP_DETECT_PERIOD_SEC, 0, create_ip_detect_timer, nullptr);
}

void start_periodic_jobs() {
    create_nbcp_update_timer();
    create_table_ageing_timer();
    create_static_update_timer();
    create_ip_detect_timer();
}
