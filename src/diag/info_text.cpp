#include "diag/info_text.h"

#include <arpa/inet.h>

#include <cstdio>

namespace {

constexpr char HEX[] = "0123456789abcdef";

void append_hex_byte(uint8_t byte, info_string &out) {
    out += "\\x";
    out += HEX[byte >> 4];
    out += HEX[byte & 0xf];
}

bool is_continuation(uint8_t byte) {
    return (byte & 0xc0) == 0x80;
}

// Length of the well-formed sequence that starts at text[at], or 0 when none does. The second
// byte's range excludes overlong forms, surrogates and values above U+10FFFF.
size_t sequence_length(std::string_view text, size_t at) {
    auto byte = [&](size_t i) { return static_cast<uint8_t>(text[at + i]); };
    uint8_t lead = byte(0);
    size_t len;
    uint8_t second_min = 0x80;
    uint8_t second_max = 0xbf;
    if (lead < 0x80) {
        return 1;
    } else if (lead >= 0xc2 && lead <= 0xdf) {
        len = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        len = 3;
        second_min = lead == 0xe0 ? 0xa0 : 0x80;
        second_max = lead == 0xed ? 0x9f : 0xbf;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        len = 4;
        second_min = lead == 0xf0 ? 0x90 : 0x80;
        second_max = lead == 0xf4 ? 0x8f : 0xbf;
    } else {
        return 0;
    }
    if (text.size() - at < len || byte(1) < second_min || byte(1) > second_max) {
        return 0;
    }
    for (size_t i = 2; i < len; ++i) {
        if (!is_continuation(byte(i))) {
            return 0;
        }
    }
    return len;
}

}  // namespace

void info_utf8_clean(std::string_view raw, info_string &out) {
    size_t at = 0;
    while (at < raw.size()) {
        size_t len = sequence_length(raw, at);
        if (len == 0) {
            append_hex_byte(static_cast<uint8_t>(raw[at]), out);
            len = 1;
        } else if (raw[at] == '\\') {
            out += "\\\\";
        } else {
            out.append(raw, at, len);
        }
        at += len;
    }
}

void info_json_string(std::string_view text, info_string &out) {
    out += '"';
    for (char c : text) {
        auto byte = static_cast<uint8_t>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            out += "\\u00";
            out += HEX[byte >> 4];
            out += HEX[byte & 0xf];
        } else {
            out += c;
        }
    }
    out += '"';
}

void info_prom_label(std::string_view text, info_string &out) {
    for (char c : text) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
}

const char *info_state_name(uint8_t state) {
    switch (state) {
        case AP_STATE_ACTIVE:
            return "active";
        case AP_STATE_OFFLINE:
            return "offline";
        case AP_STATE_WIRELESS_AGEING:
            return "wireless_ageing";
        case AP_STATE_STATIC_ACTIVE:
            return "static_active";
        case AP_STATE_STATIC_OFFLINE:
            return "static_offline";
        default:
            return "unknown";
    }
}

info_string info_number(long long value) {
    char text[24];
    snprintf(text, sizeof text, "%lld", value);
    return text;
}

info_string info_mac_text(const mac_addr &mac) {
    char text[18];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return text;
}

info_string info_ipv4_text(uint32_t address) {
    char text[INET_ADDRSTRLEN] = "";
    if (address != 0) {
        inet_ntop(AF_INET, &address, text, sizeof text);
    }
    return text;
}

info_string info_ipv6_text(const ip6_addr &address) {
    char text[INET6_ADDRSTRLEN] = "";
    if (address != ip6_addr{}) {
        inet_ntop(AF_INET6, address.data(), text, sizeof text);
    }
    return text;
}
