// Reading a request's named arguments by type, with the rules of blobmsg policy parsing.
#pragma once

#include <json-c/json.h>

#include <cstddef>

enum class arg_type { array, table, string, int32 };

struct arg_policy {
    const char *name;
    arg_type type;
};

// The name the ubus command lists a type by: "Array", "Table", "String", "Integer".
const char *arg_type_name(arg_type type);

// True when value has the policy type: an integer counts as int32 only when it fits 32 bits.
bool arg_has_type(json_object *value, arg_type type);

// Fills found[i] with the member of request named policy[i].name when that member has the
// policy's type, else null (a member of another type counts as absent). Returns -1, with every
// found[i] null, when the request is no object at all (the message cannot be parsed); else 0.
int parse_args_json(const arg_policy *policy, size_t count, json_object *request,
                    json_object **found);
