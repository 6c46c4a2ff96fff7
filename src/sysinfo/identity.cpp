// Name, version, management address, tenant and uplink interface of this AP.
#include <arpa/inet.h>
#include <unistd.h>

#include "sysinfo/sysinfo.h"
#include "util/ipv4_text.h"
#include "util/log.h"
#include "util/run_cmd.h"

namespace {

constexpr size_t TEXT_OUTPUT_SIZE = 64;

}  // namespace

void Get_QV_ipaddr() {
    char output[TEXT_OUTPUT_SIZE];
    run_cmd("getqvinfo", output, sizeof output);
    const char *text = trim(output);
    // 255.255.255.255 doubles as the conversion's failure value, so it is never taken.
    in_addr_t addr = ipv4_from_text(text);
    if (addr != INADDR_NONE) {
        self_ap_store_qv_ip(ntohl(addr));
    }
    TARN_DBG("%s: qv ipaddr:%s\n", "Get_QV_ipaddr", text);
}

void Get_Ap_Version(char (&dest)[16]) {
    char output[TEXT_OUTPUT_SIZE];
    run_cmd("showver", output, sizeof output);
    const char *text = trim(output);
    self_ap_store_text(dest, text);
    TARN_DBG("%s: AP_Version:%s\n", "Get_Ap_Version", text);
}

void Get_Ap_Name(char (&dest)[32]) {
    char output[TEXT_OUTPUT_SIZE];
    run_cmd("uci get system.sysinfo.hostname", output, sizeof output);
    const char *text = trim(output);
    self_ap_store_text(dest, text);
    TARN_DBG("%s: AP_Name:%s\n", "Get_Ap_Name", text);
}

void Get_ifname(char (&dest)[IFNAME_SIZE]) {
    char output[TEXT_OUTPUT_SIZE];
    run_cmd("getupifname", output, sizeof output);
    copy_text_field(dest, trim(output));
    TARN_DBG("%s: if_name = %s\n", "Get_ifname", dest);
}

void get_tenantId() {
    if (access("/tmp/zef_cloudinfo", F_OK) != 0) {
        TARN_DBG("%s: access zef_cloudinfo failed\n", "get_tenantId");
        return;
    }
    char output[TEXT_OUTPUT_SIZE];
    run_cmd("cat /tmp/zef_cloudinfo | grep tenantId  | awk -F ':' '{print $2}'", output,
            sizeof output);
    const char *text = trim(output);
    self_ap_store_text(self_ap.info.tenantId, text);
    TARN_DBG("%s: tenantId:%s\n", "get_tenantId", text);
}
