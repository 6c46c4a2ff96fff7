// Status numbers of bus calls, numbered as the platform's ubus numbers them so that scripts
// written against `ubus call` read the embedded bus the same way.
#pragma once

#include <string>

enum bus_status : int {
    BUS_STATUS_OK = 0,
    BUS_STATUS_INVALID_COMMAND = 1,
    BUS_STATUS_INVALID_ARGUMENT = 2,
    BUS_STATUS_METHOD_NOT_FOUND = 3,
    BUS_STATUS_NOT_FOUND = 4,
    BUS_STATUS_NO_DATA = 5,
    BUS_STATUS_PERMISSION_DENIED = 6,
    BUS_STATUS_TIMEOUT = 7,
    BUS_STATUS_NOT_SUPPORTED = 8,
    BUS_STATUS_UNKNOWN_ERROR = 9,
    BUS_STATUS_CONNECTION_FAILED = 10,
    BUS_STATUS_NO_MEMORY = 11,
    BUS_STATUS_PARSE_ERROR = 12,
    BUS_STATUS_SYSTEM_ERROR = 13,
};

// The text the ubus command prints for a status ("Unknown error: N" outside the known ones).
std::string bus_strerror(int status);
