// The AP's base MAC address.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sysinfo/sysinfo.h"
#include "util/log.h"
#include "util/run_cmd.h"

namespace {

constexpr const char *BASE_MAC_COMMAND =
    "showsysinfo  | grep MAC | awk -F':' '{print $2,$3,$4,$5,$6,$7 }'";

// Reads the command's first line; false when the command could not be started.
bool read_base_mac_line(char (&line)[256]) {
    std::lock_guard<std::mutex> guard(popen_lock);
    FILE *pipe = popen(BASE_MAC_COMMAND, "r");
    if (pipe == nullptr) {
        return false;
    }
    if (fgets(line, sizeof line, pipe) == nullptr) {
        line[0] = '\0';
    }
    pclose(pipe);
    return true;
}

}  // namespace

void get_mac() {
    char line[256] = "";
    if (!read_base_mac_line(line)) {
        TARN_ERR("%s: Get ap base mac failed\n", "get_mac");
        // Without its MAC the AP cannot describe itself to anyone.
        exit(-1);
    }

    uint8_t bytes[6] = {};
    size_t count = 0;
    char *save = nullptr;
    for (char *piece = strtok_r(line, " \t\r\n", &save); piece != nullptr && count < sizeof bytes;
         piece = strtok_r(nullptr, " \t\r\n", &save)) {
        bytes[count++] = static_cast<uint8_t>(strtoul(piece, nullptr, 16));
    }
    self_ap_store_mac(bytes, count);
}
