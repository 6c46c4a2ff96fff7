// The bus methods: status and reply of each request, the table reader of "show" and
// "show_neighbor", and the reload event. What the store does with an edit is tested with the
// store (the first eight records of a replace, a missing file at a reload), and the methods'
// normal use end to end by the system tests.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

#include "core/settings.h"
#include "static_env.h"
#include "ubus/json_ref.h"
#include "ubus/methods.h"
#include "ubus/policy.h"
#include "ubus/show_methods.h"

namespace {

using static_env::list_text;

std::string text_of(const json_ref &value) {
    return value ? json_object_to_json_string_ext(value.get(), JSON_C_TO_STRING_PLAIN) : "(none)";
}

// "<status> <reply>" of one handler call.
std::string call(method_handler handler, const char *request) {
    json_ref message(request != nullptr ? json_tokener_parse(request) : nullptr);
    json_ref reply;
    int status = handler("method", message.get(), reply);
    return std::to_string(status) + " " + text_of(reply);
}

constexpr const char *OK = "0 {\"result\":\"success\"}";
constexpr const char *FAIL = "0 {\"result\":\"fail\"}";
constexpr const char *NO_JSON = "1 (none)";
constexpr const char *PARSE_FAILED = "-1 (none)";

TEST(DebugSet, TakesOnlyAnInt32AndAlwaysRepliesSuccess) {
    setenv("TARN_LOG_STDERR", "1", 1);
    const struct {
        const char *request;
        int before;
        const char *reply;
        int after;
    } cases[] = {
        {R"({"debug_switch":0})", 1, OK, 0},
        {R"({"debug_switch":-5})", 0, OK, -5},
        {R"({"debug_switch":2147483647})", 0, OK, 2147483647},
        {R"({})", 1, OK, 1},
        {R"({"debug":1})", 0, OK, 0},
        {R"({"debug_switch":"1"})", 0, OK, 0},
        {R"({"debug_switch":1.5})", 0, OK, 0},
        {R"({"debug_switch":true})", 0, OK, 0},
        {R"({"debug_switch":2147483648})", 0, OK, 0},
        {nullptr, 1, PARSE_FAILED, 1},
    };
    for (const auto &c : cases) {
        tarn_debug = c.before;
        testing::internal::CaptureStderr();
        EXPECT_EQ(call(ubus_set_debug, c.request), c.reply) << c.request;
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(tarn_debug, c.after) << c.request;
    }
    tarn_debug = 0;
}

TEST(DebugGet, RepliesBothTablesWithInt32Values) {
    tarn_debug = 7;
    rcv_hand_cnt = 11;
    rcv_nbcp_cnt = 0x7fffffff;
    rcv_nbcp_ip6_cnt = 0xffffffffu;
    rcv_local_cnt = 0x80000000u;
    EXPECT_EQ(call(ubus_get_debug, "{}"),
              R"(0 {"Debug":{"debug_switch":7},"Socket_rcvCount":{"rcv_hand_cnt":11,)"
              R"("rcv_nbcp_cnt":2147483647,"rcv_nbcp_ip6_cnt":-1,"rcv_local_cnt":-2147483648}})");
    tarn_debug = rcv_hand_cnt = rcv_nbcp_cnt = rcv_nbcp_ip6_cnt = rcv_local_cnt = 0;
}

// The printed table of the command-line client, read as the show methods read it.
TEST(ShowTable, ReadsPrintedLinesAsOneObjectPerLine) {
    const std::string long_line = "a b\n" + std::string(1023, 'x') + "yy zz\n";
    const struct {
        std::string printed;
        const char *reply;
    } cases[] = {
        {"", R"({"result":[]})"},
        {"mac ip\n", R"({"result":[]})"},
        {"mac  ip\naa:bb   1.2.3.4 extra\n", R"({"result":[{"mac":"aa:bb","ip":"1.2.3.4"}]})"},
        {"a b\n\nc d\n", R"({"result":[{"a":"\n"},{"a":"c","b":"d"}]})"},
        {long_line, R"({"result":[{"a":"xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"},{"a":"yy","b":"zz"}]})"},
        {"radioid rssi radioid rssi\n0 40 1 35\n",
         R"({"result":[{"radioid":"0","rssi":"40","radioid":"1","rssi":"35"}]})"},
    };
    for (const auto &c : cases) {
        std::unique_ptr<show_text_table> table(new show_text_table());
        FILE *stream = fmemopen(const_cast<char *>(c.printed.data()), c.printed.size(), "r");
        read_show_lines(stream, *table);
        fclose(stream);
        EXPECT_EQ(text_of(show_table_reply(table.get())), c.reply) << c.printed;
    }
}

// The static neighbor methods: each case starts from a list of node A alone.
constexpr const char *A = "00:11:22:33:44:55 0.0.0.0 :: 4";

struct method_case {
    method_handler handler;
    const char *request;
    const char *reply;
    const char *list_after;
};

class StaticMethods : public testing::TestWithParam<method_case> {};

TEST_P(StaticMethods, ReplyAndList) {
    SKIP_UNLESS_ROOT();
    const method_case &c = GetParam();
    std::string seen = static_env::run([&c] {
        call(ubus_static_mac_add, R"({"mac":"00:11:22:33:44:55"})");
        std::string reply = call(c.handler, c.request);
        return reply + " | " + list_text();
    });
    EXPECT_EQ(seen, std::string(c.reply) + " | " + c.list_after) << c.request;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StaticMethods,
    testing::Values(
        method_case{ubus_static_mac_add, R"({"ip":"127.0.0.2"})", OK, A},
        method_case{ubus_static_mac_add, R"({"mac":12345})", OK, A},
        method_case{ubus_static_mac_add, nullptr, PARSE_FAILED, A},
        method_case{ubus_static_mac_del, nullptr, PARSE_FAILED, A},
        method_case{ubus_static_mac_del, R"({"other":"x"})", OK, A},
        // Each element is taken, the address defaults to all ones, the last becomes the head.
        method_case{ubus_static_mac_qv,
                    R"({"neighbor_list":[{"mac":"00:11:22:33:44:55"},)"
                    R"({"mac":"66:77:88:99:aa:bb","ip":"127.0.0.3","ip6":"fd00::3"},"x"]})",
                    OK,
                    "00:00:00:00:00:00 255.255.255.255 :: 4; "
                    "66:77:88:99:aa:bb 127.0.0.3 fd00::3 4; "
                    "00:11:22:33:44:55 255.255.255.255 :: 4"},
        method_case{ubus_static_mac_qv, R"({})", FAIL, A},
        method_case{ubus_static_mac_qv, R"({"neighbor_list":null})", FAIL, A},
        method_case{ubus_static_mac_qv, R"({"neighbor_list":{"mac":"66:77:88:99:aa:bb"}})", FAIL,
                    A},
        method_case{ubus_static_mac_qv, R"({"neighbor_list":[]})", OK, ""},
        method_case{ubus_static_mac_qv, nullptr, NO_JSON, A},
        method_case{ubus_static_mac_qv_del, nullptr, NO_JSON, A},
        // The first delete's failure does not decide the reply.
        method_case{ubus_static_mac_qv_del,
                    R"({"mac_list":[{"mac":"00:00:00:00:00:77"},{"mac":"00:11:22:33:44:55"}]})", OK,
                    ""},
        method_case{ubus_static_mac_qv_del, R"({"mac_list":[]})", OK, A}));

// Delivers a reload event to a list of node C whose file holds A and B instead; returns the
// list's head after it and the event's own log lines (the update pass a reload starts logs
// lines of its own).
std::string reload(const char *type, const char *message) {
    return static_env::run([=] {
        call(ubus_static_mac_add, R"({"mac":"00:00:00:00:00:0c"})");
        static_env::write_conf(R"({"static_neighbor":[{"mac":"00:00:00:00:00:0a"},)"
                               R"({"mac":"00:00:00:00:00:0b"}]})");
        size_t logged_before = sandbox::log_text().size();
        json_ref parsed(message != nullptr ? json_tokener_parse(message) : nullptr);
        ubus_reload_event(type, parsed.get());
        std::string list = list_text();
        std::istringstream log(sandbox::log_text().substr(logged_before));
        std::string own_lines;
        for (std::string line; std::getline(log, line);) {
            own_lines += line.rfind("Tarn ", 0) == 0 ? line + "\n" : "";
        }
        return list.substr(0, list.find(' ')) + " | " + own_lines;
    });
}

// The list is reloaded once per name in "ModifiedConfig" that is "all" or the file's name.
TEST(ReloadEvent, ReloadsOncePerMatchingNameAndIgnoresTheRest) {
    SKIP_UNLESS_ROOT();
    const std::string B = "00:00:00:00:00:0b | ";
    const std::string C = "00:00:00:00:00:0c | ";
    const std::string reloaded = "Tarn update static neighbor by ubus event[userconfig.reload].\n";
    const struct {
        const char *type;
        const char *message;
        std::string expected;
    } cases[] = {
        {"userconfig.reload", R"({"ModifiedConfig":["x","static_neighbor.conf"]})", B + reloaded},
        {"userconfig.reload", R"({"ModifiedConfig":["all","static_neighbor.conf"]})",
         B + reloaded + reloaded},
        {"userconfig.reload", R"({"ModifiedConfig":["network","wireless"]})", C},
        {"userconfig.reload", R"({"ModifiedConfig":[]})", C},
        {"userconfig.reload", R"({"Other":["all"]})", C},
        {"userconfig.reload", R"({"ModifiedConfig":"all"})", C},
        {"userconfig.reload", R"({"ModifiedConfig":[1,{"all":1}]})", C},
        {"userconfig.reload", nullptr, C},
        {"network.changed", R"({"ModifiedConfig":["all"]})",
         C + "Tarn do not handle the ubus event[network.changed].\n"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(reload(c.type, c.message), c.expected) << (c.message ? c.message : "(none)");
    }
}

}  // namespace
