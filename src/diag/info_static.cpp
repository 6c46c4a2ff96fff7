#include "diag/info_static.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "diag/info_string.h"
#include "static/static_store.h"

namespace {

struct cjson_deleter {
    void operator()(cJSON *item) const { cJSON_Delete(item); }
};

mac_addr entry_mac(const cJSON *entry) {
    mac_addr mac{};
    const cJSON *text = cJSON_GetObjectItemCaseSensitive(entry, "mac");
    if (!cJSON_IsString(text) || parse_mac_text(text->valuestring, mac) != 0) {
        mac.fill(0);
    }
    return mac;
}

// The file's text, or empty when it is not a readable regular file of at most WHOLE_FILE_MAX
// bytes. Non-blocking, so that a FIFO planted at the path cannot stall the reader.
info_string read_small_file(const char *path) {
    info_string text;
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return text;
    }
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= WHOLE_FILE_MAX) {
        text.resize(static_cast<size_t>(st.st_size));
        ssize_t n = read(fd, text.data(), text.size());
        text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    }
    close(fd);
    return text;
}

}  // namespace

std::vector<mac_addr> info_static_macs(const char *path) {
    std::vector<mac_addr> macs;
    info_string text = read_small_file(path);
    std::unique_ptr<cJSON, cjson_deleter> root(cJSON_ParseWithLength(text.data(), text.size()));
    const cJSON *list = cJSON_GetObjectItemCaseSensitive(root.get(), "static_neighbor");
    if (!cJSON_IsArray(list)) {
        return macs;
    }
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, list) {
        macs.push_back(entry_mac(entry));
    }
    return macs;
}

size_t info_static_tail(const ap_info *entries, size_t count, const std::vector<mac_addr> &macs) {
    for (size_t k = std::min(count, macs.size()); k > 0; --k) {
        const ap_info *tail = entries + (count - k);
        bool in_order = true;
        bool reversed = true;
        for (size_t i = 0; i < k && (in_order || reversed); ++i) {
            in_order = in_order && tail[i].mac == macs[i];
            reversed = reversed && tail[i].mac == macs[k - 1 - i];
        }
        if (in_order || reversed) {
            return k;
        }
    }
    return 0;
}

std::vector<info_neighbor> info_merge(const ap_info *entries, size_t count, size_t static_count) {
    size_t learned_count = count - std::min(count, static_count);
    std::vector<info_neighbor> out;
    out.reserve(count);
    for (size_t i = 0; i < learned_count; ++i) {
        out.push_back(info_neighbor{entries[i], true, false, 0});
    }
    for (size_t i = learned_count; i < count; ++i) {
        const ap_info &entry = entries[i];
        auto learned =
            std::find_if(out.begin(), out.begin() + learned_count,
                         [&](const info_neighbor &n) { return n.info.mac == entry.mac; });
        if (learned != out.begin() + learned_count && !learned->is_static) {
            learned->is_static = true;
            learned->static_state = entry.state;
        } else {
            out.push_back(info_neighbor{entry, false, true, entry.state});
        }
    }
    return out;
}
