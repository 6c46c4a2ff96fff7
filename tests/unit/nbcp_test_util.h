// Test helpers for the nbcp codec: a byte writer that knows nothing of the codec (so the
// inputs of the parser tests do not depend on the builders), and stdout capture.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "proto/nbcp.h"

class tlv_bytes {
  public:
    // Header with the given type, all other header fields zero unless given.
    static tlv_bytes message(uint8_t type, uint8_t flag = 0) {
        tlv_bytes t;
        t.b_ = {flag, 0, 0, type, 0, 0, 0, 0, 0, 0};
        return t;
    }
    // The 8-byte local header of a neighbor-list reply (op 51 in host order).
    static tlv_bytes list_reply() {
        tlv_bytes t;
        t.b_.assign(8, 0);
        uint16_t op = 51;
        std::memcpy(&t.b_[4], &op, 2);
        return t;
    }

    tlv_bytes &raw(const std::vector<uint8_t> &bytes) {
        b_.insert(b_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    tlv_bytes &be16(uint16_t v) { return raw({uint8_t(v >> 8), uint8_t(v)}); }
    tlv_bytes &be32(uint32_t v) {
        return raw({uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
    }
    // Element whose length field is the size of value.
    tlv_bytes &el(uint16_t type, const std::vector<uint8_t> &value) {
        return el_len(type, static_cast<uint16_t>(value.size()), value);
    }
    // Element with an arbitrary length field in front of value.
    tlv_bytes &el_len(uint16_t type, uint16_t len, const std::vector<uint8_t> &value) {
        be16(type);
        be16(len);
        return raw(value);
    }
    tlv_bytes &u8(uint16_t type, uint8_t v) { return el(type, {v}); }
    tlv_bytes &u32(uint16_t type, uint32_t v) {
        return el(type, {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
    }
    template <size_t N>
    tlv_bytes &bytes(uint16_t type, const std::array<uint8_t, N> &a) {
        return el(type, std::vector<uint8_t>(a.begin(), a.end()));
    }
    tlv_bytes &str(uint16_t type, const std::string &s) {
        return el(type, std::vector<uint8_t>(s.begin(), s.end()));
    }
    // Unknown element of len filler bytes.
    tlv_bytes &filler(uint16_t type, uint16_t len) {
        return el(type, std::vector<uint8_t>(len, 0xEE));
    }
    tlv_bytes &end() { return be16(0); }

    const std::vector<uint8_t> &bytes() const { return b_; }
    size_t size() const { return b_.size(); }

  private:
    std::vector<uint8_t> b_;
};

// Value-initialised, so every byte (padding included) starts at zero.
inline std::unique_ptr<nbcp_msg> zeroed_msg() {
    return std::unique_ptr<nbcp_msg>(new nbcp_msg());
}

struct parse_outcome {
    int result;
    std::string out;
};

// nbcp_parse over a heap copy of exactly the datagram's size, with standard output captured.
inline parse_outcome parse_captured(const std::vector<uint8_t> &datagram, nbcp_msg *msg) {
    std::unique_ptr<uint8_t[]> exact(new uint8_t[datagram.size() + (datagram.empty() ? 1 : 0)]);
    if (!datagram.empty()) {
        std::memcpy(exact.get(), datagram.data(), datagram.size());
    }
    testing::internal::CaptureStdout();
    int result = nbcp_parse(exact.get(), datagram.size(), msg);
    std::fflush(stdout);
    return parse_outcome{result, testing::internal::GetCapturedStdout()};
}

inline std::vector<uint8_t> hex(const std::string &text) {
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c))) {
            digits += c;
        }
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

// Element types of a TLV body, in order, read without the codec (stops at a zero type).
inline std::vector<uint16_t> element_types(const uint8_t *p, size_t len) {
    std::vector<uint16_t> types;
    size_t pos = 0;
    while (pos + 4 <= len) {
        uint16_t type = static_cast<uint16_t>(p[pos] << 8 | p[pos + 1]);
        uint16_t vlen = static_cast<uint16_t>(p[pos + 2] << 8 | p[pos + 3]);
        if (type == 0) {
            break;
        }
        types.push_back(type);
        pos += 4 + vlen;
    }
    return types;
}
