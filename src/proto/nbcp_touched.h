// What decoding wrote into a parse record: the head every decode writes, as one length, and the
// lines of the lists past it. The receive thread keeps one parse record for its whole life and
// clears, before each decode, only what the previous decode wrote: the record holds the largest
// kind (about 1.7 MiB), while most datagrams fill a few hundred bytes.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "proto/nbcp_records.h"

class nbcp_touched {
  public:
    // Lines are aligned to addresses, not to the record, so that clearing one never reaches
    // into a memory page the decode did not write.
    static constexpr size_t LINE = 64;

    // Tracks writes into *msg, whose bytes must all be zero now.
    explicit nbcp_touched(const nbcp_msg *msg);

    // Records that the record's first n bytes were written: kind and the head of the message
    // the dispatch marks whole, so one length covers the part every decode writes.
    void mark_head(size_t n) { head_ = std::max(head_, n); }

    // Records that the n bytes at p (inside the record) were written.
    void mark(const void *p, size_t n) {
        const uintptr_t begin = reinterpret_cast<uintptr_t>(p) - base_;
        const size_t first = begin / LINE;
        const size_t last = (begin + n - 1) / LINE;  // n > 0 for every field
        for (size_t line = first; line <= last; ++line) {
            words_[line / 64] |= uint64_t{1} << (line % 64);
        }
        first_word_ = std::min(first_word_, first / 64);
        last_word_ = std::max(last_word_, last / 64 + 1);
    }

    // Zeroes the head and every line written since the last clear (only the part inside the
    // record) and forgets them: afterwards the whole record reads as zero again. Returns how many
    // 4 KiB blocks held those bytes, i.e. about how many pages the decode made resident.
    size_t clear(nbcp_msg *msg) {
        size_t blocks = 0;
        if (head_ != 0) {
            std::memset(static_cast<void *>(msg), 0, head_);
            head_ = 0;
            blocks = words_[0] == 0;  // the head lies in the first block; lines may share it
        }
        return first_word_ < last_word_ ? blocks + clear_lines(msg) : blocks;
    }

  private:
    size_t clear_lines(nbcp_msg *msg);

    static constexpr size_t LINES = sizeof(nbcp_msg) / LINE + 2;
    static constexpr size_t WORDS = (LINES + 63) / 64;

    uintptr_t base_;
    size_t head_ = 0;
    std::array<uint64_t, WORDS> words_{};
    size_t first_word_ = WORDS;
    size_t last_word_ = 0;
};

// Marks obj as written (when writes are tracked) and hands it back for writing.
template <typename T>
inline T &nbcp_touch(nbcp_touched *touched, T &obj) {
    if (touched != nullptr) {
        touched->mark(&obj, sizeof obj);
    }
    return obj;
}

// The same for the first n bytes of obj.
template <typename T>
inline T &nbcp_touch_prefix(nbcp_touched *touched, T &obj, size_t n) {
    if (touched != nullptr) {
        touched->mark(&obj, n);
    }
    return obj;
}
