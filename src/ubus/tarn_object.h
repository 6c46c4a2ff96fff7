// The bus object "tarn": its eight methods in their published order, and its event listener.
#pragma once

#include <cstddef>

#include "ubus/methods.h"

constexpr const char *TARN_OBJECT_NAME = "tarn";
constexpr size_t TARN_METHOD_COUNT = 8;

extern const method_entry tarn_methods[TARN_METHOD_COUNT];
