// The static neighbor edits of the bus object; they call the static neighbor store.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "neighbor/ap_info.h"
#include "static/static_store.h"
#include "ubus/methods.h"
#include "util/ipv4_text.h"
#include "util/log.h"

const arg_policy static_qv_policy[STATIC_QV_ARG_COUNT] = {{"neighbor_list", arg_type::array}};
// In the order of static_add_arg and static_del_arg.
const arg_policy static_add_policy[STATIC_ADD_ARG_COUNT] = {
    {"mac", arg_type::string}, {"ip", arg_type::string}, {"ip6", arg_type::string}};
const arg_policy static_del_policy[STATIC_DEL_ARG_COUNT] = {{"mac", arg_type::string}};
const arg_policy static_qv_del_policy[STATIC_QV_DEL_ARG_COUNT] = {{"mac_list", arg_type::array}};

namespace {

// Text lengths read from the members of a list element.
constexpr size_t QV_MAC_MAX = 17;
constexpr size_t QV_IP_MAX = 15;
constexpr size_t QV_IP6_MAX = 45;
constexpr size_t QV_DEL_MAC_MAX = 31;

// The request as JSON text without indentation, the form the list methods have always read, or
// null when the request cannot be turned into text. The text belongs to request.
const char *request_text(json_object *request) {
    if (!json_object_is_type(request, json_type_object)) {
        return nullptr;
    }
    return json_object_to_json_string_ext(request, JSON_C_TO_STRING_PLAIN);
}

// The array member name of root, or null when it is missing, null or not an array.
json_object *array_member(json_object *root, const char *name) {
    json_object *member = nullptr;
    if (!json_object_is_type(root, json_type_object) ||
        !json_object_object_get_ex(root, name, &member) ||
        !json_object_is_type(member, json_type_array)) {
        return nullptr;
    }
    return member;
}

// Copies the text of member name of element (at most size - 1 characters) into the zero-filled
// buffer. Returns false, leaving the buffer empty, when element is no object or has no such
// non-null member.
bool read_member_text(json_object *element, const char *name, char *buffer, size_t size) {
    json_object *member = nullptr;
    if (!json_object_is_type(element, json_type_object) ||
        !json_object_object_get_ex(element, name, &member) || member == nullptr) {
        return false;
    }
    const char *text = json_object_get_string(member);
    if (text == nullptr) {
        return false;
    }
    strncpy(buffer, text, size - 1);
    return true;
}

void read_logged_member(json_object *element, const char *name, char *buffer, size_t size) {
    if (read_member_text(element, name, buffer, size)) {
        TARN_DBG("Get the [%s] value is [%s]\n", name, buffer);
    }
}

void fill_qv_record(json_object *element, ap_info &record) {
    char mac[QV_MAC_MAX + 1] = {};
    char ip[QV_IP_MAX + 1] = {};
    char ip6[QV_IP6_MAX + 1] = {};
    read_logged_member(element, "mac", mac, sizeof mac);
    read_logged_member(element, "ip", ip, sizeof ip);
    read_logged_member(element, "ip6", ip6, sizeof ip6);
    TARN_DBG("Get the mac is :[%s],ip is [%x]\n", mac, record.ip);

    parse_mac_text(mac, record.mac);
    // An absent or empty address converts to 255.255.255.255, which the list has always kept.
    record.ip = ipv4_from_text(ip);
    if (ip6[0] != '\0') {
        TARN_DBG("Get the ip6 is [%s]\n", ip6);
        if (inet_pton(AF_INET6, ip6, record.ip6.data()) != 1) {
            perror("inet_pton");
            record.ip6.fill(0);
        }
        TARN_DBG("Add static neighbor ipv6 addr:[%s]\n", ip6);
    }
    TARN_DBG("Get the mac is :[%x:%x:%x:%x:%x:%x],ip is [%x]\n", record.mac[0], record.mac[1],
             record.mac[2], record.mac[3], record.mac[4], record.mac[5], record.ip);
}

// The list holds STATIC_NGBR_MAX nodes: a longer request keeps its first elements, and every
// element left out is named in the log.
void log_dropped_elements(json_object *list, size_t count) {
    TARN_WARN("%s: neighbor_list holds %zu entries, only the first %d are kept\n",
              "ubus_static_mac_qv", count, STATIC_NGBR_MAX);
    for (size_t i = STATIC_NGBR_MAX; i < count; ++i) {
        char mac[QV_MAC_MAX + 1] = {};
        read_member_text(json_object_array_get_idx(list, i), "mac", mac, sizeof mac);
        TARN_WARN("%s: dropped static neighbor [%s]\n", "ubus_static_mac_qv", mac);
    }
}

}  // namespace

int ubus_static_mac_qv(const char *method, json_object *request, json_ref &reply) {
    const char *text = request_text(request);
    TARN_DBG("method is %s,msg is %s\n", method, text != nullptr ? text : "(null)");
    if (text == nullptr) {
        TARN_DBG("********parse the add message  fail\n");
        return METHOD_NO_JSON_TEXT;
    }
    json_ref root(json_tokener_parse(text));
    json_object *list = array_member(root.get(), static_qv_policy[STATIC_QV_LIST].name);
    if (list == nullptr) {
        reply = result_reply("fail");
        return 0;
    }
    std::array<ap_info, STATIC_NGBR_MAX> records{};
    size_t count = json_object_array_length(list);
    if (count > records.size()) {
        log_dropped_elements(list, count);
        count = records.size();
    }
    for (size_t i = 0; i < count; ++i) {
        fill_qv_record(json_object_array_get_idx(list, i), records[i]);
    }
    static_mac_qv(records.data(), static_cast<int32_t>(count));
    reply = result_reply("success");
    return 0;
}

int ubus_static_mac_add(const char * /*method*/, json_object *request, json_ref &reply) {
    json_object *args[STATIC_ADD_ARG_COUNT];
    if (parse_args_json(static_add_policy, STATIC_ADD_ARG_COUNT, request, args) < 0) {
        TARN_ERR("%s: blobmsg parse error.\n", "ubus_static_mac_add");
        return METHOD_PARSE_FAILED;
    }
    int result = 0;
    if (args[STATIC_ADD_MAC] != nullptr) {
        const char *mac = json_object_get_string(args[STATIC_ADD_MAC]);
        const char *ip = nullptr;
        const char *ip6 = nullptr;
        TARN_DBG("The add mac is %s.\n", mac);
        if (args[STATIC_ADD_IP] != nullptr) {
            ip = json_object_get_string(args[STATIC_ADD_IP]);
            TARN_DBG("The add ip is %s.\n", ip);
        }
        if (args[STATIC_ADD_IP6] != nullptr) {
            ip6 = json_object_get_string(args[STATIC_ADD_IP6]);
            TARN_DBG("The add ip6 is %s.\n", ip6);
        }
        result = static_mac_add(mac, ip, ip6);
    }
    reply = result_reply(result == 0 ? "success" : "fail");
    return 0;
}

int ubus_static_mac_del(const char * /*method*/, json_object *request, json_ref &reply) {
    json_object *args[STATIC_DEL_ARG_COUNT];
    if (parse_args_json(static_del_policy, STATIC_DEL_ARG_COUNT, request, args) < 0) {
        TARN_ERR("%s: blobmsg parse error.\n", "ubus_static_mac_del");
        return METHOD_PARSE_FAILED;
    }
    int result = 0;
    if (args[STATIC_DEL_MAC] != nullptr) {
        const char *mac = json_object_get_string(args[STATIC_DEL_MAC]);
        TARN_DBG("The del mac is %s.\n", mac);
        result = static_mac_del(mac);
    }
    reply = result_reply(result == 0 ? "success" : "fail");
    return 0;
}

int ubus_static_mac_qv_del(const char * /*method*/, json_object *request, json_ref &reply) {
    const char *text = request_text(request);
    if (text == nullptr) {
        TARN_DBG("********parse the del message\tfail\n");
        return METHOD_NO_JSON_TEXT;
    }
    json_ref root(json_tokener_parse(text));
    json_object *list = array_member(root.get(), static_qv_del_policy[STATIC_QV_DEL_LIST].name);
    int last = 0;  // only the last delete's outcome is reported
    size_t count = list != nullptr ? json_object_array_length(list) : 0;
    for (size_t i = 0; i < count; ++i) {
        char mac[QV_DEL_MAC_MAX + 1] = {};
        read_member_text(json_object_array_get_idx(list, i), "mac", mac, sizeof mac);
        TARN_DBG("Get the mac is :[%s]\n\n", mac);
        last = static_mac_del(mac);
    }
    reply = result_reply(last != 0 ? "fail" : "success");
    return 0;
}
