// The four show tables, byte for byte, on a learned neighbor with three radios and a static
// neighbor (no radios, empty texts).
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/cmdline.h"
#include "diag/show_tables.h"

namespace {

// clang-format off
const char *const GOLDEN_WIRELESS =
    "mac                ip               ip6                                       qv_ip            tenantId         state  name        version     radiocnt  radioid   channel   bandwidth  rssi    txpower \n"
    "00:11:22:aa:bb:0c  10.0.0.2         fd00::2                                   10.0.0.100       t-1              0      ap-2        1.0.2       3         0         36        80         40      18      \n"
    "                                                                                                                                                         1         37        80         41      19      \n"
    "                                                                                                                                                         2         38        80         42      20      \n"
    "02:00:00:00:00:01  10.0.0.9         ::                                        0.0.0.0                           4                              2         0         0         0          0       0       \n"
    "                                                                                                                                                         0         0         0          0       0       \n"
    "[state] 0:active 1:offline 2:wireless ageing  3:static active 4:static offline\n";

const char *const GOLDEN_PVC =
    "mac                ip               ip6                                       cluster_id  pvc_ip           pvc_mac    \n"
    "00:11:22:aa:bb:0c  10.0.0.2         fd00::2                                   7           10.0.0.1         00:11:22:33:44:55\n"
    "02:00:00:00:00:01  10.0.0.9         ::                                        0           0.0.0.0          00:00:00:00:00:00\n";

const char *const GOLDEN_CLUSTER =
    "mac                ip               ip6                                       qv_ip            cluster_id  state  name        version    \n"
    "00:11:22:aa:bb:0c  10.0.0.2         fd00::2                                   10.0.0.100       7           0      ap-2        1.0.2     \n"
    "02:00:00:00:00:01  10.0.0.9         ::                                        0.0.0.0          0           4                            \n";

const char *const GOLDEN_RADIO =
    "mac                ip               qv_ip            tenantId         state  name        version       radiocnt radioid channel rssi txpower radioid channel rssi txpower radioid channel rssi txpower\n"
    "00:11:22:aa:bb:0c  10.0.0.2         10.0.0.100       t-1              0      ap-2        1.0.2         3        0       36      40   18      1       37      41   19      2       38      42  20\n"
    "02:00:00:00:00:01  10.0.0.9         0.0.0.0          -1               4      -1          -1            2        0       0       0    0       1       0       0    0       \n";

const char *const GOLDEN_EMPTY =
    "mac                ip               ip6                                       qv_ip            tenantId         state  name        version     radiocnt  radioid   channel   bandwidth  rssi    txpower \n"
    "[state] 0:active 1:offline 2:wireless ageing  3:static active 4:static offline\n";

// clang-format on

struct two_records {
    ap_info list[2];
};

two_records learned_and_static() {
    two_records r;
    memset(&r, 0, sizeof r);
    ap_info &learned = r.list[0];
    learned.mac = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0x0c};
    inet_pton(AF_INET, "10.0.0.2", &learned.ip);
    inet_pton(AF_INET6, "fd00::2", learned.ip6.data());
    inet_pton(AF_INET, "10.0.0.100", &learned.qv_ip);
    strcpy(learned.tenantId, "t-1");
    strcpy(learned.name, "ap-2");
    strcpy(learned.version, "1.0.2");
    learned.radiocnt = 3;
    for (uint8_t i = 0; i < 3; ++i) {
        learned.radio[i] = {i, static_cast<uint8_t>(36 + i), static_cast<uint8_t>(18 + i),
                            static_cast<uint8_t>(40 + i), 80};
    }
    learned.cluster_id = 7;
    inet_pton(AF_INET, "10.0.0.1", &learned.pvc_ip);
    learned.pvc_mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

    ap_info &fixed = r.list[1];
    fixed.mac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    fixed.state = 4;
    inet_pton(AF_INET, "10.0.0.9", &fixed.ip);
    return r;
}

std::string printed(int kind, const ap_info *list, int n) {
    testing::internal::CaptureStdout();
    print_show_table(kind, list, n);
    return testing::internal::GetCapturedStdout();
}

struct table_case {
    int kind;
    const char *golden;
};

class ShowTables : public testing::TestWithParam<table_case> {};

TEST_P(ShowTables, MatchGoldenText) {
    two_records r = learned_and_static();
    EXPECT_EQ(printed(GetParam().kind, r.list, 2), GetParam().golden);
}

INSTANTIATE_TEST_SUITE_P(AllKinds, ShowTables,
                         testing::Values(table_case{SHOW_WIRELESS, GOLDEN_WIRELESS},
                                         table_case{SHOW_CLUSTER, GOLDEN_PVC},
                                         table_case{SHOW_UBUS, GOLDEN_CLUSTER},
                                         table_case{SHOW_NEIGHBOR, GOLDEN_RADIO}));

TEST(ShowTables, EmptyListPrintsHeaderAndLegendOnly) {
    EXPECT_EQ(printed(SHOW_WIRELESS, nullptr, 0), GOLDEN_EMPTY);
    std::string pvc = printed(SHOW_CLUSTER, nullptr, 0);
    EXPECT_EQ(pvc, std::string(GOLDEN_PVC).substr(0, pvc.size()));
    EXPECT_EQ(pvc.find('\n'), pvc.size() - 1) << "one header line";
}

TEST(ShowTables, UnterminatedTextFieldsStayInsideTheirFields) {
    two_records r = learned_and_static();
    memset(r.list[0].name, 'n', sizeof r.list[0].name);
    memset(r.list[0].version, 'v', sizeof r.list[0].version);
    std::string out = printed(SHOW_UBUS, r.list, 1);
    EXPECT_NE(out.find(std::string(32, 'n') + "  " + std::string(16, 'v') + "\n"),
              std::string::npos);
}

TEST(ShowTables, AtMostFourRadiosArePrinted) {
    two_records r = learned_and_static();
    r.list[0].radiocnt = 9;
    std::string out = printed(SHOW_WIRELESS, r.list, 1);
    // header, four radio lines, legend
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 6);
}

}  // namespace
