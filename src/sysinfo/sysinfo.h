// Gatherers of this AP's own facts (self_ap) from platform commands, files and ioctls.
//
// Each gatherer first runs its command or reads its file with no lock of its own held (a
// command runs under popen_lock only), then stores the result into self_ap through one of the
// self_ap_store_* functions below, which hold self_ap_lock for the store alone. Nothing is
// sent and no command runs while self_ap_lock is held, and gatherers that read self_ap use
// self_ap_snapshot(). A failure leaves the field as it was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "neighbor/ap_info.h"
#include "sysinfo/self_ap.h"

// Interface names as the kernel takes them: at most 15 characters and the terminator.
constexpr size_t VAP_NAME_SIZE = 16;
// Buffer of the uplink interface name as read from the platform.
constexpr size_t IFNAME_SIZE = 32;

// Copies a text into a fixed field, cut to the field size less one, zero-filled behind it.
template <size_t N>
void copy_text_field(char (&field)[N], const char *text) {
    static_assert(N > 0, "a text field holds at least its terminator");
    size_t len = text == nullptr ? 0 : strnlen(text, N - 1);
    memset(field, 0, N);
    if (len > 0) {
        memcpy(field, text, len);
    }
}

// --- Stores into self_ap, each under self_ap_lock -------------------------------------------

// Copies a text into `field`, normally a text field of self_ap.
template <size_t N>
void self_ap_store_text(char (&field)[N], const char *text) {
    std::lock_guard<std::mutex> guard(self_ap_lock);
    copy_text_field(field, text);
}
// Sets self_ap.ip (host order) and self_ap.info.ip6 unless both are already these; returns
// true when something changed.
bool self_ap_store_addresses(uint32_t ip_host, const ip6_addr &ip6);
void self_ap_store_mac(const uint8_t *bytes, size_t count);
void self_ap_store_qv_ip(uint32_t qv_ip_host);
void self_ap_store_cluster(uint32_t cluster_id, uint32_t pvc_ip_host, const mac_addr &pvc_mac);
// Sets radio `index`'s id and transmit power and returns the radio as now stored.
radio_info self_ap_store_radio(int index, uint8_t txpower);

// --- Identity: name, version, management address, tenant, uplink name ------------------------

void Get_QV_ipaddr();
void Get_Ap_Version(char (&dest)[16]);
void Get_Ap_Name(char (&dest)[32]);
// `dest` is the caller's own buffer; self_ap is not touched.
void Get_ifname(char (&dest)[IFNAME_SIZE]);
void get_tenantId();

// --- Cluster --------------------------------------------------------------------------------

// 1 when the platform runs in cluster mode, else 0.
int is_cluster_mode();
void get_cluster_info();
// Reads "aa-bb-cc-dd-ee-ff"; returns the number of bytes read (6 when the text is complete).
int parse_mac_dash(const char *text, mac_addr &out);
// The same for a host of the given byte order (the byte order is found at run time).
int parse_mac_dash_for(const char *text, mac_addr &out, bool big_endian);
bool host_is_big_endian();

// --- Radios ---------------------------------------------------------------------------------

int get_spec_wifi_count();
int get_wifi_dev_count();
// The radio count for self_ap.info.radiocnt (0 to 3).
int get_radio_count();
// True for interface names that count as wireless VAPs: they end in "ath" and two digits.
bool is_vap_name(const char *name);
// The number of VAP interfaces in /sys/class/net/.
int count_vap_interfaces();
bool is_have_wlan();
// The driver reports either dBm or hundredths of dBm; both come out as dBm.
int txpower_scale(int32_t reported);
int get_txpower(const char *vap);
void get_available_ath_vap(int radio, char (&out)[VAP_NAME_SIZE]);
void get_self_wireless_info();

// --- Base MAC -------------------------------------------------------------------------------

// Reads the base MAC into self_ap.mac; ends the process (status 255) when the command cannot
// be started at all.
void get_mac();

// --- Addresses ------------------------------------------------------------------------------

// Converts 2 * count lower-case hexadecimal digits; false (out untouched) on any other text.
bool hex_to_bytes(const char *text, uint8_t *out, size_t count);
int get_ip6addr(const char *ifname, uint8_t *out);
void get_ipaddr();
