// Owning handle of a json-c value.
#pragma once

#include <json-c/json.h>

#include <memory>

struct json_put_deleter {
    void operator()(json_object *value) const { json_object_put(value); }
};

// Releases its value with json_object_put: replies and parsed requests never leak on an early
// return.
using json_ref = std::unique_ptr<json_object, json_put_deleter>;
