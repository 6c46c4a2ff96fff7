// The neighbor-list dumps and the show tables: the four printed tables byte for byte, and the
// daemon's dump order and bound. The client's exchange with the daemon is driven end to end by
// the system tests.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/local_msg.h"
#include "diag/neighbor_dump.h"
#include "diag/show_client.h"
#include "diag/show_tables.h"
#include "neighbor/neighbor_table.h"
#include "neighbor_test_util.h"
#include "proto/nbcp.h"
#include "static/static_store.h"
#include "static_env.h"
#include "util/paths.h"

namespace {

using bytes = std::vector<uint8_t>;

// A learned neighbor with three radios; the system tests' goldens hold static neighbors' rows.
// clang-format off
const char *const GOLDEN_WIRELESS =
    "mac                ip               ip6                                       qv_ip            tenantId         state  name        version     radiocnt  radioid   channel   bandwidth  rssi    txpower \n"
    "00:11:22:aa:bb:0c  10.0.0.2         fd00::2                                   10.0.0.100       t-1              0      ap-2        1.0.2       3         0         36        80         40      18      \n"
    "                                                                                                                                                         1         37        80         41      19      \n"
    "                                                                                                                                                         2         38        80         42      20      \n"
    "[state] 0:active 1:offline 2:wireless ageing  3:static active 4:static offline\n";

const char *const GOLDEN_PVC =
    "mac                ip               ip6                                       cluster_id  pvc_ip           pvc_mac    \n"
    "00:11:22:aa:bb:0c  10.0.0.2         fd00::2                                   7           10.0.0.1         00:11:22:33:44:55\n";

const char *const GOLDEN_CLUSTER =
    "mac                ip               ip6                                       qv_ip            cluster_id  state  name        version    \n"
    "00:11:22:aa:bb:0c  10.0.0.2         fd00::2                                   10.0.0.100       7           0      ap-2        1.0.2     \n";

const char *const GOLDEN_RADIO =
    "mac                ip               qv_ip            tenantId         state  name        version       radiocnt radioid channel rssi txpower radioid channel rssi txpower radioid channel rssi txpower\n"
    "00:11:22:aa:bb:0c  10.0.0.2         10.0.0.100       t-1              0      ap-2        1.0.2         3        0       36      40   18      1       37      41   19      2       38      42  20\n";
// clang-format on

ap_info learned_neighbor() {
    ap_info learned{};
    learned.mac = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0x0c};
    inet_pton(AF_INET, "10.0.0.2", &learned.ip);
    inet_pton(AF_INET6, "fd00::2", learned.ip6.data());
    inet_pton(AF_INET, "10.0.0.100", &learned.qv_ip);
    strcpy(learned.tenantId, "t-1");
    strcpy(learned.name, "ap-2");
    strcpy(learned.version, "1.0.2");
    learned.radiocnt = 3;
    for (uint8_t i = 0; i < 3; ++i) {
        learned.radio[i] = {i, uint8_t(36 + i), uint8_t(18 + i), uint8_t(40 + i), 80};
    }
    learned.cluster_id = 7;
    inet_pton(AF_INET, "10.0.0.1", &learned.pvc_ip);
    learned.pvc_mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    return learned;
}

std::string printed(int kind, const ap_info *records, int count) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    print_show_table(kind, records, count);
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST(ShowTables, MatchGoldenText) {
    const ap_info learned = learned_neighbor();
    EXPECT_EQ(printed(SHOW_WIRELESS, &learned, 1), GOLDEN_WIRELESS);
    EXPECT_EQ(printed(SHOW_CLUSTER, &learned, 1), GOLDEN_PVC);
    EXPECT_EQ(printed(SHOW_UBUS, &learned, 1), GOLDEN_CLUSTER);
    EXPECT_EQ(printed(SHOW_NEIGHBOR, &learned, 1), GOLDEN_RADIO);
    const std::string wireless = GOLDEN_WIRELESS;  // without rows: its heading and legend
    EXPECT_EQ(printed(SHOW_WIRELESS, nullptr, 0), wireless.substr(0, wireless.find('\n') + 1) +
                                                      wireless.substr(wireless.find("[state]")));
}

// A record with every field set and the longest texts a list entry carries.
ap_info full_record(int id) {
    ap_info info;
    memset(&info, 0x5a, sizeof info);
    info.mac = {0x02, 0, 0, 0, uint8_t(id), uint8_t(id)};
    info.radiocnt = 4;
    info.tenantId[sizeof info.tenantId - 1] = '\0';
    info.version[sizeof info.version - 1] = '\0';
    info.name[sizeof info.name - 1] = '\0';
    return info;
}

TEST(NeighborListWriter, HoldsAFullTableAndTheStaticNeighborsAndRefusesWhatWouldNotFit) {
    neighbor_list_writer list(TARN_MSG_DUMP_NGBR);
    size_t accepted = 0;
    for (int i = 0; i < 300; ++i) {
        accepted += list.add(full_record(i)) ? 1 : 0;
    }
    const bytes &out = list.finish();
    EXPECT_GE(accepted, 64u + STATIC_NGBR_MAX);
    EXPECT_EQ(list.refused(), 300 - accepted);
    EXPECT_EQ(out.size(), NBCP_LIST_HDR_LEN + accepted * NBCP_LIST_ENTRY_MAX + NBCP_END_LEN);
    EXPECT_LE(out.size(), NBCP_LIST_MAX);
}

// The table in walker order, then the static neighbors with only their copied fields.
TEST(NeighborDump, StaticNeighborsFollowTheTableWithOnlyTheirCopiedFields) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        neighbor_table_init();
        for (int id : {2, 1}) {  // bucket 2 is walked after bucket 1 whatever the order added
            ntest::add_entry(full_record(id).mac, 0);
        }
        for (int id : {8, 9}) {
            std::lock_guard<std::mutex> static_guard(stngbr_lock);
            static_member *node = static_member_new();
            node->info = full_record(id);
            static_member_push(node);
        }
        int client = static_env::bind_local(TARN_CLIENT_PATH);
        neighbor_aps_send(TARN_CLIENT_PATH, TARN_MSG_DUMP_NGBR);
        bytes data(70000);
        data.resize(std::max<ssize_t>(recv(client, data.data(), data.size(), 0), 0));
        std::vector<ap_info> got(8);
        got.resize(nbcp_list_read(data.data(), data.size(), got.data(), got.size()));
        std::string out = std::to_string(got.size()) + ":";
        for (const ap_info &e : got) {
            // A static neighbor's record carries its address and texts, no tenant, radios or PVC.
            bool only_copied = e.ip == full_record(0).ip &&
                               strcmp(e.name, full_record(0).name) == 0 && e.tenantId[0] == '\0' &&
                               e.radiocnt == 0 && e.pvc_ip == 0 && e.cluster_flag == 0;
            out += " " + std::to_string(e.mac[5]) + (only_copied ? "/copied" : "");
        }
        return out;
    });
    EXPECT_EQ(seen, "4: 1 2 9/copied 8/copied");
}

}  // namespace
