// Neighbor-list answers: table entries first, then the static neighbors (only the copied
// fields), and a list that stops growing before it overflows its datagram.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "core/local_msg.h"
#include "diag/neighbor_dump.h"
#include "neighbor/neighbor_table.h"
#include "proto/nbcp.h"
#include "sandbox.h"
#include "static/static_store.h"
#include "static_env.h"
#include "util/paths.h"

namespace {

using static_env::contains;
using bytes = std::vector<uint8_t>;

// A record with every field set and the longest texts a list entry carries.
ap_info full_record(uint8_t id) {
    ap_info info;
    memset(&info, 0x5a, sizeof info);
    info.mac = {0x02, 0, 0, 0, id, id};
    info.radiocnt = 4;
    memset(info.tenantId, 't', sizeof info.tenantId - 1);
    info.tenantId[sizeof info.tenantId - 1] = '\0';
    memset(info.version, 'v', sizeof info.version - 1);
    info.version[sizeof info.version - 1] = '\0';
    memset(info.name, 'n', sizeof info.name - 1);
    info.name[sizeof info.name - 1] = '\0';
    return info;
}

void add_to_table(const ap_info &info) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    std::unique_ptr<neighbor_ap> entry = neighbor_ap_new();
    entry->mac = info.mac;
    entry->ip = info.ip;
    entry->info = info;
    mac_addr mac = info.mac;
    neighbor_ap_add(mac, entry);
}

void add_static(const ap_info &info) {
    std::lock_guard<std::mutex> guard(stngbr_lock);
    static_member *node = static_member_new();
    node->info = info;
    static_member_push(node);
}

bytes receive(int fd) {
    bytes data(70000);
    ssize_t n = recv(fd, data.data(), data.size(), 0);
    data.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return data;
}

std::vector<ap_info> decode(const bytes &data, size_t capacity = 256) {
    std::vector<ap_info> entries(capacity);
    size_t n = nbcp_list_read(data.data(), data.size(), entries.data(), entries.size());
    entries.resize(n);
    return entries;
}

TEST(NeighborDump, EmptyTableAndListGiveHeaderAndEnd) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        neighbor_table_init();
        int client = static_env::bind_local(TARN_CLIENT_PATH);
        neighbor_aps_send(TARN_CLIENT_PATH, TARN_MSG_DUMP_NGBR);
        bytes list = receive(client);
        std::string out;
        for (uint8_t b : list) {
            out += std::to_string(b) + " ";
        }
        std::string log = sandbox::log_text();
        return out +
               (contains(log, "neighbor_aps_send: static neighbor count = 0\n") ? "count " : "") +
               (contains(log, "Static neighbot list is empty!!!\n") ? "empty" : "");
    });
    EXPECT_EQ(seen, "0 0 0 0 51 0 0 0 0 0 count empty");
}

TEST(NeighborDump, StaticNeighborsFollowTheTableWithOnlyTheirCopiedFields) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        neighbor_table_init();
        ap_info dynamic_a = full_record(1);
        ap_info dynamic_b = full_record(2);
        add_to_table(dynamic_b);  // bucket 2: walked after a (bucket 1) whatever the order added
        add_to_table(dynamic_a);
        ap_info older = full_record(8);
        ap_info newer = full_record(9);
        add_static(older);
        add_static(newer);
        int client = static_env::bind_local(TARN_CLIENT_PATH);
        neighbor_aps_send(TARN_CLIENT_PATH, TARN_MSG_DUMP_NGBR);
        std::vector<ap_info> got = decode(receive(client));
        std::string out = std::to_string(got.size()) + ":";
        for (const ap_info &e : got) {
            out += " " + std::to_string(e.mac[5]);
        }
        if (got.size() == 4) {
            out += memcmp(&got[0], &dynamic_a, offsetof(ap_info, radio)) == 0 ? " whole" : " cut";
            ap_info expected{};
            expected.ip = newer.ip;
            expected.ip6 = newer.ip6;
            expected.qv_ip = newer.qv_ip;
            expected.mac = newer.mac;
            expected.state = newer.state;
            memcpy(expected.version, newer.version, sizeof expected.version);
            memcpy(expected.name, newer.name, sizeof expected.name);
            expected.cluster_id = newer.cluster_id;
            out += memcmp(&got[2], &expected, sizeof expected) == 0 ? " copied-only" : " differs";
        }
        return out;
    });
    EXPECT_EQ(seen, "4: 1 2 9 8 whole copied-only");
}

TEST(NeighborDump, CollectCopiesAtMostEight) {
    std::array<ap_info, STATIC_NGBR_MAX + 1> array{};
    array[STATIC_NGBR_MAX].state = 77;  // must stay untouched
    {
        std::lock_guard<std::mutex> guard(stngbr_lock);
        for (uint8_t i = 0; i < 10; ++i) {
            static_member *node = static_member_new();
            node->info = full_record(i);
            static_member_push(node);
        }
    }
    int count = static_aps_collect(array.data());
    {
        std::lock_guard<std::mutex> guard(stngbr_lock);
        static_member_clear();
    }
    EXPECT_EQ(count, STATIC_NGBR_MAX);
    EXPECT_EQ(array[0].mac[5], 9);
    EXPECT_EQ(array[7].mac[5], 2);
    EXPECT_EQ(array[0].radiocnt, 0);
    EXPECT_EQ(array[0].pvc_ip, 0u);
    EXPECT_EQ(array[0].tenantId[0], '\0');
    EXPECT_EQ(array[STATIC_NGBR_MAX].state, 77);
}

TEST(NeighborDump, StaticListAnswerHoldsOnlyTheStaticNeighbors) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        neighbor_table_init();
        add_to_table(full_record(1));
        add_static(full_record(8));
        int client = static_env::bind_local(TARN_CLIENT_PATH);
        static_aps_send(TARN_CLIENT_PATH, TARN_MSG_DUMP_STATIC);
        bytes data = receive(client);
        uint16_t op = 0;
        memcpy(&op, data.data() + 4, sizeof op);
        std::vector<ap_info> got = decode(data);
        return "op " + std::to_string(op) + " n " + std::to_string(got.size()) + " mac " +
               std::to_string(got.empty() ? -1 : got[0].mac[5]) + " radiocnt " +
               std::to_string(got.empty() ? -1 : got[0].radiocnt);
    });
    EXPECT_EQ(seen, "op 51 n 1 mac 8 radiocnt 0");
}

TEST(NeighborListWriter, AFullTableAndEightStaticNeighborsFit) {
    neighbor_list_writer list(TARN_MSG_DUMP_NGBR);
    for (int i = 0; i < 64 + STATIC_NGBR_MAX; ++i) {
        EXPECT_TRUE(list.add(full_record(static_cast<uint8_t>(i))));
    }
    const bytes &out = list.finish();
    EXPECT_EQ(list.refused(), 0u);
    EXPECT_LE(out.size(), NBCP_LIST_MAX);
    EXPECT_EQ(out.size(), NBCP_LIST_HDR_LEN + 72 * NBCP_LIST_ENTRY_MAX + NBCP_END_LEN);
}

TEST(NeighborListWriter, RefusesEntriesBeyondTheDatagram) {
    neighbor_list_writer list(TARN_MSG_DUMP_NGBR);
    size_t accepted = 0;
    for (int i = 0; i < 300; ++i) {
        accepted += list.add(full_record(static_cast<uint8_t>(i))) ? 1 : 0;
    }
    const bytes &out = list.finish();
    EXPECT_EQ(accepted, NBCP_LIST_ENTRIES_MAX);
    EXPECT_EQ(list.refused(), 300 - NBCP_LIST_ENTRIES_MAX);
    EXPECT_LE(out.size(), NBCP_LIST_MAX);
    EXPECT_EQ(out[out.size() - 1], 0);
    EXPECT_EQ(out[out.size() - 2], 0);
}

TEST(NeighborDump, AnOversizedTableIsCutAndLogged) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        neighbor_table_init();
        max_ngbr_num = 250;  // the local request accepts any count
        for (int i = 0; i < 250; ++i) {
            ap_info info = full_record(static_cast<uint8_t>(i));
            info.mac[3] = static_cast<uint8_t>(i >> 8);
            add_to_table(info);
        }
        int client = static_env::bind_local(TARN_CLIENT_PATH);
        neighbor_aps_send(TARN_CLIENT_PATH, TARN_MSG_DUMP_NGBR);
        bytes data = receive(client);
        std::string left_out = "neighbor_aps_send: list full, " +
                               std::to_string(250 - NBCP_LIST_ENTRIES_MAX) + " entries left out\n";
        return std::to_string(data.size() <= NBCP_LIST_MAX && data.size() > 60000) +
               (contains(sandbox::log_text(), left_out) ? " logged" : " not logged");
    });
    EXPECT_EQ(seen, "1 logged");
}

}  // namespace
