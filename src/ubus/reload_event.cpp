#include <cstring>

#include "static/static_store.h"
#include "static/static_update.h"
#include "ubus/methods.h"
#include "util/log.h"

const arg_policy reload_event_policy[RELOAD_EVENT_ARG_COUNT] = {
    {"ModifiedConfig", arg_type::array}};

namespace {

bool names_static_file(json_object *element) {
    if (!json_object_is_type(element, json_type_string)) {
        return false;
    }
    const char *name = json_object_get_string(element);
    return strcmp(name, "all") == 0 || strcmp(name, "static_neighbor.conf") == 0;
}

}  // namespace

void ubus_reload_event(const char *type, json_object *message) {
    if (message == nullptr) {
        return;
    }
    if (type == nullptr || strcmp(type, RELOAD_EVENT_TYPE) != 0) {
        TARN_DBG("Tarn do not handle the ubus event[%s].\n", type != nullptr ? type : "");
        return;
    }
    json_object *args[RELOAD_EVENT_ARG_COUNT];
    if (parse_args_json(reload_event_policy, RELOAD_EVENT_ARG_COUNT, message, args) < 0) {
        return;
    }
    json_object *modified = args[RELOAD_MODIFIED_CONFIG];
    if (modified == nullptr) {
        return;
    }
    size_t count = json_object_array_length(modified);
    for (size_t i = 0; i < count; ++i) {
        if (!names_static_file(json_object_array_get_idx(modified, i))) {
            continue;
        }
        TARN_DBG("Tarn update static neighbor by ubus event[%s].\n", type);
        load_static_neighbor();
        update_static_neighbor();
    }
}
