// IPv4 text conversion: the AP's C library's answer for every text, whatever the build's libc.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "util/ipv4_text.h"

namespace {

constexpr const char *NONE = "255.255.255.255";

std::string dotted(in_addr_t address) {
    char text[INET_ADDRSTRLEN] = {};
    in_addr a{};
    a.s_addr = address;
    inet_ntop(AF_INET, &a, text, sizeof text);
    return text;
}

TEST(Ipv4Text, ConvertsAsMusl) {
    const struct {
        std::string text;
        const char *address;
    } cases[] = {
        // Four parts, each at its limit and one past it.
        {"10.0.0.5", "10.0.0.5"},
        {"255.255.255.255", "255.255.255.255"},
        {"256.0.0.1", NONE},
        {"1.256.0.1", NONE},
        {"1.0.256.1", NONE},
        {"1.0.0.256", NONE},
        // Three parts: the last fills two bytes.
        {"10.1.65535", "10.1.255.255"},
        {"10.1.65536", NONE},
        {"10.256.1", NONE},
        // Two parts: the last fills three bytes.
        {"10.16777215", "10.255.255.255"},
        {"10.16777216", NONE},
        {"256.1", NONE},
        // One part: all four bytes.
        {"4294967295", "255.255.255.255"},
        {"4294967296", NONE},
        {"167772165", "10.0.0.5"},
        {"0", "0.0.0.0"},
        {"99999999999999999999999", NONE},  // does not wrap back into range
        // Five parts.
        {"1.2.3.4.5", NONE},
        // Bases: 0x (either case) hexadecimal, leading 0 octal, in every part.
        {"0xa.0X0.00.05", "10.0.0.5"},
        {"0xff.0377.255.0xFF", "255.255.255.255"},
        {"0x100.0.0.1", NONE},
        {"0400.0.0.1", NONE},
        {"0xffffffff", "255.255.255.255"},
        {"0x100000000", NONE},
        {"037777777777", "255.255.255.255"},
        {"040000000000", NONE},
        {"10.0xffff", "10.0.255.255"},
        {"10.0.0x10000", NONE},
        {"08.0.0.1", NONE},  // 8 is no octal digit
        {"0x.0.0.1", NONE},  // a prefix without a digit
        {"0xg", NONE},
        // Junk before, after and between; empty parts; signs.
        {"10.0.0.5 ", NONE},
        {" 10.0.0.5", NONE},
        {"10.0.0.5\n", NONE},
        {"10.0.0.5x", NONE},
        {"10.0.0.5.", NONE},
        {".10.0.0.5", NONE},
        {"10..0.5", NONE},
        {"+10.0.0.5", NONE},
        {"10.-1.0.5", NONE},
        {"", NONE},
        {".", NONE},
        {std::string("10.0.0.5\0junk", 13), NONE},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("text \"" + c.text + "\"");
        EXPECT_EQ(dotted(ipv4_from_text(c.text)), c.address);
    }
}

}  // namespace
