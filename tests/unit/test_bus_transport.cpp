// The embedded bus: framing, dispatch, a served object, events and the tarn-bus command line.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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
int silent_method(const char *, json_object *, json_ref &) {
    return 0;
}
int slow_method(const char *, json_object *, json_ref &reply) {
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    reply = result_reply("late");
    return 0;
}
int repeated_names_method(const char *, json_object *, json_ref &reply) {
    reply = result_reply("x");
    json_object *row = json_object_new_object();
    json_object_object_add_ex(row, "rssi", json_object_new_string("1"),
                              JSON_C_OBJECT_ADD_KEY_IS_NEW);
    json_object_object_add_ex(row, "rssi", json_object_new_string("2"),
                              JSON_C_OBJECT_ADD_KEY_IS_NEW);
    json_object_object_add(reply.get(), "row", row);
    return 0;
}

std::mutex events_lock;
std::vector<std::string> events_seen;

void record_event(const char *type, json_object *message) {
    std::lock_guard<std::mutex> guard(events_lock);
    events_seen.push_back(std::string(type) + " " +
                          json_object_to_json_string_ext(message, JSON_C_TO_STRING_PLAIN));
}

std::vector<std::string> take_events() {
    std::lock_guard<std::mutex> guard(events_lock);
    std::vector<std::string> seen;
    seen.swap(events_seen);
    return seen;
}

const method_entry test_methods[] = {
    {"debug_get", ubus_get_debug, nullptr, 0}, {"debug_set", ubus_set_debug, debug_set_policy, 1},
    {"echo", echo_method, nullptr, 0},         {"parse_failure", parse_failure_method, nullptr, 0},
    {"no_text", no_text_method, nullptr, 0},   {"silent", silent_method, nullptr, 0},
    {"slow", slow_method, nullptr, 0},         {"repeated", repeated_names_method, nullptr, 0},
};
const bus_event_listener test_listeners[] = {{"userconfig.reload", record_event}};
const bus_service test_service = {"tarn", test_methods,
                                  sizeof test_methods / sizeof test_methods[0], test_listeners, 1};

TEST(BusWire, RequestsAndRepliesRoundTrip) {
    bus_request call;
    ASSERT_TRUE(decode_request(encode_call("tarn", "show", R"({"a":1})"), call));
    EXPECT_EQ(call.kind, "call");
    EXPECT_EQ(call.name, "tarn");
    EXPECT_EQ(call.method, "show");
    EXPECT_EQ(call.json, R"({"a":1})");

    bus_request send;
    ASSERT_TRUE(decode_request(encode_send("userconfig.reload", "{}"), send));
    EXPECT_EQ(send.kind, "send");
    EXPECT_EQ(send.name, "userconfig.reload");
    EXPECT_EQ(send.json, "{}");

    int32_t status = 0;
    std::string json;
    ASSERT_TRUE(decode_reply(encode_reply(-1, "{}"), status, json));
    EXPECT_EQ(status, -1);
    EXPECT_EQ(json, "{}");
    EXPECT_FALSE(decode_reply(std::string("\0\0\0", 3), status, json));
}

TEST(BusWire, MalformedRequestsAreRefused) {
    bus_request request;
    for (const std::string &payload :
         {std::string(""), std::string("call"), std::string("call\0tarn", 9),
          std::string("call\0tarn\0show", 14), std::string("list\0tarn\0{}", 12),
          std::string("send\0{}", 7)}) {
        EXPECT_FALSE(decode_request(payload, request)) << payload.size();
    }
}

TEST(BusWire, ParseJsonObjectTakesExactlyOneObject) {
    EXPECT_TRUE(parse_json_object(R"( {"a":[1,2]} )"));
    for (const std::string &text :
         {std::string(""), std::string("[1]"), std::string("1"), std::string("{} x"),
          std::string("{\"a\":"), std::string("{\"a\":1}\0{}", 10), std::string("nonsense")}) {
        EXPECT_FALSE(parse_json_object(text)) << text;
    }
}

TEST(BusWire, FramesCrossASocketAndOversizedOnesAreRefused) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    int64_t deadline = wire_now_ms() + 1000;
    std::string big(100000, 'z');
    std::thread writer([&] { EXPECT_EQ(wire_write_frame(pair[0], big, deadline), WIRE_OK); });
    std::string payload;
    EXPECT_EQ(wire_read_frame(pair[1], 200000, payload, deadline), WIRE_OK);
    writer.join();
    EXPECT_EQ(payload, big);

    EXPECT_EQ(wire_write_frame(pair[0], "hello", deadline), WIRE_OK);
    EXPECT_EQ(wire_read_frame(pair[1], 4, payload, deadline), WIRE_TOO_LARGE);
    close(pair[0]);
    close(pair[1]);

    // Half a frame: the reader waits for the rest until its deadline.
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    uint32_t length = htonl(8);
    ASSERT_EQ(write(pair[0], &length, sizeof length), 4);
    ASSERT_EQ(write(pair[0], "abc", 3), 3);
    EXPECT_EQ(wire_read_frame(pair[1], 100, payload, wire_now_ms() + 50), WIRE_TIMEOUT);
    close(pair[0]);
    EXPECT_EQ(wire_read_frame(pair[1], 100, payload, deadline), WIRE_CLOSED);
    close(pair[1]);
}

TEST(BusDispatch, StatusesOfObjectMethodAndArguments) {
    std::string reply;
    EXPECT_EQ(bus_dispatch(test_service, encode_call("tarn", "echo", R"({"k":"v"})"), reply), 0);
    EXPECT_EQ(reply, R"({"k":"v"})");
    EXPECT_EQ(bus_dispatch(test_service, encode_call("other", "echo", "{}"), reply),
              BUS_STATUS_NOT_FOUND);
    EXPECT_EQ(bus_dispatch(test_service, encode_call("tarn", "nope", "{}"), reply),
              BUS_STATUS_METHOD_NOT_FOUND);
    EXPECT_EQ(bus_dispatch(test_service, encode_call("tarn", "echo", "[1]"), reply),
              BUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(bus_dispatch(test_service, "garbage", reply), BUS_STATUS_INVALID_COMMAND);
    EXPECT_EQ(bus_dispatch(test_service, encode_send("", "{}"), reply),
              BUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(bus_dispatch(test_service, encode_call("tarn", "parse_failure", "{}"), reply), -1);
    EXPECT_EQ(reply, "");
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
        ASSERT_GE(stop_fd_, 0);
        server_ = std::thread(
            [this] { run_result_ = bus_server_run(listen_fd_, stop_fd_, test_service); });
        take_events();
    }

    void TearDown() override {
        uint64_t one = 1;
        ASSERT_EQ(write(stop_fd_, &one, sizeof one), static_cast<ssize_t>(sizeof one));
        server_.join();
        EXPECT_EQ(run_result_, 0);
        close(stop_fd_);
        close(listen_fd_);
        std::string cleanup = "rm -rf '" + dir_ + "'";
        ASSERT_EQ(system(cleanup.c_str()), 0);
        tarn_debug = 0;
    }

    int call(const char *object, const char *method, const char *args, std::string &reply,
             int timeout_ms = 5000) {
        return bus_call(path_.c_str(), object, method, args, timeout_ms, reply);
    }

    // Connects without the client code, for frames the client would never send.
    int raw_connect() {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, path_.c_str());
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        return fd;
    }

    int32_t raw_status(int fd) {
        std::string payload;
        EXPECT_EQ(wire_read_frame(fd, 1024, payload, wire_now_ms() + 5000), WIRE_OK);
        int32_t status = 99;
        std::string json;
        EXPECT_TRUE(decode_reply(payload, status, json));
        return status;
    }

    std::string dir_;
    std::string path_;
    int listen_fd_ = -1;
    int stop_fd_ = -1;
    int run_result_ = -2;
    std::thread server_;
};

TEST_F(BusServerTest, CallRepliesTheMethodsJson) {
    tarn_debug = 4;
    rcv_local_cnt = 9;
    std::string reply;
    EXPECT_EQ(call("tarn", "debug_get", nullptr, reply), BUS_STATUS_OK);
    EXPECT_EQ(reply, R"({"Debug":{"debug_switch":4},"Socket_rcvCount":{"rcv_hand_cnt":0,)"
                     R"("rcv_nbcp_cnt":0,"rcv_nbcp_ip6_cnt":0,"rcv_local_cnt":9}})");
    rcv_local_cnt = 0;

    EXPECT_EQ(call("tarn", "debug_set", R"({"debug_switch":0})", reply), BUS_STATUS_OK);
    EXPECT_EQ(reply, R"({"result":"success"})");
    EXPECT_EQ(tarn_debug, 0);
}

TEST_F(BusServerTest, ErrorStatusesOfTheBus) {
    std::string reply;
    EXPECT_EQ(call("tarn", "no_such_method", nullptr, reply), BUS_STATUS_METHOD_NOT_FOUND);
    EXPECT_EQ(call("network", "debug_get", nullptr, reply), BUS_STATUS_NOT_FOUND);
    EXPECT_EQ(call("tarn", "echo", "{not json", reply), BUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(call("tarn", "echo", "[1,2]", reply), BUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(reply, "");
    std::string missing = dir_ + "/nobody_here";
    EXPECT_EQ(bus_call(missing.c_str(), "tarn", "debug_get", nullptr, 1000, reply),
              BUS_STATUS_CONNECTION_FAILED);
}

TEST_F(BusServerTest, HandlerStatusesPassThroughWithoutReply) {
    std::string reply = "stale";
    EXPECT_EQ(call("tarn", "parse_failure", "{}", reply), -1);
    EXPECT_EQ(reply, "");
    EXPECT_EQ(call("tarn", "no_text", "{}", reply), 1);
    EXPECT_EQ(call("tarn", "silent", "{}", reply), 0);
    EXPECT_EQ(reply, "");
}

TEST_F(BusServerTest, SlowMethodTimesOutAndTheServerCarriesOn) {
    std::string reply;
    EXPECT_EQ(call("tarn", "slow", nullptr, reply, 100), BUS_STATUS_TIMEOUT);
    EXPECT_EQ(call("tarn", "echo", R"({"after":1})", reply), BUS_STATUS_OK);
    EXPECT_EQ(reply, R"({"after":1})");
}

TEST_F(BusServerTest, EventsReachOnlyTheirListener) {
    EXPECT_EQ(bus_send(path_.c_str(), "userconfig.reload", R"({"ModifiedConfig":["all"]})", 5000),
              BUS_STATUS_OK);
    EXPECT_EQ(bus_send(path_.c_str(), "other.event", "{}", 5000), BUS_STATUS_OK);
    EXPECT_EQ(bus_send(path_.c_str(), "userconfig.reload", nullptr, 5000), BUS_STATUS_OK);
    EXPECT_EQ(bus_send(path_.c_str(), "userconfig.reload", "[]", 5000),
              BUS_STATUS_INVALID_ARGUMENT);
    std::vector<std::string> seen = take_events();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], R"(userconfig.reload {"ModifiedConfig":["all"]})");
    EXPECT_EQ(seen[1], "userconfig.reload {}");
}

TEST_F(BusServerTest, HostileFramesGetAStatusOrAClose) {
    int fd = raw_connect();
    uint32_t huge = htonl(0xffffffffu);
    ASSERT_EQ(write(fd, &huge, sizeof huge), 4);
    EXPECT_EQ(raw_status(fd), BUS_STATUS_INVALID_ARGUMENT);
    close(fd);

    fd = raw_connect();
    ASSERT_EQ(wire_write_frame(fd, "not a request", wire_now_ms() + 1000), WIRE_OK);
    EXPECT_EQ(raw_status(fd), BUS_STATUS_INVALID_COMMAND);
    close(fd);

    fd = raw_connect();
    ASSERT_EQ(wire_write_frame(fd, encode_call("tarn", "echo", std::string("{}\0{}", 5)),
                               wire_now_ms() + 1000),
              WIRE_OK);
    EXPECT_EQ(raw_status(fd), BUS_STATUS_INVALID_ARGUMENT);
    close(fd);

    // A client that stalls halfway through its frame is dropped; the next one is served.
    int stalled = raw_connect();
    uint32_t ten = htonl(10);
    ASSERT_EQ(write(stalled, &ten, sizeof ten), 4);
    std::string reply;
    EXPECT_EQ(call("tarn", "echo", R"({"next":true})", reply), BUS_STATUS_OK);
    EXPECT_EQ(reply, R"({"next":true})");
    close(stalled);
}

TEST(FormatJsonIndented, PrintsLikeTheUbusCommand) {
    EXPECT_EQ(format_json_indented(R"({"result":[]})"), "{\n\t\"result\": [\n\t\t\n\t]\n}");
    EXPECT_EQ(format_json_indented(R"({"a":{"b":1,"c":"x"},"d":[{"e":"f"}]})"),
              "{\n\t\"a\": {\n\t\t\"b\": 1,\n\t\t\"c\": \"x\"\n\t},\n\t\"d\": [\n\t\t{\n\t\t\t"
              "\"e\": \"f\"\n\t\t}\n\t]\n}");
    // Punctuation inside strings, escaped quotes included, is text.
    EXPECT_EQ(format_json_indented(R"({"k":"a,{b}:[c] \"q\" \\"})"),
              "{\n\t\"k\": \"a,{b}:[c] \\\"q\\\" \\\\\"\n}");
}

class TarnBusCommandTest : public BusServerTest {
  protected:
    int run(std::vector<std::string> words, std::string &out, std::string &err) {
        std::vector<char *> argv;
        for (std::string &word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        int status = tarn_bus_main(static_cast<int>(words.size()), argv.data());
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
        return status;
    }
};

TEST_F(TarnBusCommandTest, CallPrintsTheIndentedReply) {
    std::string out, err;
    EXPECT_EQ(run({"tarn-bus", "-s", path_, "call", "tarn", "debug_set", R"({"debug_switch":0})"},
                  out, err),
              0);
    EXPECT_EQ(out, "{\n\t\"result\": \"success\"\n}\n");
    EXPECT_EQ(err, "");

    EXPECT_EQ(run({"tarn-bus", "-s", path_, "-S", "call", "tarn", "repeated"}, out, err), 0);
    EXPECT_EQ(out, R"({"result":"x","row":{"rssi":"1","rssi":"2"}})"
                   "\n");
    EXPECT_EQ(run({"tarn-bus", "-s", path_, "call", "tarn", "repeated"}, out, err), 0);
    EXPECT_EQ(out,
              "{\n\t\"result\": \"x\",\n\t\"row\": {\n\t\t\"rssi\": \"1\",\n\t\t\"rssi\": "
              "\"2\"\n\t}\n}\n");
}

// Standard error is a file here, so a failed call reports the ubus command's long line and the
// negated status.
TEST_F(TarnBusCommandTest, FailuresReportAndExitAsTheUbusCommand) {
    std::string missing = dir_ + "/none";
    struct failure {
        std::vector<std::string> words;
        int status;
        std::string err;
    } failures[] = {
        {{"call", "tarn", "nope"}, -3, "Command failed: ubus call tarn nope (Method not found)\n"},
        {{"call", "x", "debug_get"}, 4, "Command failed: Not found\n"},
        {{"call", "tarn", "echo", "{"},
         -12,
         "Command failed: ubus call tarn echo { (Parsing message data failed)\n"},
        {{"call", "tarn", "parse_failure"},
         1,
         "Command failed: ubus call tarn parse_failure (Unknown error: -1)\n"
         "Command failed: Invalid command\n"},
        {{"-S", "call", "tarn", "nope"}, 3, ""},
        {{"send", "x", "[]"}, 12, "Command failed: Parsing message data failed\n"},
        {{"list", "x"}, 4, "Command failed: Not found\n"},
    };
    std::string out, err;
    for (const failure &f : failures) {
        std::vector<std::string> words = {"tarn-bus", "-s", path_};
        words.insert(words.end(), f.words.begin(), f.words.end());
        EXPECT_EQ(run(words, out, err), f.status) << f.words[1];
        EXPECT_EQ(err, f.err);
        EXPECT_EQ(out, "");
    }
    EXPECT_EQ(run({"tarn-bus", "-s", missing, "call", "tarn", "debug_get"}, out, err), -1);
    EXPECT_EQ(err, "Failed to connect to ubus\n");
    EXPECT_EQ(run({"tarn-bus", "-s", path_, "call", "tarn"}, out, err), -2);
    EXPECT_EQ(err.rfind("Usage: tarn-bus [<options>] <command> [arguments...]\n", 0), 0u);
}

TEST_F(TarnBusCommandTest, ListNamesTheObjectAndItsSignatures) {
    std::string out, err;
    EXPECT_EQ(run({"tarn-bus", "-s", path_, "list"}, out, err), 0);
    EXPECT_EQ(out, "tarn\n");
    EXPECT_EQ(run({"tarn-bus", "-s", path_, "-v", "list", "tarn"}, out, err), 0);
    EXPECT_EQ(out.rfind("'tarn' @00000001\n\t\"debug_get\":{}\n\t\"debug_set\":{\"debug_switch\":"
                        "\"Integer\"}\n",
                        0),
              0u);
}

TEST_F(TarnBusCommandTest, SendDeliversTheEvent) {
    std::string out, err;
    EXPECT_EQ(run({"tarn-bus", "-s", path_, "send", "userconfig.reload",
                   R"({"ModifiedConfig":["static_neighbor.conf"]})"},
                  out, err),
              0);
    EXPECT_EQ(out, "");
    std::vector<std::string> seen = take_events();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0], R"(userconfig.reload {"ModifiedConfig":["static_neighbor.conf"]})");
}

}  // namespace
