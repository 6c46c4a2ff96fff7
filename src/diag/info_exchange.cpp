#include "diag/info_exchange.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/local_msg.h"
#include "diag/info_text.h"
#include "proto/nbcp.h"

namespace {

// The only state shared with the signal handler.
volatile sig_atomic_t stop_signal = 0;

void on_stop_signal(int signo) {
    stop_signal = signo;
}

bool unix_address(const info_string &path, sockaddr_un &addr) {
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        return false;
    }
    memcpy(addr.sun_path, path.c_str(), path.size());
    return true;
}

long long now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The reply socket, bound at a path of its own; the path goes with the object.
class reply_socket {
  public:
    explicit reply_socket(info_string path) : path_(std::move(path)) {}
    reply_socket(const reply_socket &) = delete;
    reply_socket &operator=(const reply_socket &) = delete;
    ~reply_socket() {
        if (fd_ >= 0) {
            close(fd_);
        }
        if (bound_) {
            unlink(path_.c_str());
        }
    }

    bool open(info_string &error) {
        sockaddr_un addr;
        if (!unix_address(path_, addr)) {
            error = "reply socket path too long: " + path_;
            return false;
        }
        // A path left by an earlier process of the same pid is taken over, but only a socket.
        struct stat st;
        if (lstat(path_.c_str(), &st) == 0) {
            if (!S_ISSOCK(st.st_mode)) {
                error = path_ + " exists and is not a socket";
                return false;
            }
            unlink(path_.c_str());
        }
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
            error = "cannot bind " + path_ + ": " + strerror(errno);
            return false;
        }
        bound_ = true;
        return true;
    }

    int fd() const { return fd_; }

  private:
    info_string path_;
    int fd_ = -1;
    bool bound_ = false;
};

bool send_request(int fd, const info_string &daemon_path, info_string &error) {
    sockaddr_un to;
    unix_address(daemon_path, to);
    local_msg_hdr hdr;
    memset(&hdr, 0, sizeof hdr);
    hdr.op = TARN_MSG_NGBR_INFO;
    if (sendto(fd, &hdr, sizeof hdr, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&to), sizeof to) !=
        static_cast<ssize_t>(sizeof hdr)) {
        error = "no daemon at " + daemon_path + ": " + strerror(errno);
        return false;
    }
    return true;
}

bool receive_answer(int fd, int wait_ms, std::vector<uint8_t> &answer, info_string &error) {
    long long deadline = now_ms() + wait_ms;
    answer.assign(NBCP_LIST_MAX + 1, 0);
    for (;;) {
        long long left = deadline - now_ms();
        if (info_interrupted()) {
            error = "interrupted";
            return false;
        }
        if (left <= 0) {
            error = "no answer from the daemon within " + info_number(wait_ms) + " ms";
            return false;
        }
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0) {
            continue;  // a signal or the deadline: both are checked above
        }
        ssize_t n = recv(fd, answer.data(), answer.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (n < 0) {
            continue;
        }
        if (static_cast<size_t>(n) > NBCP_LIST_MAX) {
            error = "answer longer than " + info_number(NBCP_LIST_MAX) + " bytes";
            return false;
        }
        answer.resize(static_cast<size_t>(n));
        return true;
    }
}

}  // namespace

int info_daemon_probe(const info_string &dir) {
    sockaddr_un addr;
    if (!unix_address(dir + "/" + INFO_DAEMON_SOCKET, addr)) {
        return ENAMETOOLONG;
    }
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return errno;
    }
    int result = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 ? 0 : errno;
    close(fd);
    return result;
}

bool info_exchange(const info_string &dir, int wait_ms, std::vector<uint8_t> &answer,
                   info_string &error) {
    reply_socket reply(dir + "/tarn_info." + info_number(getpid()));
    return reply.open(error) && send_request(reply.fd(), dir + "/" + INFO_DAEMON_SOCKET, error) &&
           receive_answer(reply.fd(), wait_ms, answer, error);
}

void info_catch_signals() {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = on_stop_signal;  // no SA_RESTART: a wait in progress returns at once
    sigemptyset(&action.sa_mask);
    for (int signo : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(signo, &action, nullptr);
    }
}

bool info_interrupted() {
    return stop_signal != 0;
}
