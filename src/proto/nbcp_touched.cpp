#include "proto/nbcp_touched.h"

#include <algorithm>
#include <cstring>

nbcp_touched::nbcp_touched(const nbcp_msg *msg)
    : base_(reinterpret_cast<uintptr_t>(msg) / LINE * LINE) {}

size_t nbcp_touched::clear_lines(nbcp_msg *msg) {
    const uintptr_t record_begin = reinterpret_cast<uintptr_t>(msg);
    const uintptr_t record_end = record_begin + sizeof(nbcp_msg);
    size_t blocks = 0;
    for (size_t w = first_word_; w < last_word_; ++w) {
        uint64_t bits = words_[w];
        blocks += bits != 0;
        while (bits != 0) {  // one memset per run of written lines: a record's head is one run
            const unsigned first = static_cast<unsigned>(__builtin_ctzll(bits));
            const uint64_t from_first = bits >> first;
            const unsigned run = from_first == ~uint64_t{0}
                                     ? 64
                                     : static_cast<unsigned>(__builtin_ctzll(~from_first));
            const uintptr_t begin = std::max(base_ + (w * 64 + first) * LINE, record_begin);
            const uintptr_t end = std::min(base_ + (w * 64 + first + run) * LINE, record_end);
            if (end > begin) {
                std::memset(reinterpret_cast<void *>(begin), 0, end - begin);
            }
            bits = first + run >= 64 ? 0 : bits & (~uint64_t{0} << (first + run));
        }
        words_[w] = 0;
    }
    first_word_ = WORDS;
    last_word_ = 0;
    return blocks;
}
