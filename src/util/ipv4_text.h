// IPv4 dotted text to address, with the same answer on every C library.
#pragma once

#include <netinet/in.h>

#include <string_view>

// Converts `text` as the AP's C library (musl) does, so the lab and the AP agree on every text:
// 1 to 4 parts separated by '.', each a C-notation number (decimal, 0x hexadecimal, 0 octal)
// that begins with a digit; every part but the last is at most 255, the last at most what the
// bytes it fills hold (4, 3, 2 or 1 of them); nothing before or after. Returns the address in
// network byte order, or INADDR_NONE (255.255.255.255) for any other text.
in_addr_t ipv4_from_text(std::string_view text);
