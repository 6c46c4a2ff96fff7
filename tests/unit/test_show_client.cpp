// The show client against a stand-in daemon socket: the request it sends, the table it prints,
// its exit status and the reply path it leaves or removes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/cmdline.h"
#include "core/local_msg.h"
#include "diag/neighbor_dump.h"
#include "diag/show_client.h"
#include "diag/show_tables.h"
#include "sandbox.h"
#include "static_env.h"
#include "util/paths.h"

namespace {

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

}  // namespace
