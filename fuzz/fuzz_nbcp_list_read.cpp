// Feeds arbitrary neighbor-list replies to nbcp_list_read with arrays of exactly the capacity
// the readers use (67 and 8 records). Checks that the count never exceeds the capacity, that
// strings stay terminated, and that the entries read survive being listed and read again.
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_invariants.h"
#include "proto/nbcp.h"

namespace {

void check_relisted(const std::vector<ap_info> &entries, size_t n) {
    std::vector<uint8_t> out(NBCP_LIST_MAX);
    local_msg_hdr hdr{};
    uint32_t off = nbcp_list_put(out.data(), nullptr, &hdr, NBCP_LIST_PIECE_HEADER);
    for (size_t i = 0; i < n; ++i) {
        off += nbcp_list_put(out.data() + off, &entries[i], nullptr, NBCP_LIST_PIECE_ENTRY);
    }
    off += nbcp_list_put(out.data() + off, nullptr, nullptr, NBCP_LIST_PIECE_END);
    FUZZ_CHECK(off <= NBCP_LIST_MAX);
    // Listed again, sparse entries grow to full ones; compare only when the whole list still
    // fits the reader's walk.
    if (off - NBCP_LIST_HDR_LEN - NBCP_END_LEN > NBCP_LIST_WALK_LIMIT) {
        return;
    }
    std::vector<ap_info> again(n == 0 ? 1 : n);
    FUZZ_CHECK(nbcp_list_read(out.data(), off, again.data(), n) == n);
    for (size_t i = 0; i < n; ++i) {
        FUZZ_CHECK(same_carried_info(again[i], entries[i]));
    }
}

void read_with_capacity(const uint8_t *reply, size_t size, size_t capacity) {
    // Exactly capacity records on the heap: a store past the last one is an ASan report.
    std::vector<ap_info> entries(capacity);
    size_t n = nbcp_list_read(reply, size, entries.data(), capacity);
    FUZZ_CHECK(n <= capacity);
    for (const ap_info &e : entries) {
        FUZZ_CHECK(terminated(e.tenantId) && terminated(e.version) && terminated(e.name));
    }
    check_relisted(entries, n);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::unique_ptr<uint8_t[]> reply = exact_copy(data, size);
    read_with_capacity(reply.get(), size, NGB_HASH_SIZE);
    read_with_capacity(reply.get(), size, STATIC_NGBR_MAX);
    return 0;
}
