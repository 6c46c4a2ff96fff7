#include <cstring>

#include "ubus/methods.h"

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
