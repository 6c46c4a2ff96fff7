#include "core/recv_area.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <ctime>

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

// More resident blocks than this after one decode count as spread out.
constexpr size_t SPREAD_BLOCKS = 16;
constexpr long RELEASE_INTERVAL_MS = 1000;

long monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000L + now.tv_nsec / 1000000L;
}

}  // namespace

nbcp_decode_area::nbcp_decode_area() : touched(&msg) {
    std::memset(&msg, 0, sizeof msg);
    release_pages(&msg, sizeof msg);
}

int nbcp_decode_area::parse(const uint8_t *data, size_t len) {
    if (touched.clear(&msg) > SPREAD_BLOCKS) {
        spread_ = true;
    }
    if (spread_) {
        release_spread_pages();
    }
    return nbcp_parse(data, len, &msg, &touched);
}

void nbcp_decode_area::release_spread_pages() {
    const long now = monotonic_ms();
    if (now < next_release_ms_) {
        return;
    }
    release_pages(&msg, sizeof msg);  // already all zero: only residency changes
    spread_ = false;
    next_release_ms_ = now + RELEASE_INTERVAL_MS;
}

received_datagram::received_datagram(int sock, void *from, socklen_t *from_len, int kind) {
    ssize_t received = RecvMsg(sock, buffer, RECV_MAX, from, from_len, kind);
    size_ = received > 0 ? static_cast<size_t>(received) : 0;
}

received_datagram::~received_datagram() {
    std::memset(buffer, 0, size_);
}
