#include "util/ipv4_text.h"

#include <arpa/inet.h>

#include <array>
#include <cstdint>

namespace {

constexpr size_t MAX_PARTS = 4;
constexpr uint64_t PART_OVERFLOW = UINT64_C(1) << 32;

int digit_value(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// Reads one part from the front of `rest` and leaves `rest` after it. The base follows C
// notation; a value past 32 bits is kept at PART_OVERFLOW so that no length of digits wraps.
bool read_part(std::string_view &rest, uint64_t &value) {
    if (rest.empty() || rest[0] < '0' || rest[0] > '9') {
        return false;
    }
    int base = 10;
    size_t at = 0;
    if (rest[0] == '0') {
        base = 8;
        at = 1;
        // "0x" counts as a prefix only before a hexadecimal digit: otherwise the part is the
        // zero and the 'x' is junk after it.
        if (rest.size() > 2 && (rest[1] == 'x' || rest[1] == 'X') && digit_value(rest[2]) >= 0) {
            base = 16;
            at = 2;
        }
    }
    value = 0;
    for (; at < rest.size(); ++at) {
        int digit = digit_value(rest[at]);
        if (digit < 0 || digit >= base) {
            break;
        }
        value = value * base + static_cast<uint64_t>(digit);
        if (value > PART_OVERFLOW) {
            value = PART_OVERFLOW;
        }
    }
    rest.remove_prefix(at);
    return true;
}

}  // namespace

in_addr_t ipv4_from_text(std::string_view text) {
    std::array<uint64_t, MAX_PARTS> parts{};
    size_t count = 0;
    std::string_view rest = text;
    while (true) {
        if (count == MAX_PARTS || !read_part(rest, parts[count])) {
            return INADDR_NONE;
        }
        ++count;
        if (rest.empty()) {
            break;
        }
        if (rest[0] != '.') {
            return INADDR_NONE;
        }
        rest.remove_prefix(1);
    }

    uint32_t address = 0;
    for (size_t i = 0; i + 1 < count; ++i) {
        if (parts[i] > 0xff) {
            return INADDR_NONE;
        }
        address |= static_cast<uint32_t>(parts[i]) << (24 - 8 * i);
    }
    // The last part fills every byte the others left.
    const uint64_t last_max = (UINT64_C(1) << (8 * (MAX_PARTS - count + 1))) - 1;
    if (parts[count - 1] > last_max) {
        return INADDR_NONE;
    }
    address |= static_cast<uint32_t>(parts[count - 1]);
    return htonl(address);
}
