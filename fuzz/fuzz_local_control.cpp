// Feeds arbitrary local control messages to local_receive through the daemon's own socket path,
// from a sender bound at a path of its own. Checks the settings each operation may change and
// the answers: a threshold answer holds the threshold, a neighbor list reads back whole.
// Operations 9 and 11 run platform commands (a shell per input) and are left to the soak.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <vector>

#include "core/handlers.h"
#include "core/local_msg.h"
#include "core/settings.h"
#include "fuzz_invariants.h"
#include "util/local_socket.h"
#include "util/paths.h"

namespace {

constexpr const char *SENDER_PATH = "/tmp/fuzz_sender";
int sender = -1;  // answers to operation 1 come here
int client = -1;  // the command-line client's reply path

sockaddr_un address_of(const char *path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    return addr;
}

// Every answer waiting at fd, which must be an 8-byte threshold answer or a readable list.
void check_answers(int fd) {
    std::vector<uint8_t> answer(RECV_MAX);
    std::vector<ap_info> entries(NGB_HASH_SIZE + STATIC_NGBR_MAX);
    for (;;) {
        ssize_t n = recv(fd, answer.data(), answer.size(), MSG_DONTWAIT);
        if (n < 0) {
            return;
        }
        local_msg_hdr hdr;
        FUZZ_CHECK(static_cast<size_t>(n) >= sizeof hdr);
        std::memcpy(&hdr, answer.data(), sizeof hdr);
        if (hdr.op == TARN_MSG_GET_RSSI) {
            FUZZ_CHECK(n == sizeof hdr && hdr.value == rssi_min);
        } else {
            FUZZ_CHECK(hdr.op == TARN_MSG_LIST_REPLY);
            nbcp_list_read(answer.data(), static_cast<size_t>(n), entries.data(), entries.size());
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    private_daemon_dirs();
    FUZZ_CHECK(InitSocket(&sock_recv_local, TARN_SOCKET_PATH) == 1);
    FUZZ_CHECK(InitSocket(&sender, SENDER_PATH) == 1);
    FUZZ_CHECK(InitSocket(&client, TARN_CLIENT_PATH) == 1);
    sock_send_nbcp = -1;  // probes of operation 10 go nowhere
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    local_msg_hdr hdr{};
    std::memcpy(&hdr, data, std::min(size, sizeof hdr));
    if (size == 0 || size > RECV_MAX || hdr.op == TARN_MSG_UPDATE_STATIC ||
        hdr.op == TARN_MSG_SET_VERSION) {
        return 0;
    }
    const uint8_t rssi_before = rssi_min, count_before = max_ngbr_num, version_before = version;
    sockaddr_un daemon = address_of(TARN_SOCKET_PATH);
    FUZZ_CHECK(sendto(sender, data, size, 0, reinterpret_cast<sockaddr *>(&daemon),
                      sizeof daemon) == static_cast<ssize_t>(size));
    local_receive();

    FUZZ_CHECK(rssi_min == (hdr.op == TARN_MSG_SET_RSSI ? hdr.value : rssi_before));
    FUZZ_CHECK(max_ngbr_num == (hdr.op == TARN_MSG_SET_NGBR_NUM ? hdr.value : count_before));
    FUZZ_CHECK(version == version_before);
    check_answers(sender);
    check_answers(client);
    return 0;
}
