#include "core/recv_area.h"

#include <sys/mman.h>
#include <unistd.h>

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

}  // namespace

nbcp_decode_area::nbcp_decode_area() : touched(&msg) {
    std::memset(&msg, 0, sizeof msg);
    release_pages(&msg, sizeof msg);
}

int nbcp_decode_area::parse(const uint8_t *data, size_t len) {
    touched.clear(&msg);
    return nbcp_parse(data, len, &msg, &touched);
}

received_datagram::received_datagram(int sock, void *from, socklen_t *from_len, int kind) {
    ssize_t received = RecvMsg(sock, buffer, RECV_MAX, from, from_len, kind);
    size_ = received > 0 ? static_cast<size_t>(received) : 0;
}

received_datagram::~received_datagram() {
    std::memset(buffer, 0, size_);
}
