#include "core/recv_area.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "core/settings.h"
#include "util/local_socket.h"

namespace {

// Returns the whole pages inside [p, p + n) to the kernel; they read as zero afterwards.
void release_pages(void *p, size_t n) {
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(p) + page - 1) / page * page;
    const uintptr_t end = (reinterpret_cast<uintptr_t>(p) + n) / page * page;
    if (end > begin) {
        madvise(reinterpret_cast<void *>(begin), end - begin, MADV_DONTNEED);
    }
}

// More resident blocks than this after one decode count as spread out. Below it, the pages
// stay resident for the next datagram (no fault per datagram for the ordinary kinds); their
// bytes are cleared all the same.
constexpr size_t SPREAD_BLOCKS = 16;

// Zeroes [p, p + n) writing only the parts of pages at its two ends.
void zero_untouched(void *p, size_t n) {
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = reinterpret_cast<uintptr_t>(p);
    const uintptr_t end = begin + n;
    const uintptr_t inner_begin = std::min((begin + page - 1) / page * page, end);
    const uintptr_t inner_end = std::max(end / page * page, inner_begin);
    std::memset(p, 0, inner_begin - begin);
    std::memset(reinterpret_cast<void *>(inner_end), 0, end - inner_end);
    release_pages(p, n);
}

}  // namespace

nbcp_decode_area::nbcp_decode_area() : touched(&msg) {
    zero_untouched(&msg, sizeof msg);
}

int nbcp_decode_area::parse(const uint8_t *data, size_t len) {
    touched.clear(&msg);
    return nbcp_parse(data, len, &msg, &touched);
}

void nbcp_decode_area::finish() {
    if (touched.clear(&msg) > SPREAD_BLOCKS) {
        release_pages(&msg, sizeof msg);  // already all zero: only residency changes
    }
}

received_datagram::received_datagram(int sock, void *from, socklen_t *from_len, int kind) {
    ssize_t received = RecvMsg(sock, buffer, RECV_MAX, from, from_len, kind);
    size_ = received > 0 ? static_cast<size_t>(received) : 0;
}

received_datagram::~received_datagram() {
    std::memset(buffer, 0, size_);
}
