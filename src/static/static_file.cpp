// The static neighbor file: {"static_neighbor": [{"mac": ..., "ip": ..., "ip6": ...}, ...]}.
#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "static/file_replace.h"
#include "static/static_store.h"
#include "sysinfo/sysinfo.h"
#include "util/log.h"
#include "util/paths.h"

namespace {

constexpr const char *LIST_MEMBER = "static_neighbor";
constexpr const char *CLUSTER_IP = "0.0.0.0";
constexpr const char *CLUSTER_IP6 = "::";

struct cjson_deleter {
    void operator()(cJSON *item) const { cJSON_Delete(item); }
};
using cjson_ptr = std::unique_ptr<cJSON, cjson_deleter>;

struct cjson_text_deleter {
    void operator()(char *text) const { cJSON_free(text); }
};
using cjson_text = std::unique_ptr<char, cjson_text_deleter>;

// A member that is present but not a string counts as absent.
const char *string_member(const cJSON *object, const char *name) {
    const cJSON *member = cJSON_GetObjectItemCaseSensitive(object, name);
    return cJSON_IsString(member) ? member->valuestring : nullptr;
}

// Why a file entry is not taken, or null when it is.
const char *entry_refusal(const cJSON *entry) {
    const char *mac = string_member(entry, "mac");
    mac_addr ignored{};
    if (mac != nullptr && parse_mac_text(mac, ignored) != 0) {
        return "MAC text has more than 6 groups or 63 characters";
    }
    const char *ip = string_member(entry, "ip");
    if (ip != nullptr && strnlen(ip, IPV4_TEXT_MAX + 1) > IPV4_TEXT_MAX) {
        return "IPv4 text has more than 15 characters";
    }
    return nullptr;
}

void read_entry(const cJSON *entry, ap_info &info) {
    if (const char *mac = string_member(entry, "mac")) {
        parse_mac_text(mac, info.mac);
    }
    if (const char *ip = string_member(entry, "ip")) {
        info.ip = inet_addr(ip);  // a text that does not convert gives 255.255.255.255
    }
    if (const char *ip6 = string_member(entry, "ip6")) {
        if (inet_pton(AF_INET6, ip6, info.ip6.data()) != 1) {
            perror("inet_pton");
            info.ip6.fill(0);
        }
    }
}

void log_dropped_entries(const cJSON *list, int count) {
    TARN_WARN("%s: static neighbor file holds %d entries, only the first %d are kept\n",
              "load_static_neighbor", count, STATIC_NGBR_MAX);
    for (int i = STATIC_NGBR_MAX; i < count; ++i) {
        const char *mac = string_member(cJSON_GetArrayItem(list, i), "mac");
        TARN_WARN("%s: dropped static neighbor [%.63s]\n", "load_static_neighbor",
                  mac != nullptr ? mac : "");
    }
}

// Puts the first STATIC_NGBR_MAX acceptable entries of the array at the head of the list, in
// array order (so the list ends up in the reverse of the file's order).
void take_entries(const cJSON *list, int count) {
    if (count > STATIC_NGBR_MAX) {
        log_dropped_entries(list, count);
        count = STATIC_NGBR_MAX;
    }
    for (int i = 0; i < count; ++i) {
        const cJSON *entry = cJSON_GetArrayItem(list, i);
        if (const char *why = entry_refusal(entry)) {
            TARN_WARN("%s: static neighbor entry %d skipped: %s\n", "load_static_neighbor", i, why);
            continue;
        }
        static_member *node = static_member_new();
        if (node == nullptr) {
            TARN_ERR("%s: Malloc failed\n", "load_static_neighbor");
            continue;
        }
        read_entry(entry, node->info);
        node->info.state = AP_STATE_STATIC_OFFLINE;
        static_member_push(node);
    }
}

std::string mac_text(const mac_addr &mac) {
    char text[18];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return text;
}

std::string ip_text(uint32_t ip) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &ip, text, sizeof text);
    return text;
}

std::string ip6_text(const ip6_addr &ip6) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, ip6.data(), text, sizeof text);
    return text;
}

bool add_entry(cJSON *list, const ap_info &info, bool cluster) {
    cJSON *entry = cJSON_CreateObject();
    if (entry == nullptr) {
        return false;
    }
    cJSON_AddItemToArray(list, entry);
    return cJSON_AddStringToObject(entry, "mac", mac_text(info.mac).c_str()) != nullptr &&
           cJSON_AddStringToObject(entry, "ip", cluster ? CLUSTER_IP : ip_text(info.ip).c_str()) !=
               nullptr &&
           cJSON_AddStringToObject(entry, "ip6",
                                   cluster ? CLUSTER_IP6 : ip6_text(info.ip6).c_str()) != nullptr;
}

// The formatted file text of the list, or null when memory runs out. Caller holds stngbr_lock.
cjson_text file_text_of_list(bool cluster) {
    cjson_ptr root(cJSON_CreateObject());
    cJSON *list = root ? cJSON_AddArrayToObject(root.get(), LIST_MEMBER) : nullptr;
    if (list == nullptr) {
        return nullptr;
    }
    int i = 0;
    for (const static_member *node = static_member_list.head;
         node != nullptr && i < STATIC_NGBR_MAX; node = node->next, ++i) {
        if (!add_entry(list, node->info, cluster)) {
            return nullptr;
        }
        TARN_DBG("i is %d\n", i);
    }
    return cjson_text(cJSON_Print(root.get()));
}

}  // namespace

std::unique_ptr<char[]> read_whole_file(const char *path) {
    // Non-blocking so that a FIFO planted at the path cannot stall the caller; only regular
    // files are read.
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    FILE *file = fd >= 0 ? fdopen(fd, "r") : nullptr;
    if (file == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        TARN_ERR("Can't open the file %s\n", path);
        return nullptr;
    }
    std::unique_ptr<char[]> text;
    struct stat st {};
    long size = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && fseek(file, 0, SEEK_END) == 0
                    ? ftell(file)
                    : -1;
    if (size > WHOLE_FILE_MAX) {
        TARN_WARN("%s: %s is larger than %ld bytes, not read\n", "read_whole_file", path,
                  WHOLE_FILE_MAX);
    } else if (size > 0 && fseek(file, 0, SEEK_SET) == 0) {
        text.reset(new (std::nothrow) char[static_cast<size_t>(size) + 1]());
        // A file that shrank meanwhile leaves the rest of the buffer zero.
        if (text != nullptr && fread(text.get(), 1, static_cast<size_t>(size), file) == 0) {
            text.reset();
        }
    }
    fclose(file);
    return text;
}

int load_static_neighbor() {
    if (access(STATIC_NEIGHBOR_CONF_PATH, F_OK) != 0) {
        return 0;
    }
    std::lock_guard<std::mutex> guard(stngbr_lock);
    static_member_clear();
    std::unique_ptr<char[]> text = read_whole_file(STATIC_NEIGHBOR_CONF_PATH);
    if (text == nullptr) {
        return -1;
    }
    cjson_ptr root(cJSON_Parse(text.get()));
    const cJSON *list = cJSON_GetObjectItemCaseSensitive(root.get(), LIST_MEMBER);
    int count = cJSON_IsArray(list) ? cJSON_GetArraySize(list) : 0;
    static_cnt = static_cast<uint32_t>(count);
    if (count == 0) {
        TARN_DBG("static neighbor is empty!!!\n");
        return -1;
    }
    take_entries(list, count);
    return 0;
}

int save_as_json() {
    TARN_DBG("%s-%d save data as json\n", "save_as_json", __LINE__);
    // The mode is asked before the lock: it runs a shell command.
    bool cluster = is_cluster_mode() == 1;
    std::lock_guard<std::mutex> guard(stngbr_lock);
    cjson_text text = file_text_of_list(cluster);
    if (text == nullptr) {
        TARN_ERR("%s: Malloc failed\n", "save_as_json");
        return -1;
    }
    switch (write_file_replacing(STATIC_NEIGHBOR_CONF_PATH, text.get(), strlen(text.get()))) {
        case replace_result::done:
            return 0;
        case replace_result::open_failed:
            TARN_ERR("Can not open the file %s\n", STATIC_NEIGHBOR_CONF_PATH);
            return -1;
        case replace_result::write_failed:
            break;
    }
    TARN_ERR("%s: writing %s failed, the old file is kept\n", "save_as_json",
             STATIC_NEIGHBOR_CONF_PATH);
    return -1;
}
