#include "sysinfo/self_ap.h"

#include <algorithm>

#include "sysinfo/sysinfo.h"

neighbor_ap self_ap;
std::mutex self_ap_lock;

std::atomic<uint32_t> ap_ip{0};
std::atomic<uint32_t> pvc_mask{0};
std::atomic<uint32_t> pvc_brast{0};

neighbor_ap self_ap_snapshot() {
    std::lock_guard<std::mutex> guard(self_ap_lock);
    return self_ap;
}

bool self_ap_store_addresses(uint32_t ip_host, const ip6_addr &ip6) {
    std::lock_guard<std::mutex> guard(self_ap_lock);
    if (self_ap.ip == ip_host && self_ap.info.ip6 == ip6) {
        return false;
    }
    self_ap.ip = ip_host;
    self_ap.info.ip6 = ip6;
    return true;
}

void self_ap_store_mac(const uint8_t *bytes, size_t count) {
    std::lock_guard<std::mutex> guard(self_ap_lock);
    std::copy_n(bytes, std::min(count, self_ap.mac.size()), self_ap.mac.begin());
}

void self_ap_store_qv_ip(uint32_t qv_ip_host) {
    std::lock_guard<std::mutex> guard(self_ap_lock);
    self_ap.info.qv_ip = qv_ip_host;
}

void self_ap_store_cluster(uint32_t cluster_id, uint32_t pvc_ip_host, const mac_addr &pvc_mac) {
    std::lock_guard<std::mutex> guard(self_ap_lock);
    self_ap.info.cluster_id = cluster_id;
    self_ap.info.pvc_mac = pvc_mac;
    self_ap.info.pvc_ip = pvc_ip_host;
    self_ap.info.cluster_flag = 1;
}

radio_info self_ap_store_radio(int index, uint8_t txpower) {
    if (index < 0 || index >= AP_RADIO_MAX) {
        return radio_info{};
    }
    std::lock_guard<std::mutex> guard(self_ap_lock);
    radio_info &radio = self_ap.info.radio[index];
    radio.radioid = static_cast<uint8_t>(index);
    radio.txpower = txpower;
    return radio;
}
