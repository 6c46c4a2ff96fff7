#include <cstdint>

#include "core/settings.h"
#include "ubus/methods.h"
#include "util/log.h"

const arg_policy debug_set_policy[DEBUG_SET_ARG_COUNT] = {{"debug_switch", arg_type::int32}};

int ubus_set_debug(const char * /*method*/, json_object *request, json_ref &reply) {
    json_object *args[DEBUG_SET_ARG_COUNT];
    if (parse_args_json(debug_set_policy, DEBUG_SET_ARG_COUNT, request, args) < 0) {
        TARN_ERR("%s: blobmsg parse error.\n", "ubus_set_debug");
        return METHOD_PARSE_FAILED;
    }
    if (args[DEBUG_SET_SWITCH] != nullptr) {
        tarn_debug = json_object_get_int(args[DEBUG_SET_SWITCH]);
        if (tarn_debug != 0) {
            TARN_WARN("Set tarn in debug mode\n");
        }
    }
    reply = result_reply("success");
    return 0;
}

namespace {

// Counters are unsigned; the bus carries them as int32, so values past 2^31 read negative, as
// the reply's readers have always seen them.
void add_int32(json_object *table, const char *name, uint32_t value) {
    json_object_object_add(table, name, json_object_new_int(static_cast<int32_t>(value)));
}

}  // namespace

int ubus_get_debug(const char * /*method*/, json_object * /*request*/, json_ref &reply) {
    reply.reset(json_object_new_object());
    if (!reply) {
        return 0;
    }
    json_object *debug = json_object_new_object();
    json_object *counts = json_object_new_object();
    if (debug == nullptr || counts == nullptr) {
        json_object_put(debug);
        json_object_put(counts);
        reply.reset();
        return 0;
    }
    json_object_object_add(debug, "debug_switch", json_object_new_int(tarn_debug));
    json_object_object_add(reply.get(), "Debug", debug);

    add_int32(counts, "rcv_hand_cnt", rcv_hand_cnt);
    add_int32(counts, "rcv_nbcp_cnt", rcv_nbcp_cnt);
    add_int32(counts, "rcv_nbcp_ip6_cnt", rcv_nbcp_ip6_cnt);
    add_int32(counts, "rcv_local_cnt", rcv_local_cnt);
    json_object_object_add(reply.get(), "Socket_rcvCount", counts);
    return 0;
}
