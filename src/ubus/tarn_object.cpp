#include "ubus/tarn_object.h"

#include <cstring>

const method_entry tarn_methods[TARN_METHOD_COUNT] = {
    {"show", ubus_show, nullptr, 0},
    {"qv_static_neighbor", ubus_static_mac_qv, static_qv_policy, STATIC_QV_ARG_COUNT},
    {"add_static_neighbor", ubus_static_mac_add, static_add_policy, STATIC_ADD_ARG_COUNT,
     request_reading::by_policy},
    {"del_static_neighbor", ubus_static_mac_del, static_del_policy, STATIC_DEL_ARG_COUNT,
     request_reading::by_policy},
    {"qv_del_static_neighbor", ubus_static_mac_qv_del, static_qv_del_policy,
     STATIC_QV_DEL_ARG_COUNT},
    {"debug_set", ubus_set_debug, debug_set_policy, DEBUG_SET_ARG_COUNT,
     request_reading::by_policy},
    {"debug_get", ubus_get_debug, nullptr, 0},
    {"show_neighbor", ubus_show_neighbor, nullptr, 0},
};

json_ref result_reply(const char *text) {
    json_ref reply(json_object_new_object());
    if (reply) {
        json_object_object_add(reply.get(), "result", json_object_new_string(text));
    }
    return reply;
}

const method_entry *find_method(const method_entry *methods, size_t count, const char *name) {
    if (name == nullptr) {
        return nullptr;
    }
    for (size_t i = 0; i < count; ++i) {
        if (strcmp(methods[i].name, name) == 0) {
            return &methods[i];
        }
    }
    return nullptr;
}
