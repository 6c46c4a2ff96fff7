// The MAC text of the static neighbor file and of the bus requests, apart from the file code so
// that a reader of the file's MACs links nothing else of the static list.
#include <cstdlib>
#include <cstring>

#include "static/static_store.h"

int parse_mac_text(const char *text, mac_addr &out) {
    if (text == nullptr || strnlen(text, MAC_TEXT_MAX + 1) > MAC_TEXT_MAX) {
        return -1;
    }
    char work[MAC_TEXT_MAX + 1] = {};
    strncpy(work, text, MAC_TEXT_MAX);
    mac_addr parsed = out;
    int groups = 0;
    char *save = nullptr;
    // Like every ":"-cutting of this text, empty groups between two colons are skipped.
    for (char *group = strtok_r(work, ":", &save); group != nullptr;
         group = strtok_r(nullptr, ":", &save)) {
        if (groups == MAC_GROUPS_MAX) {
            return -1;
        }
        parsed[groups++] = static_cast<uint8_t>(strtol(group, nullptr, 16) & 0xff);
    }
    out = parsed;
    return 0;
}
