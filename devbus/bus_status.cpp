#include "devbus/bus_status.h"

#include <array>
#include <cstddef>

std::string bus_strerror(int status) {
    static constexpr std::array<const char *, 14> texts = {
        "Success",
        "Invalid command",
        "Invalid argument",
        "Method not found",
        "Not found",
        "No response",
        "Permission denied",
        "Request timed out",
        "Operation not supported",
        "Unknown error",
        "Connection failed",
        "Out of memory",
        "Parsing message data failed",
        "System error",
    };
    if (status < 0 || static_cast<size_t>(status) >= texts.size()) {
        return "Unknown error: " + std::to_string(status);
    }
    return texts[static_cast<size_t>(status)];
}
