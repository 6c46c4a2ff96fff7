// Golden digests of everything the datagram decoder produces, for the fuzz corpora and for a
// seeded stream of random datagrams of every type: the printed lines, the result, the record's
// bytes and the lines the decode marks as written. The values were taken from a decoder known to
// be right; a changed digest means changed behaviour.
//
// On a mismatch, TARN_GOLDEN_DUMP=DIR writes the full text behind each digest to DIR/<set>.txt,
// to diff against the same dump made from a build of the known-good decoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "core/recv_area.h"
#include "proto/nbcp.h"

namespace {

using bytes = std::vector<uint8_t>;

struct golden_set {
    const char *name;
    uint64_t digest;
};

// FNV-1a, 64 bits.
uint64_t fnv1a(const std::string &text) {
    uint64_t h = 0xcbf29ce484222325;
    for (unsigned char c : text) {
        h = (h ^ c) * 0x100000001b3;
    }
    return h;
}

std::string hex(const uint8_t *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

// splitmix64: the same stream on every platform and library.
class random_bytes {
  public:
    explicit random_bytes(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        uint64_t z = (state_ += 0x9e3779b97f4a7c15);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }
    uint8_t byte() { return static_cast<uint8_t>(next()); }
    // Mostly small: counts and lengths that keep a list walk inside its datagram.
    uint8_t small_byte() { return below(4) == 0 ? byte() : static_cast<uint8_t>(below(7)); }

  private:
    uint64_t state_;
};

// The bytes of the union member that a record of this kind fills (the header for unknown kinds).
size_t record_bytes(uint8_t kind) {
    static const std::pair<uint8_t, size_t> sizes[] = {
        {1, sizeof(nbcp_kind1)},   {2, sizeof(nbcp_kind2)}, {3, sizeof(nbcp_kind3)},
        {4, sizeof(nbcp_kind4)},   {5, sizeof(nbcp_kind5)}, {6, sizeof(nbcp_kind6)},
        {10, sizeof(nbcp_ndrp)},   {11, sizeof(nbcp_ndsp)}, {15, sizeof(nbcp_type15)},
        {16, sizeof(nbcp_type16)},
    };
    for (const auto &s : sizes) {
        if (s.first == kind) {
            return s.second;
        }
    }
    return sizeof(nbcp_hdr);
}

// Decodes datagrams one after another in one decode area, as the receive thread does, and
// writes down what each decode left: its printed lines, result, kind, marked lines and every
// non-zero byte of the record. The record is read over this kind's bytes and the previous
// one's, so a byte the clearing missed shows up too.
class decode_log {
  public:
    // The marked lines lie on 64-byte address boundaries: the area is placed on one, so that
    // their count does not depend on where the allocator puts it.
    decode_log()
        : area_(new (std::aligned_alloc(nbcp_touched::LINE, AREA_BYTES)) nbcp_decode_area()) {}

    void decode(const bytes &datagram) {
        const bytes copy = datagram;  // exactly its size, so a read past the end is caught
        testing::internal::CaptureStdout();
        int result = area_->parse(copy.data(), copy.size());
        std::fflush(stdout);
        std::string printed = testing::internal::GetCapturedStdout();
        const uint8_t kind = area_->msg.kind;
        text_ += "in " + hex(copy.data(), copy.size()) + "\n" + printed;
        text_ += "result " + std::to_string(result) + " kind " + std::to_string(kind) + " lines " +
                 std::to_string(area_->touched.lines()) + "\n";
        size_t span = std::max(record_bytes(kind), previous_bytes_);
        append_nonzero(reinterpret_cast<const uint8_t *>(&area_->msg.m), span);
        previous_bytes_ = record_bytes(kind);
    }

    void read_list(const bytes &reply) {
        const bytes copy = reply;
        constexpr size_t CAPACITY = 67;  // as `tarn show` reads it
        std::vector<ap_info> entries(CAPACITY);
        size_t n = nbcp_list_read(copy.data(), copy.size(), entries.data(), CAPACITY);
        text_ += "list " + hex(copy.data(), copy.size()) + "\nentries " + std::to_string(n) + "\n";
        append_nonzero(reinterpret_cast<const uint8_t *>(entries.data()),
                       CAPACITY * sizeof(ap_info));
    }

    const std::string &text() const { return text_; }

  private:
    void append_nonzero(const uint8_t *p, size_t n) {
        for (size_t at = 0; at < n; at += 16) {
            size_t width = std::min<size_t>(16, n - at);
            if (std::any_of(p + at, p + at + width, [](uint8_t b) { return b != 0; })) {
                text_ += std::to_string(at) + ": " + hex(p + at, width) + "\n";
            }
        }
    }

    static constexpr size_t AREA_BYTES = (sizeof(nbcp_decode_area) + nbcp_touched::LINE - 1) /
                                         nbcp_touched::LINE * nbcp_touched::LINE;
    struct area_free {
        void operator()(nbcp_decode_area *area) const {
            area->~nbcp_decode_area();
            std::free(area);
        }
    };
    std::unique_ptr<nbcp_decode_area, area_free> area_;
    size_t previous_bytes_ = sizeof(nbcp_msg::m);
    std::string text_;
};

std::string source_dir() {
    std::string file = __FILE__;
    return file.substr(0, file.rfind("/tests/unit/"));
}

std::vector<bytes> corpus(const std::string &target) {
    std::vector<std::filesystem::path> names;
    for (const auto &entry :
         std::filesystem::directory_iterator(source_dir() + "/fuzz/corpus/" + target)) {
        names.push_back(entry.path());
    }
    std::sort(names.begin(), names.end());
    std::vector<bytes> files;
    for (const auto &name : names) {
        std::ifstream in(name, std::ios::binary);
        files.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return files;
}

// An element whose code comes mostly from the codes the type knows, with a length that is
// mostly one of the value forms (u8, u32, mac, address, string) and a value of small bytes.
void put_element(random_bytes &rng, bytes &out, uint16_t first_code, uint16_t codes) {
    uint16_t code = rng.below(8) == 0 ? static_cast<uint16_t>(rng.below(256))
                                      : static_cast<uint16_t>(first_code + rng.below(codes));
    static const uint16_t forms[] = {1, 1, 1, 1, 4, 6, 16};
    uint16_t len = rng.below(8) == 0 ? static_cast<uint16_t>(rng.below(48))
                                     : forms[rng.below(std::size(forms))];
    out.insert(out.end(), {static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code),
                           static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)});
    for (uint16_t i = 0; i < len; ++i) {
        out.push_back(rng.small_byte());
    }
}

// The codes each type's elements are mostly drawn from: first code and count.
std::pair<uint16_t, uint16_t> code_range(uint8_t type) {
    static const std::pair<uint16_t, uint16_t> kinds[] = {{15, 11}, {31, 12}, {51, 16},
                                                          {70, 10}, {89, 22}, {81, 6}};
    if (type == NBCP_TYPE_NDRP) {
        return {128, 5};
    }
    if (type == NBCP_TYPE_NDSP) {
        return {134, 23};
    }
    uint8_t kind = type > NBCP_KIND_TLV_OFFSET ? type - NBCP_KIND_TLV_OFFSET : type;
    if (kind >= NBCP_KIND_MIN && kind <= NBCP_KIND_MAX) {
        return kinds[kind - NBCP_KIND_MIN];
    }
    return {1, 160};
}

bytes random_datagram(random_bytes &rng, uint8_t type) {
    bytes d = {rng.below(2) == 0 ? uint8_t{0} : rng.byte(), rng.byte(), rng.byte(), type};
    for (int i = 0; i < 6; ++i) {
        d.push_back(rng.byte());
    }
    switch (rng.below(4)) {
        case 0:  // fixed-layout bytes, or garbage
            for (uint32_t n = rng.below(700); n > 0; --n) {
                d.push_back(rng.small_byte());
            }
            break;
        default: {  // elements, ended by a zero type or not
            auto [first, codes] = code_range(type);
            for (uint32_t n = rng.below(120); n > 0; --n) {
                put_element(rng, d, first, codes);
            }
            if (rng.below(2) == 0) {
                d.insert(d.end(), {0, 0});
            }
        }
    }
    if (rng.below(6) == 0) {  // truncated, possibly inside the header
        d.resize(rng.below(static_cast<uint32_t>(d.size()) + 1));
    }
    return d;
}

std::vector<bytes> random_datagrams() {
    random_bytes rng(0x7461726e);
    std::vector<bytes> all;
    for (int type = 0; type < 256; ++type) {
        const nbcp_msg_type known[] = {NBCP_TYPE_NDRP, NBCP_TYPE_NDSP, NBCP_TYPE_15, NBCP_TYPE_16};
        bool parsed = (type >= 1 && type <= 6) || (type >= 21 && type <= 26) ||
                      std::find(std::begin(known), std::end(known), type) != std::end(known);
        for (int n = parsed ? 200 : 4; n > 0; --n) {
            all.push_back(random_datagram(rng, static_cast<uint8_t>(type)));
        }
    }
    return all;
}

void expect_golden(const golden_set &set, const std::string &text) {
    if (const char *dir = std::getenv("TARN_GOLDEN_DUMP")) {
        std::ofstream(std::string(dir) + "/" + set.name + ".txt") << text;
    }
    EXPECT_EQ(fnv1a(text), set.digest) << set.name << ": 0x" << std::hex << fnv1a(text)
                                       << " (TARN_GOLDEN_DUMP=DIR writes the text behind it)";
}

TEST(NbcpGolden, FuzzCorpora) {
    const std::vector<bytes> datagrams = corpus("parse");
    const std::vector<bytes> replies = corpus("list");
    ASSERT_FALSE(datagrams.empty() || replies.empty());
    decode_log parsed;
    for (const bytes &d : datagrams) {
        parsed.decode(d);
    }
    decode_log lists;
    for (const bytes &l : replies) {
        lists.read_list(l);
    }
    expect_golden({"corpus_parse", 0x085f1fe659ee2bb9}, parsed.text());
    expect_golden({"corpus_list", 0x22df9c775ae37ded}, lists.text());
}

TEST(NbcpGolden, RandomDatagramsOfEveryType) {
    decode_log log;
    for (const bytes &d : random_datagrams()) {
        log.decode(d);
    }
    expect_golden({"random", 0x71aced426e757a20}, log.text());
}

}  // namespace
