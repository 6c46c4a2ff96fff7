#include "sysinfo/self_ap.h"

neighbor_ap self_ap;
std::mutex self_ap_lock;

std::atomic<uint32_t> ap_ip{0};
std::atomic<uint32_t> pvc_mask{0};
std::atomic<uint32_t> pvc_brast{0};

neighbor_ap self_ap_snapshot() {
    std::lock_guard<std::mutex> guard(self_ap_lock);
    return self_ap;
}
