// The neighbor-list answers and the show client that prints them.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "core/cmdline.h"
#include "core/local_msg.h"
#include "diag/neighbor_dump.h"
#include "diag/show_client.h"
#include "diag/show_tables.h"
#include "neighbor/neighbor_table.h"
#include "proto/nbcp.h"
#include "sandbox.h"
#include "static/static_store.h"
#include "static_env.h"
#include "util/paths.h"

namespace {

// Neighbor-list answers: table entries first, then the static neighbors (only the copied
// fields), and a list that stops growing before it overflows its datagram.
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

// The show client against a stand-in daemon socket: the request it sends, the table it prints,
// its exit status and the reply path it leaves or removes.
using bytes = std::vector<uint8_t>;

constexpr const char *CLIENT_OUT = "/tmp/client.out";

ap_info record(uint8_t id, uint8_t radiocnt) {
    ap_info info{};
    info.mac = {0x02, 0, 0, 0, 0, id};
    info.ip = 0x0100000A + (static_cast<uint32_t>(id) << 24);
    info.state = id % 5;
    info.radiocnt = radiocnt;
    snprintf(info.name, sizeof info.name, "ap%d", id);
    snprintf(info.version, sizeof info.version, "1.%d", id);
    info.cluster_id = id;
    for (int r = 0; r < radiocnt && r < AP_RADIO_MAX; ++r) {
        info.radio[r] = {static_cast<uint8_t>(r), static_cast<uint8_t>(36 + r), 20, 50, 80};
    }
    return info;
}

bytes list_of(const std::vector<ap_info> &records, uint16_t reply_op = TARN_MSG_LIST_REPLY) {
    neighbor_list_writer list(TARN_MSG_DUMP_NGBR);
    for (const ap_info &r : records) {
        list.add(r);
    }
    bytes out = list.finish();
    memcpy(out.data() + 4, &reply_op, sizeof reply_op);
    return out;
}

// What print_show_table prints for these records.
std::string table_of(int kind, const std::vector<ap_info> &records) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    print_show_table(kind, records.data(), static_cast<int>(records.size()));
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

struct client_run {
    int status = -1;
    std::string request;  // "<size> op <op>" of the request the daemon got, or "none"
    std::string printed;
    bool reply_path_left = false;
};

// Runs show_ngbrs_list(kind) in a child with its standard output in CLIENT_OUT; this process is
// the daemon and answers the request with reply (none when reply is empty).
client_run run_client(int kind, const bytes &reply) {
    client_run run;
    int daemon = static_env::bind_local(TARN_SOCKET_PATH, 3000);
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        int out = open(CLIENT_OUT, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, STDOUT_FILENO);
        show_ngbrs_list(kind);
        _exit(42);  // no answer: the caller ends with status 0; 42 tells the two apart here
    }
    bytes request(70000);
    ssize_t n = recv(daemon, request.data(), request.size(), 0);
    if (n >= 8) {
        uint16_t op;
        memcpy(&op, request.data() + 4, sizeof op);
        bool rest_zero = true;
        for (ssize_t i = 0; i < n; ++i) {
            rest_zero = rest_zero && (i == 4 || request[static_cast<size_t>(i)] == 0);
        }
        run.request = std::to_string(n) + " op " + std::to_string(op) +
                      (rest_zero ? " zero-filled" : " not zero-filled");
    } else {
        run.request = "none";
    }
    if (!reply.empty()) {
        sockaddr_un to{};
        to.sun_family = AF_UNIX;
        snprintf(to.sun_path, sizeof to.sun_path, "%s", TARN_CLIENT_PATH);
        sendto(daemon, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
    int status = 0;
    waitpid(child, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.printed = sandbox::read_file(CLIENT_OUT);
    run.reply_path_left = sandbox::exists(TARN_CLIENT_PATH);
    close(daemon);
    return run;
}

std::string describe(const client_run &run, const std::string &expected_table) {
    if (expected_table.find("mac") == std::string::npos) {
        return "no header in the expected table: " + expected_table;
    }
    return "status " + std::to_string(run.status) + ", request " + run.request +
           (run.printed == expected_table ? ", table as expected" : ", printed:\n" + run.printed) +
           (run.reply_path_left ? ", path left" : ", path removed");
}

struct kind_case {
    int kind;
    uint16_t reply_op;
    int printed_kind;
};

class ShowClient : public testing::TestWithParam<kind_case> {};

TEST_P(ShowClient, PrintsTheTableOfTheKindOrTheWirelessTableForOps1And2) {
    SKIP_UNLESS_ROOT();
    const kind_case c = GetParam();
    std::string seen = static_env::run([&c] {
        std::vector<ap_info> records = {record(1, 2), record(2, 3), record(3, 0)};
        client_run run = run_client(c.kind, list_of(records, c.reply_op));
        std::string dump_line = "dump----> type:" + std::to_string(c.reply_op) + "\n";
        return describe(run, table_of(c.printed_kind, records)) +
               (static_env::contains(sandbox::log_text(), dump_line) ? ", type logged" : "");
    });
    bool type_line = c.reply_op != TARN_MSG_LIST_REPLY;
    EXPECT_EQ(seen, std::string("status 0, request 65535 op 2 zero-filled, table as expected, "
                                "path removed") +
                        (type_line ? ", type logged" : ""));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ShowClient,
    testing::Values(kind_case{SHOW_WIRELESS, TARN_MSG_LIST_REPLY, SHOW_WIRELESS},
                    kind_case{SHOW_CLUSTER, TARN_MSG_LIST_REPLY, SHOW_CLUSTER},
                    kind_case{SHOW_UBUS, TARN_MSG_LIST_REPLY, SHOW_UBUS},
                    kind_case{SHOW_NEIGHBOR, TARN_MSG_LIST_REPLY, SHOW_NEIGHBOR},
                    kind_case{SHOW_NEIGHBOR, TARN_MSG_DUMP_NGBR, SHOW_WIRELESS},
                    kind_case{SHOW_CLUSTER, TARN_MSG_NGBR_INFO, SHOW_WIRELESS}));

TEST(ShowClientReply, EmptyListPrintsTheHeaderOnly) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        client_run run = run_client(SHOW_CLUSTER, list_of({}));
        return describe(run, table_of(SHOW_CLUSTER, {}));
    });
    EXPECT_EQ(seen, "status 0, request 65535 op 2 zero-filled, table as expected, path removed");
}

TEST(ShowClientReply, PrintsTheFirst67Entries) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::vector<ap_info> records;
        for (int i = 0; i < 70; ++i) {
            records.push_back(record(static_cast<uint8_t>(i), 0));
        }
        client_run run = run_client(SHOW_UBUS, list_of(records));
        records.resize(NGB_HASH_SIZE);
        return describe(run, table_of(SHOW_UBUS, records));
    });
    EXPECT_EQ(seen, "status 0, request 65535 op 2 zero-filled, table as expected, path removed");
}

TEST(ShowClientReply, UnbindableReplyPathEndsWithStatusOne) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        mkdir(TARN_CLIENT_PATH, 0755);  // a directory cannot be removed and bound over
        sandbox::write_file(std::string(TARN_CLIENT_PATH) + "/keep", "");
        int daemon = static_env::bind_local(TARN_SOCKET_PATH, 300);
        fflush(nullptr);
        pid_t child = fork();
        if (child == 0) {
            show_ngbrs_list(SHOW_WIRELESS);
            _exit(42);
        }
        int status = 0;
        waitpid(child, &status, 0);
        char request[16];
        ssize_t n = recv(daemon, request, sizeof request, 0);
        return "status " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) +
               (n > 0 ? " request sent" : " nothing sent") +
               (static_env::contains(sandbox::log_text(),
                                     "show_ngbrs_list: Create local socket failed\n")
                    ? " logged"
                    : "");
    });
    EXPECT_EQ(seen, "status 1 nothing sent logged");
}

// The four show tables, byte for byte, on a learned neighbor with three radios and a static
// neighbor (no radios, empty texts).
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
