#include "ubus/tarn_object.h"

const method_entry tarn_methods[TARN_METHOD_COUNT] = {
    {"show", ubus_show, nullptr, 0},
    {"qv_static_neighbor", ubus_static_mac_qv, static_qv_policy, 1},
    {"add_static_neighbor", ubus_static_mac_add, static_add_policy, STATIC_ADD_ARG_COUNT,
     request_reading::by_policy},
    {"del_static_neighbor", ubus_static_mac_del, static_del_policy, STATIC_DEL_ARG_COUNT,
     request_reading::by_policy},
    {"qv_del_static_neighbor", ubus_static_mac_qv_del, static_qv_del_policy, 1},
    {"debug_set", ubus_set_debug, debug_set_policy, DEBUG_SET_ARG_COUNT,
     request_reading::by_policy},
    {"debug_get", ubus_get_debug, nullptr, 0},
    {"show_neighbor", ubus_show_neighbor, nullptr, 0},
};
