// Local control messages as the daemon receives them on "/tmp/socket/tarn_socket": each
// operation's effect on the settings, the table, the driver and the answers it sends.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "core/handlers.h"
#include "core/local_control.h"
#include "core/local_msg.h"
#include "core/settings.h"
#include "driver_sink.h"
#include "neighbor/neighbor_table.h"
#include "proto/nbcp.h"
#include "sandbox.h"
#include "static/static_store.h"
#include "static_env.h"
#include "util/local_socket.h"
#include "util/paths.h"

namespace {

using static_env::contains;
using bytes = std::vector<uint8_t>;

bytes message(uint16_t op, uint8_t value = 0, size_t len = LOCAL_MSG_HDR_LEN) {
    bytes out(std::max(len, LOCAL_MSG_HDR_LEN), 0);
    out[0] = value;
    memcpy(out.data() + 4, &op, sizeof op);
    out.resize(len);
    return out;
}

bytes probe_message(uint32_t ip_host) {
    bytes out = message(TARN_MSG_DUMP_IP, 0, 12);
    memcpy(out.data() + 8, &ip_host, sizeof ip_host);
    return out;
}

void fill_table(int n) {
    std::lock_guard<std::mutex> guard(ngb_lock);
    for (int i = 0; i < n; ++i) {
        std::unique_ptr<neighbor_ap> entry = neighbor_ap_new();
        entry->mac = {0x02, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
        entry->info.mac = entry->mac;
        mac_addr mac = entry->mac;
        neighbor_ap_add(mac, entry);
    }
}

uint32_t table_count() {
    std::lock_guard<std::mutex> guard(ngb_lock);
    return table_cnt;
}

// Sends msg to the daemon's socket from a socket bound at from (or unbound) and lets the
// daemon handle it, as the receive thread does when the socket is readable.
void deliver(const bytes &msg, const char *from = nullptr) {
    int client = from != nullptr ? static_env::bind_local(from) : socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    snprintf(to.sun_path, sizeof to.sun_path, "%s", TARN_SOCKET_PATH);
    sendto(client, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    local_receive();
    close(client);
}

// Sets up the daemon's side of the sandbox: its local socket, an empty table.
std::string become_daemon() {
    neighbor_table_init();
    return InitSocket(&sock_recv_local, TARN_SOCKET_PATH) == 1 ? "" : "no local socket";
}

// The driver messages as "op:value" words.
std::string driver_ops(DriverSink &driver) {
    std::string out;
    for (const bytes &m : driver.take_all()) {
        out += (out.empty() ? "" : " ") + std::to_string(m[16]) + ":" + std::to_string(m[17]);
    }
    return out.empty() ? "-" : out;
}

// One datagram waiting at fd, or "" when none comes.
bytes receive(int fd) {
    bytes data(70000);
    ssize_t n = recv(fd, data.data(), data.size(), 0);
    data.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return data;
}

std::string hex(const bytes &data) {
    std::string out;
    char two[4];
    for (uint8_t b : data) {
        snprintf(two, sizeof two, "%02x", b);
        out += two;
    }
    return out;
}

// "op <op> n <entries> macs <last bytes of each MAC>" of a neighbor-list datagram.
std::string list_summary(const bytes &data) {
    if (data.size() < LOCAL_MSG_HDR_LEN) {
        return "no list";
    }
    uint16_t op;
    memcpy(&op, data.data() + 4, sizeof op);
    std::array<ap_info, NGB_HASH_SIZE> entries{};
    size_t n = nbcp_list_read(data.data(), data.size(), entries.data(), entries.size());
    std::string out = "op " + std::to_string(op) + " n " + std::to_string(n) + " macs";
    for (size_t i = 0; i < n; ++i) {
        out += " " + std::to_string(entries[i].mac[5]);
    }
    return out;
}

TEST(LocalControl, GetRssiAnswersTheThresholdAtTheClientPath) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::string failure = become_daemon();
        int client = static_env::bind_local(TARN_CLIENT_PATH);
        deliver(message(TARN_MSG_GET_RSSI));
        std::string out = hex(receive(client));
        rssi_min = 44;
        deliver(message(TARN_MSG_GET_RSSI, 9, 64));
        out += " " + hex(receive(client));
        std::string log = sandbox::log_text();
        return failure + out + (contains(log, "buff:9,0,0,0,5,0,0,0\n") ? " buff" : "") +
               (contains(log, "handle_recvmsg: operation=5\n") ? " op" : "");
    });
    EXPECT_EQ(seen, "0500000005000000 2c00000005000000 buff op");
}

TEST(LocalControl, SetRssiEmptiesTheTableAndTellsTheDriver) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        DriverSink driver;
        std::string out = become_daemon();
        fill_table(3);
        deliver(message(TARN_MSG_SET_RSSI, 44));
        return out + std::to_string(table_count()) + " " + driver_ops(driver) + " rssi " +
               std::to_string(rssi_min);
    });
    EXPECT_EQ(seen, "0 4:44 rssi 44");
}

TEST(LocalControl, SetVersionActsOnlyOnANewVersion) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        DriverSink driver;
        std::string out = become_daemon();
        fill_table(3);
        deliver(message(TARN_MSG_SET_VERSION, 1));  // the running version
        out += "same: " + std::to_string(table_count()) + " " + driver_ops(driver) + " [" +
               static_env::calls("uci") + "]";
        deliver(message(TARN_MSG_SET_VERSION, 3));
        out += " new: " + std::to_string(table_count()) + " " + driver_ops(driver) + " [" +
               static_env::calls("uci") + "] version " + std::to_string(version);
        return out;
    });
    EXPECT_EQ(seen,
              "same: 3 - [] new: 0 1:3 4:5 [set tarn.config.version=3\ncommit tarn\n] version 3");
}

TEST(LocalControl, SetNeighborCountActsOnAChangeAndAcceptsAnyValue) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        DriverSink driver;
        std::string out = become_daemon();
        fill_table(3);
        deliver(message(TARN_MSG_SET_NGBR_NUM, 16));
        out += std::to_string(table_count()) + " " + driver_ops(driver) + " max " +
               std::to_string(max_ngbr_num);
        fill_table(2);
        deliver(message(TARN_MSG_SET_NGBR_NUM, 200));
        out += " | " + std::to_string(table_count()) + " " + driver_ops(driver) + " max " +
               std::to_string(max_ngbr_num);
        fill_table(2);
        deliver(message(TARN_MSG_SET_NGBR_NUM, 200));
        out += " | " + std::to_string(table_count()) + " " + driver_ops(driver);
        return out;
    });
    EXPECT_EQ(seen, "0 5:16 max 16 | 0 5:200 max 200 | 2 -");
}

TEST(LocalControl, DumpIpProbesTheGivenAddressWithMode3) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::string out = become_daemon();
        sandbox::sh("ip addr add 10.0.0.5/32 dev lo");
        int receiver = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in at{};
        at.sin_family = AF_INET;
        at.sin_port = htons(NBCP_PORT);
        at.sin_addr.s_addr = inet_addr("10.0.0.5");
        bind(receiver, reinterpret_cast<sockaddr *>(&at), sizeof at);
        timeval timeout{0, 300000};
        setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

        deliver(probe_message(0));
        deliver(message(TARN_MSG_DUMP_IP));  // the address is past the end: 0
        out += "zero: " + std::to_string(receive(receiver).size());
        deliver(probe_message(0x0A000005));
        bytes probe = receive(receiver);
        out += " 10.0.0.5: " + std::to_string(probe.size()) + " type " +
               std::to_string(probe.size() > 3 ? probe[3] : -1) + " mode " +
               std::to_string(probe.size() > 19 ? probe[19] : -1);
        std::string log = sandbox::log_text();
        out += " logs " + std::to_string(static_env::occurrences(log, "dump ip :0\n")) + " " +
               std::to_string(static_env::occurrences(log, "dump ip :a000005\n"));
        return out;
    });
    EXPECT_EQ(seen, "zero: 0 10.0.0.5: 60 type 10 mode 3 logs 2 1");
}

TEST(LocalControl, AddAndDeleteMacAreSilent) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        DriverSink driver;
        std::string out = become_daemon();
        int client = static_env::bind_local(TARN_CLIENT_PATH, 100);
        fill_table(2);
        static_mac_add("00:00:00:00:00:01", nullptr, nullptr);
        std::string list_before = static_env::list_text();
        deliver(message(TARN_MSG_ADD_MAC, 0, LOCAL_MSG_HDR_LEN + sizeof(ap_info)));
        deliver(message(TARN_MSG_DEL_MAC, 0, LOCAL_MSG_HDR_LEN + sizeof(ap_info)));
        out += std::to_string(receive(client).size()) + " " + std::to_string(table_count()) + " " +
               driver_ops(driver) +
               (static_env::list_text() == list_before ? " list kept" : " list changed") +
               (contains(sandbox::log_text(), "unknow msg type") ? " unknown logged" : "");
        return out;
    });
    EXPECT_EQ(seen, "0 2 - list kept");
}

TEST(LocalControl, UnknownOperationsAreLoggedOnly) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        DriverSink driver;
        std::string out = become_daemon();
        int client = static_env::bind_local(TARN_CLIENT_PATH, 100);
        fill_table(2);
        deliver(message(0));
        deliver(message(TARN_MSG_LIST_REPLY));
        deliver(message(13));
        deliver(message(TARN_MSG_GET_RSSI, 0, 4));  // op missing: 0
        std::string log = sandbox::log_text();
        out += std::to_string(static_env::occurrences(log, "unknow msg type:0!!!\n")) + " " +
               std::to_string(static_env::occurrences(log, "unknow msg type:51!!!\n")) + " " +
               std::to_string(static_env::occurrences(log, "unknow msg type:13!!!\n")) + " " +
               std::to_string(receive(client).size()) + " " + std::to_string(table_count()) + " " +
               driver_ops(driver);
        return out;
    });
    EXPECT_EQ(seen, "2 1 1 0 2 -");
}

TEST(LocalControl, FieldsPastTheEndOfAShortMessageReadAsZero) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::string out = become_daemon();
        int client = static_env::bind_local(TARN_CLIENT_PATH);
        // Byte 5 holds 1 but lies past the 5 bytes of the message: the op is 5, not 261.
        const uint8_t msg[6] = {0, 0, 0, 0, 5, 1};
        handle_recvmsg(msg, 5, nullptr);
        out += std::to_string(receive(client).size());
        handle_recvmsg(nullptr, 0, nullptr);
        return out +
               (contains(sandbox::log_text(), "unknow msg type:0!!!\n") ? " null unknown" : "");
    });
    EXPECT_EQ(seen, "8 null unknown");
}

TEST(LocalControl, ListRequestsAnswerAtTheirPaths) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        DriverSink driver;
        std::string out = become_daemon();
        fill_table(2);  // MACs ending 0 and 1
        static_mac_add("00:00:00:00:00:07", "127.0.0.7", nullptr);
        int client = static_env::bind_local(TARN_CLIENT_PATH);
        int cluster = static_env::bind_local(CLUSTER_NEIGHBOR_DUMP_PATH);
        driver.take_all();

        deliver(message(TARN_MSG_DUMP_NGBR));
        out += "2: " + list_summary(receive(client));
        deliver(message(TARN_MSG_DUMP_CLUSTER));
        out += " | 3: " + list_summary(receive(cluster));
        deliver(message(TARN_MSG_DUMP_STATIC));
        out += " | 8: " + list_summary(receive(client));
        {
            // The requester of operation 1 is answered at the path it sends from.
            int from = static_env::bind_local("/tmp/requester");
            sockaddr_un to{};
            to.sun_family = AF_UNIX;
            snprintf(to.sun_path, sizeof to.sun_path, "%s", TARN_SOCKET_PATH);
            bytes msg = message(TARN_MSG_NGBR_INFO);
            sendto(from, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
            local_receive();
            out += " | 1: " + list_summary(receive(from)) + " driver " + driver_ops(driver);
            close(from);
        }
        std::string log = sandbox::log_text();
        out += contains(log, "dump tarn ngbr info!!!\n") &&
                       contains(log, "dump cluster ngbr info!!!\n") &&
                       contains(log, "tarn ngbr info!!!\n")
                   ? " logged"
                   : " not logged";
        return out;
    });
    EXPECT_EQ(seen,
              "2: op 51 n 3 macs 0 1 7 | 3: op 51 n 3 macs 0 1 7 | 8: op 51 n 1 macs 7 | "
              "1: op 51 n 3 macs 0 1 7 driver 2:0 logged");
}

TEST(LocalControl, NeighborInfoFromAnUnboundSenderIsDropped) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        DriverSink driver;
        std::string out = become_daemon();
        deliver(message(TARN_MSG_NGBR_INFO));
        return out + driver_ops(driver) +
               (contains(sandbox::log_text(), "send packet failed,errno:") ? " send failed" : "");
    });
    EXPECT_EQ(seen, "2:0 send failed");
}

TEST(LocalControl, UpdateStaticRunsThePass) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::string out = become_daemon();
        int receiver = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in at{};
        at.sin_family = AF_INET;
        at.sin_port = htons(NBCP_PORT);
        at.sin_addr.s_addr = inet_addr("127.0.0.7");
        bind(receiver, reinterpret_cast<sockaddr *>(&at), sizeof at);
        timeval timeout{0, 300000};
        setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        {
            std::lock_guard<std::mutex> guard(stngbr_lock);
            static_member *node = static_member_new();
            node->info.ip = inet_addr("127.0.0.7");
            node->info.state = AP_STATE_STATIC_ACTIVE;
            static_member_push(node);
        }
        deliver(message(TARN_MSG_UPDATE_STATIC));
        bytes probe = receive(receiver);
        return out + std::to_string(probe.size()) + " mode " +
               std::to_string(probe.size() > 19 ? probe[19] : -1) + " state " +
               std::to_string(static_member_list.head->info.state);
    });
    EXPECT_EQ(seen, "60 mode 3 state 4");
}

}  // namespace
