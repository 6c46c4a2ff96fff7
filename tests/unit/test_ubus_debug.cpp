// "debug_set" and "debug_get".
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "core/settings.h"
#include "ubus/methods.h"

namespace {

json_ref parse(const char *text) {
    return json_ref(json_tokener_parse(text));
}

std::string text_of(const json_ref &value) {
    return value ? json_object_to_json_string_ext(value.get(), JSON_C_TO_STRING_PLAIN) : "(none)";
}

class DebugMethodsTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("TARN_LOG_STDERR", "1", 1); }
    void TearDown() override { tarn_debug = 0; }
};

struct set_case {
    const char *request;
    int before;
    int after;
};

class DebugSetTest : public DebugMethodsTest, public ::testing::WithParamInterface<set_case> {};

TEST_P(DebugSetTest, RepliesSuccessAndSetsOnlyFromAnInt32) {
    const set_case &c = GetParam();
    tarn_debug = c.before;
    json_ref request = parse(c.request);
    json_ref reply;
    EXPECT_EQ(ubus_set_debug("debug_set", request.get(), reply), 0);
    EXPECT_EQ(text_of(reply), R"({"result":"success"})");
    EXPECT_EQ(tarn_debug, c.after) << c.request;
}

INSTANTIATE_TEST_SUITE_P(Requests, DebugSetTest,
                         ::testing::Values(set_case{R"({"debug_switch":0})", 1, 0},
                                           set_case{R"({"debug_switch":1})", 0, 1},
                                           set_case{R"({"debug_switch":-5})", 0, -5},
                                           set_case{R"({})", 1, 1},           // absent: unchanged
                                           set_case{R"({"debug":1})", 0, 0},  // other name: absent
                                           set_case{R"({"debug_switch":"1"})", 0, 0},
                                           set_case{R"({"debug_switch":1.5})", 0, 0},
                                           set_case{R"({"debug_switch":true})", 0, 0},
                                           set_case{R"({"debug_switch":2147483648})", 0, 0},
                                           set_case{R"({"debug_switch":2147483647})", 0,
                                                    2147483647}));

TEST_F(DebugMethodsTest, SetWithoutAnObjectIsAParseErrorWithoutReply) {
    tarn_debug = 1;
    json_ref reply;
    testing::internal::CaptureStderr();
    EXPECT_EQ(ubus_set_debug("debug_set", nullptr, reply), METHOD_PARSE_FAILED);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(reply);
    EXPECT_EQ(tarn_debug, 1);
    EXPECT_EQ(log, "ubus_set_debug: blobmsg parse error.\n");
}

TEST_F(DebugMethodsTest, SwitchingOnLogsTheWarning) {
    tarn_debug = 0;
    json_ref request = parse(R"({"debug_switch":3})");
    json_ref reply;
    testing::internal::CaptureStderr();
    ubus_set_debug("debug_set", request.get(), reply);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Set tarn in debug mode\n");
}

TEST_F(DebugMethodsTest, GetRepliesBothTablesWithInt32Values) {
    tarn_debug = 7;
    rcv_hand_cnt = 11;
    rcv_nbcp_cnt = 0x7fffffff;
    rcv_nbcp_ip6_cnt = 0xffffffffu;  // read back as int32
    rcv_local_cnt = 0x80000000u;
    json_ref reply;
    json_ref request = parse("{}");
    EXPECT_EQ(ubus_get_debug("debug_get", request.get(), reply), 0);
    EXPECT_EQ(text_of(reply),
              R"({"Debug":{"debug_switch":7},"Socket_rcvCount":{"rcv_hand_cnt":11,)"
              R"("rcv_nbcp_cnt":2147483647,"rcv_nbcp_ip6_cnt":-1,"rcv_local_cnt":-2147483648}})");
    rcv_hand_cnt = 0;
    rcv_nbcp_cnt = 0;
    rcv_nbcp_ip6_cnt = 0;
    rcv_local_cnt = 0;
}

TEST_F(DebugMethodsTest, GetIgnoresItsRequest) {
    tarn_debug = 0;
    json_ref reply;
    EXPECT_EQ(ubus_get_debug("debug_get", nullptr, reply), 0);
    json_object *debug = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(reply.get(), "Debug", &debug));
    json_object *value = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(debug, "debug_switch", &value));
    EXPECT_TRUE(json_object_is_type(value, json_type_int));
    EXPECT_EQ(json_object_get_int(value), 0);
}

}  // namespace
