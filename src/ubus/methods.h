// The methods of the bus object "tarn" and its configuration-reload event, over json-c values.
//
// Every transport (the platform's ubus binding, the embedded bus) turns an incoming request into
// a JSON object and hands it to these handlers; only the transport differs between the two. A
// method read by policy gets only the members its policy picks (the embedded bus, whose requests
// are JSON objects already, hands over the whole object: the handler's policy reading picks the
// same members).
#pragma once

#include <json-c/json.h>

#include <cstddef>

#include "ubus/json_ref.h"
#include "ubus/policy.h"

// Handler statuses besides 0 (a reply was produced).
constexpr int METHOD_PARSE_FAILED = -1;  // the request did not parse against the policy
constexpr int METHOD_NO_JSON_TEXT = 1;   // the request could not be turned into JSON text

// request: the call's arguments as a JSON object, or null when the transport could not convert
// them. On status 0, reply holds the reply object (null only when memory ran out).
using method_handler = int (*)(const char *method, json_object *request, json_ref &reply);

// How a transport reads a request for a method.
enum class request_reading {
    whole_message,  // every member, as the message's JSON text reads
    by_policy,      // the policy's members only, by blobmsg parsing: the first member of a
                    // repeated name, named members only; null when the message does not parse
};

struct method_entry {
    const char *name;
    method_handler handler;
    const arg_policy *policy;  // announced to the bus; handlers apply it themselves
    size_t policy_count;
    request_reading reading = request_reading::whole_message;
};

// An event handler: type is the event's name, message its JSON object or null.
using event_handler_fn = void (*)(const char *type, json_object *message);

// A reply {"result": text}.
json_ref result_reply(const char *text);

// The entry of the method called name among count entries, or null.
const method_entry *find_method(const method_entry *methods, size_t count, const char *name);

// "debug_set" and "debug_get".
enum debug_set_arg : size_t { DEBUG_SET_SWITCH, DEBUG_SET_ARG_COUNT };
extern const arg_policy debug_set_policy[DEBUG_SET_ARG_COUNT];
int ubus_set_debug(const char *method, json_object *request, json_ref &reply);
int ubus_get_debug(const char *method, json_object *request, json_ref &reply);

// "show" (runs "tarn show ubus") and "show_neighbor" (runs "tarn show neighbor").
int ubus_show(const char *method, json_object *request, json_ref &reply);
int ubus_show_neighbor(const char *method, json_object *request, json_ref &reply);

// The static neighbor edits: "qv_static_neighbor", "add_static_neighbor",
// "del_static_neighbor", "qv_del_static_neighbor".
enum static_qv_arg : size_t { STATIC_QV_LIST, STATIC_QV_ARG_COUNT };
extern const arg_policy static_qv_policy[STATIC_QV_ARG_COUNT];
enum static_add_arg : size_t {
    STATIC_ADD_MAC,
    STATIC_ADD_IP,
    STATIC_ADD_IP6,
    STATIC_ADD_ARG_COUNT
};
enum static_del_arg : size_t { STATIC_DEL_MAC, STATIC_DEL_ARG_COUNT };
extern const arg_policy static_add_policy[STATIC_ADD_ARG_COUNT];
extern const arg_policy static_del_policy[STATIC_DEL_ARG_COUNT];
enum static_qv_del_arg : size_t { STATIC_QV_DEL_LIST, STATIC_QV_DEL_ARG_COUNT };
extern const arg_policy static_qv_del_policy[STATIC_QV_DEL_ARG_COUNT];
int ubus_static_mac_qv(const char *method, json_object *request, json_ref &reply);
int ubus_static_mac_add(const char *method, json_object *request, json_ref &reply);
int ubus_static_mac_del(const char *method, json_object *request, json_ref &reply);
int ubus_static_mac_qv_del(const char *method, json_object *request, json_ref &reply);

// The "userconfig.reload" event: reloads the static neighbor file once for every element "all"
// or "static_neighbor.conf" of the message's "ModifiedConfig" array, each followed by an update
// pass.
constexpr const char *RELOAD_EVENT_TYPE = "userconfig.reload";
enum reload_event_arg : size_t { RELOAD_MODIFIED_CONFIG, RELOAD_EVENT_ARG_COUNT };
extern const arg_policy reload_event_policy[RELOAD_EVENT_ARG_COUNT];
void ubus_reload_event(const char *type, json_object *message);
