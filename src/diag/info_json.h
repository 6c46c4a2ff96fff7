// The JSON document of tarn-info (schema 1) and the fields of one neighbor.
#pragma once

#include <utility>
#include <vector>

#include "diag/info_static.h"
#include "diag/info_string.h"

constexpr int INFO_SCHEMA_VERSION = 1;

// The neighbor's members in their fixed order: key and JSON value. The watch compares these to
// name the fields that changed.
using info_json_members = std::vector<std::pair<const char *, info_string>>;
info_json_members info_json_fields(const info_neighbor &neighbor);

// Appends the members as one JSON object.
void info_json_object(const info_json_members &members, info_string &out);

// {"schema":1,"neighbors":[...]} followed by a newline.
info_string info_json_document(const std::vector<info_neighbor> &neighbors);
