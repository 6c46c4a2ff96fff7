// The embedded bus, which must behave as the platform's bus does: dispatch statuses, a served
// object with a slow method, and hostile clients. Every bus call of the system tests crosses its
// frames, and the real-bus system tests compare the tarn-bus command line with the platform's
// ubus command.
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

#include "core/settings.h"
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
int slow_method(const char *, json_object *, json_ref &reply) {
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    reply = result_reply("late");
    return 0;
}

const method_entry test_methods[] = {
    {"debug_set", ubus_set_debug, debug_set_policy, 1},
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
        {encode_call("tarn", "echo", "{\"a\":"), BUS_STATUS_INVALID_ARGUMENT, ""},
        {encode_call("tarn", "echo", "{} x"), BUS_STATUS_INVALID_ARGUMENT, ""},
        {encode_call("tarn", "echo", std::string("{}\0{}", 5)), BUS_STATUS_INVALID_ARGUMENT, ""},
        {"garbage", BUS_STATUS_INVALID_COMMAND, ""},
        {"", BUS_STATUS_INVALID_COMMAND, ""},
        {std::string("call\0tarn\0show", 14), BUS_STATUS_INVALID_COMMAND, ""},
        {std::string("list\0tarn\0{}", 12), BUS_STATUS_INVALID_COMMAND, ""},
        {encode_send("", "{}"), BUS_STATUS_INVALID_ARGUMENT, ""},
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
        tarn_debug = 0;
    }

    int call(const char *method, const char *args, std::string &reply, int timeout_ms = 5000) {
        return bus_call(path_.c_str(), "tarn", method, args, timeout_ms, reply);
    }

    // Connects without the client code, for frames the client would never send.
    int raw_connect() {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path_.c_str());
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        return fd;
    }

    int32_t raw_status(int fd) {
        std::string payload;
        EXPECT_EQ(wire_read_frame(fd, 1024, payload, wire_now_ms() + 5000), WIRE_OK);
        int32_t status = 99;
        std::string json;
        EXPECT_TRUE(decode_reply(payload, status, json));
        close(fd);
        return status;
    }

    std::string dir_;
    std::string path_;
    int listen_fd_ = -1;
    int stop_fd_ = -1;
    int run_result_ = -2;
    std::thread server_;
};

TEST_F(BusServerTest, CallsAreServedAndASlowMethodTimesOutAlone) {
    std::string reply;
    EXPECT_EQ(call("debug_set", R"({"debug_switch":0})", reply), BUS_STATUS_OK);
    EXPECT_EQ(reply, R"({"result":"success"})");
    EXPECT_EQ(call("slow", nullptr, reply, 100), BUS_STATUS_TIMEOUT);
    EXPECT_EQ(call("echo", R"({"after":1})", reply), BUS_STATUS_OK);
    EXPECT_EQ(reply, R"({"after":1})");
}

TEST_F(BusServerTest, HostileFramesGetAStatusAndAStalledClientIsDropped) {
    int fd = raw_connect();
    uint32_t huge = htonl(0xffffffffu);
    ASSERT_EQ(write(fd, &huge, sizeof huge), 4);
    EXPECT_EQ(raw_status(fd), BUS_STATUS_INVALID_ARGUMENT);

    fd = raw_connect();
    ASSERT_EQ(wire_write_frame(fd, "not a request", wire_now_ms() + 1000), WIRE_OK);
    EXPECT_EQ(raw_status(fd), BUS_STATUS_INVALID_COMMAND);

    int stalled = raw_connect();
    uint32_t ten = htonl(10);
    ASSERT_EQ(write(stalled, &ten, sizeof ten), 4);
    std::string reply;
    EXPECT_EQ(call("echo", R"({"next":true})", reply), BUS_STATUS_OK);
    EXPECT_EQ(reply, R"({"next":true})");
    close(stalled);
}

}  // namespace
