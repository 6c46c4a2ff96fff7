// The embedded bus, which must behave as the platform's bus does: dispatch statuses, a served
// object with a slow method, and a hostile frame. Every bus call of the system tests crosses its
// frames; they also hold idle clients and compare tarn-bus with the platform's ubus command.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "devbus/bus_client.h"
#include "devbus/bus_server.h"
#include "devbus/bus_status.h"
#include "devbus/bus_wire.h"
#include "ubus/methods.h"

namespace {

// Stand-in methods with every outcome a handler can have.
int echo_method(const char *, json_object *request, json_ref &reply) {
    reply.reset(json_object_get(request));
    return 0;
}
int parse_failure_method(const char *, json_object *, json_ref &) {
    return METHOD_PARSE_FAILED;
}
int no_text_method(const char *, json_object *, json_ref &) {
    return METHOD_NO_JSON_TEXT;
}
int slow_method(const char *, json_object *, json_ref &) {
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    return 0;
}

const method_entry test_methods[] = {
    {"echo", echo_method, nullptr, 0},
    {"parse_failure", parse_failure_method, nullptr, 0},
    {"no_text", no_text_method, nullptr, 0},
    {"slow", slow_method, nullptr, 0},
};
// Events reach their listener in the system tests, which run the daemon on this bus.
const bus_service test_service = {"tarn", test_methods, std::size(test_methods), nullptr, 0};

TEST(BusDispatch, StatusesOfObjectMethodArgumentsAndHandler) {
    const struct {
        std::string request;
        int status;
        const char *reply;
    } cases[] = {
        {encode_call("tarn", "echo", R"( {"k":[1,2]} )"), 0, R"({"k":[1,2]})"},
        {encode_call("other", "echo", "{}"), BUS_STATUS_NOT_FOUND, ""},
        {encode_call("tarn", "nope", "{}"), BUS_STATUS_METHOD_NOT_FOUND, ""},
        {encode_call("tarn", "echo", "[1]"), BUS_STATUS_INVALID_ARGUMENT, ""},
        {encode_call("tarn", "echo", std::string("{}\0{}", 5)), BUS_STATUS_INVALID_ARGUMENT, ""},
        {std::string("call\0tarn\0show", 14), BUS_STATUS_INVALID_COMMAND, ""},
        {encode_send("userconfig.reload", "[]"), BUS_STATUS_INVALID_ARGUMENT, ""},
        {encode_call("tarn", "parse_failure", "{}"), -1, ""},
        {encode_call("tarn", "no_text", "{}"), 1, ""},
    };
    for (const auto &c : cases) {
        std::string reply = "stale";
        EXPECT_EQ(bus_dispatch(test_service, c.request, reply), c.status) << c.request;
        EXPECT_EQ(reply, c.reply) << c.request;
    }
}

class BusServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/tarn_bus_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        path_ = dir_ + "/sock/tarn_bus";  // the missing directory is made by the server
        listen_fd_ = bus_server_open(path_.c_str());
        ASSERT_GE(listen_fd_, 0);
        stop_fd_ = eventfd(0, EFD_CLOEXEC);
        server_ = std::thread(
            [this] { run_result_ = bus_server_run(listen_fd_, stop_fd_, test_service); });
    }

    void TearDown() override {
        uint64_t one = 1;
        ASSERT_EQ(write(stop_fd_, &one, sizeof one), static_cast<ssize_t>(sizeof one));
        server_.join();
        EXPECT_EQ(run_result_, 0);
        close(stop_fd_);
        close(listen_fd_);
        ASSERT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
    }

    int call(const char *method, const char *args, std::string &reply, int timeout_ms = 5000) {
        return bus_call(path_.c_str(), "tarn", method, args, timeout_ms, reply);
    }

    std::string dir_;
    std::string path_;
    int listen_fd_ = -1;
    int stop_fd_ = -1;
    int run_result_ = -2;
    std::thread server_;
};

// The status of a frame with this payload, or of a lone length field when it is not the
// payload's: what the client code never sends.
int32_t raw_frame_status(const std::string &path, uint32_t length, const std::string &payload) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{AF_UNIX, {}};
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    int32_t status = 99;
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
        uint32_t wire_length = htonl(length);
        bool sent = length == payload.size()
                        ? wire_write_frame(fd, payload, wire_now_ms() + 5000) == WIRE_OK
                        : write(fd, &wire_length, sizeof wire_length) == sizeof wire_length;
        std::string reply;
        if (sent && wire_read_frame(fd, BUS_REPLY_MAX, reply, wire_now_ms() + 5000) == WIRE_OK) {
            std::string ignored;
            decode_reply(reply, status, ignored);
        }
    }
    close(fd);
    return status;
}

// A call that times out leaves the next one served; a request of the bus's 64 KiB is served and
// one a byte longer, or of any larger length, gets a status.
TEST_F(BusServerTest, SlowMethodAndRequestSizes) {
    std::string reply;
    EXPECT_EQ(call("slow", nullptr, reply, 100), BUS_STATUS_TIMEOUT);
    EXPECT_EQ(call("echo", R"({"after":1})", reply), BUS_STATUS_OK);
    EXPECT_EQ(reply, R"({"after":1})");

    // An echo call padded to the size by the text of one member.
    const size_t bare = encode_call("tarn", "echo", R"({"pad":""})").size();
    for (size_t size : {BUS_REQUEST_MAX, BUS_REQUEST_MAX + 1}) {
        std::string payload =
            encode_call("tarn", "echo", R"({"pad":")" + std::string(size - bare, 'x') + "\"}");
        EXPECT_EQ(raw_frame_status(path_, uint32_t(payload.size()), payload),
                  size <= BUS_REQUEST_MAX ? BUS_STATUS_OK : BUS_STATUS_INVALID_ARGUMENT)
            << size;
    }
    EXPECT_EQ(raw_frame_status(path_, 0xffffffffu, ""), BUS_STATUS_INVALID_ARGUMENT);
}

}  // namespace
