#include "ubus/bus_status.h"

#include <array>
#include <cstddef>

const char *bus_strerror(int status) {
    static constexpr std::array<const char *, 11> texts = {
        "Success",           "Invalid command",   "Invalid argument",
        "Method not found",  "Not found",         "No response",
        "Permission denied", "Request timed out", "Operation not supported",
        "Unknown error",     "Connection failed",
    };
    if (status < 0 || static_cast<size_t>(status) >= texts.size()) {
        return "Unknown error";
    }
    return texts[static_cast<size_t>(status)];
}
