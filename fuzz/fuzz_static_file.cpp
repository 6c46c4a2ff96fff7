// Feeds arbitrary files to the static neighbor loader, then saves the list and loads it again.
// Checks that at most 8 nodes are ever held, that the count matches the list, and that a reload
// of what was saved keeps every node (in reverse order: each loaded entry goes to the head).
#include <cstdio>
#include <mutex>
#include <vector>

#include "fuzz_invariants.h"
#include "static/static_store.h"
#include "util/paths.h"

namespace {

struct saved_node {
    mac_addr mac;
    uint32_t ip;
    ip6_addr ip6;
    bool operator==(const saved_node &o) const {
        return mac == o.mac && ip == o.ip && ip6 == o.ip6;
    }
};

std::vector<saved_node> list_nodes() {
    std::lock_guard<std::mutex> guard(stngbr_lock);
    std::vector<saved_node> nodes;
    for (const static_member *node = static_member_list.head; node != nullptr; node = node->next) {
        nodes.push_back({node->info.mac, node->info.ip, node->info.ip6});
    }
    FUZZ_CHECK(nodes.size() == static_cast<size_t>(static_member_list.count));
    FUZZ_CHECK(nodes.size() <= STATIC_NGBR_MAX);
    return nodes;
}

void write_file(const uint8_t *data, size_t size) {
    FILE *file = std::fopen(STATIC_NEIGHBOR_CONF_PATH, "wb");
    FUZZ_CHECK(file != nullptr);
    FUZZ_CHECK(std::fwrite(data, 1, size, file) == size);
    std::fclose(file);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    private_daemon_dirs();
    standin_command("getmode", "STANDALONE");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    write_file(data, size);
    load_static_neighbor();
    std::vector<saved_node> loaded = list_nodes();

    FUZZ_CHECK(save_as_json() == 0);
    load_static_neighbor();
    std::vector<saved_node> reloaded = list_nodes();
    FUZZ_CHECK(reloaded.size() == loaded.size());
    FUZZ_CHECK(std::equal(loaded.rbegin(), loaded.rend(), reloaded.begin()));
    return 0;
}
