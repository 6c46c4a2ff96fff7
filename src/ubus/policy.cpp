#include "ubus/policy.h"

#include <cstdint>

const char *arg_type_name(arg_type type) {
    switch (type) {
        case arg_type::array:
            return "Array";
        case arg_type::table:
            return "Table";
        case arg_type::string:
            return "String";
        case arg_type::int32:
            return "Integer";
    }
    return "(unknown)";
}

bool arg_has_type(json_object *value, arg_type type) {
    switch (type) {
        case arg_type::array:
            return json_object_is_type(value, json_type_array);
        case arg_type::table:
            return json_object_is_type(value, json_type_object);
        case arg_type::string:
            return json_object_is_type(value, json_type_string);
        case arg_type::int32: {
            if (!json_object_is_type(value, json_type_int)) {
                return false;
            }
            // json-c saturates values beyond int64 to its limits, which also fall outside int32.
            int64_t number = json_object_get_int64(value);
            return number >= INT32_MIN && number <= INT32_MAX;
        }
    }
    return false;
}

int parse_args_json(const arg_policy *policy, size_t count, json_object *request,
                    json_object **found) {
    for (size_t i = 0; i < count; ++i) {
        found[i] = nullptr;
    }
    if (!json_object_is_type(request, json_type_object)) {
        return -1;
    }
    for (size_t i = 0; i < count; ++i) {
        json_object *member = nullptr;
        if (json_object_object_get_ex(request, policy[i].name, &member) &&
            arg_has_type(member, policy[i].type)) {
            found[i] = member;
        }
    }
    return 0;
}
