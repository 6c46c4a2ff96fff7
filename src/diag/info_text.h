// Texts of tarn-info's outputs: the one rule that makes every received text valid UTF-8, and
// the escaping of each output format applied to its result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "diag/info_string.h"
#include "neighbor/ap_info.h"

// A received text field up to its terminating zero, or its whole capacity when it has none.
template <size_t N>
std::string_view info_field(const char (&field)[N]) {
    size_t len = 0;
    while (len < N && field[len] != '\0') {
        ++len;
    }
    return std::string_view(field, len);
}

// Appends raw made valid UTF-8: well-formed sequences are kept, except that a backslash becomes
// two backslashes; every byte that is not part of a well-formed sequence (overlong forms,
// surrogates, code points above U+10FFFF, truncated or stray bytes) becomes the four characters
// \xHH. The result is unambiguous: each \x in it stands for one byte that was received.
void info_utf8_clean(std::string_view raw, info_string &out);

// Appends text as a JSON string, quotes included: quote and backslash escaped, control
// characters as \u00XX.
void info_json_string(std::string_view text, info_string &out);

// Appends text as the inside of a Prometheus label value: backslash, double quote and newline
// escaped.
void info_prom_label(std::string_view text, info_string &out);

// The name of a state number; "unknown" for anything other than the five the daemon uses.
const char *info_state_name(uint8_t state);

// Decimal text of a number (one out-of-line function instead of std::to_string's inline code
// at every use: tarn-info is small).
info_string info_number(long long value);

// "aa:bb:cc:dd:ee:ff", lower case.
info_string info_mac_text(const mac_addr &mac);

// Dotted text of an IPv4 address held in network byte order; empty when it is all zero.
info_string info_ipv4_text(uint32_t address);

// Text of an IPv6 address; empty when it is all zero.
info_string info_ipv6_text(const ip6_addr &address);
