#include "proto/nbcp_touched.h"

#include <algorithm>
#include <cstring>

nbcp_touched::nbcp_touched(const nbcp_msg *msg)
    : base_(reinterpret_cast<uintptr_t>(msg) / LINE * LINE) {}

size_t nbcp_touched::clear(nbcp_msg *msg) {
    size_t blocks = 0;
    const uintptr_t record_begin = reinterpret_cast<uintptr_t>(msg);
    const uintptr_t record_end = record_begin + sizeof(nbcp_msg);
    for (size_t w = first_word_; w < last_word_; ++w) {
        blocks += words_[w] != 0;
        for (uint64_t bits = words_[w]; bits != 0; bits &= bits - 1) {
            const size_t line = w * 64 + static_cast<size_t>(__builtin_ctzll(bits));
            const uintptr_t line_begin = base_ + line * LINE;
            if (line_begin >= record_begin && line_begin + LINE <= record_end) {
                std::memset(reinterpret_cast<void *>(line_begin), 0, LINE);  // a few stores
                continue;
            }
            const uintptr_t begin = std::max(line_begin, record_begin);
            const uintptr_t end = std::min(line_begin + LINE, record_end);
            std::memset(reinterpret_cast<void *>(begin), 0, end - begin);
        }
        words_[w] = 0;
    }
    first_word_ = WORDS;
    last_word_ = 0;
    return blocks;
}

size_t nbcp_touched::lines() const {
    size_t n = 0;
    for (uint64_t w : words_) {
        n += static_cast<size_t>(__builtin_popcountll(w));
    }
    return n;
}
