// The bus methods: status and reply of each request, the table reader of "show" and
// "show_neighbor", and the reload event; their normal use is tested end to end by the system tests.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "core/settings.h"
#include "static_env.h"
#include "ubus/methods.h"
#include "ubus/show_methods.h"

namespace {

using static_env::list_text;
using static_env::nodes;

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
    const struct {
        const char *request;
        const char *reply;
        int after;
    } cases[] = {
        {R"({"debug_switch":-5})", OK, -5},
        // An int32 at either end is taken; one past it is not an int32.
        {R"({"debug_switch":2147483647})", OK, 2147483647},
        {R"({"debug_switch":2147483648})", OK, 1},
        {R"({"debug_switch":-2147483648})", OK, INT32_MIN},
        {R"({"debug_switch":-2147483649})", OK, 1},
        {R"({})", OK, 1},                    // absent: kept
        {R"({"debug_switch":"5"})", OK, 1},  // not an int32: kept
        {nullptr, PARSE_FAILED, 1},
    };
    for (const auto &c : cases) {
        tarn_debug = 1;
        EXPECT_EQ(call(ubus_set_debug, c.request), c.reply) << c.request;
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

// Printed tables of the command-line client, and the reply when the first `kept` data lines
// or words are kept: "a\n" then data lines "1" to "n", or "c1 ... cn\n" then "w1 ... wn\n".
using printed_and_reply = std::pair<std::string, std::string>;

printed_and_reply numbered_lines(int n, int kept) {
    std::string text = "a\n", objects;
    for (int i = 1; i <= n; ++i) {
        text += std::to_string(i) + "\n";
        objects += i > kept ? "" : (i > 1 ? "," : "") + (R"({"a":")" + std::to_string(i) + "\"}");
    }
    return {text, R"({"result":[)" + objects + "]}"};
}

printed_and_reply words_line(int n, int kept) {
    std::string names, words, members;
    for (int i = 1; i <= n; ++i) {
        names += "c" + std::to_string(i) + " ";
        words += "w" + std::to_string(i) + " ";
        if (i <= kept) {
            members += (i > 1 ? "," : "") +
                       ("\"c" + std::to_string(i) + "\":\"w" + std::to_string(i) + "\"");
        }
    }
    return {names + "\n" + words + "\n", R"({"result":[{)" + members + "}]}"};
}

TEST(ShowTable, ReadsPrintedLinesAsOneObjectPerLine) {
    const std::string w31(31, 'w');
    const std::string x31(31, 'x');
    const printed_and_reply cases[] = {
        // Limits: words of 31 characters, 20 words a line, 127 lines, reads of 1023 characters.
        {"a b\n" + w31 + " " + w31 + "w\n",
         R"({"result":[{"a":")" + w31 + R"(","b":")" + w31 + R"("}]})"},
        words_line(20, 20),
        words_line(21, 20),
        numbered_lines(127, 127),
        numbered_lines(128, 127),
        // 1023 characters with the line feed are one read; one more leaves the feed to a second.
        {"a\n" + std::string(1020, 'x') + " z\n", R"({"result":[{"a":")" + x31 + R"("}]})"},
        {"a\n" + std::string(1021, 'x') + " z\n",
         R"({"result":[{"a":")" + x31 + R"("},{"a":"\n"}]})"},
        {"mac  ip\naa:bb   1.2.3.4 extra\n", R"({"result":[{"mac":"aa:bb","ip":"1.2.3.4"}]})"},
        {"a b\n\nc d\n", R"({"result":[{"a":"\n"},{"a":"c","b":"d"}]})"},
        {"radioid rssi radioid rssi\n0 40 1 35\n",
         R"({"result":[{"radioid":"0","rssi":"40","radioid":"1","rssi":"35"}]})"},
    };
    for (const auto &c : cases) {
        std::unique_ptr<show_text_table> table(new show_text_table());
        FILE *stream = fmemopen(const_cast<char *>(c.first.data()), c.first.size(), "r");
        read_show_lines(stream, *table);
        fclose(stream);
        EXPECT_EQ(text_of(show_table_reply(table.get())), c.second) << c.first;
    }
}

// The static neighbor methods' replies and how they map their arguments, one row per distinct
// reply; each row starts from a list of node A alone. The store's own rules are tested with it.
TEST(StaticMethods, ReplyAndList) {
    SKIP_UNLESS_ROOT();
    const std::string A = "00:11:22:33:44:55 0.0.0.0 :: 4";
    auto numbered_request = [](int n) {  // a replace by nodes 0:0:0:0:0:1 to n
        std::string list;
        for (int i = 1; i <= n; ++i) {
            list += (i > 1 ? "," : "") + (R"({"mac":"0:0:0:0:0:)" + std::to_string(i) + "\"}");
        }
        return R"({"neighbor_list":[)" + list + "]}";
    };
    const std::string EIGHT = numbered_request(8);
    const std::string EIGHT_LIST = nodes({8, 7, 6, 5, 4, 3, 2, 1}, "255.255.255.255");
    const struct {
        method_handler handler;
        std::string request;
        const char *reply;
        std::string list_after;
        std::string before = R"({"mac":"00:11:22:33:44:55"})";  // an add of A, or a replace
    } cases[] = {
        {ubus_static_mac_add, "", PARSE_FAILED, A},
        // The list holds 8 nodes: a replace keeps the first 8 elements, an add of a new MAC to
        // a full list fails and changes nothing, an add of a known one still updates it.
        {ubus_static_mac_qv, EIGHT, OK, EIGHT_LIST},
        {ubus_static_mac_qv, numbered_request(9), OK, EIGHT_LIST},
        {ubus_static_mac_add, R"({"mac":"0:0:0:0:0:9"})", FAIL, EIGHT_LIST, EIGHT},
        {ubus_static_mac_add, R"({"mac":"0:0:0:0:0:8","ip":"1.2.255.3"})", OK,
         nodes({8}, "1.2.255.3") + EIGHT_LIST.substr(EIGHT_LIST.find(';')), EIGHT},
        {ubus_static_mac_add, R"({"mac":"0:0:0:0:0:1","ip":"1.2.256.3"})", OK,
         "00:00:00:00:00:01 255.255.255.255 :: 4; " + A},
        // Texts at their length and one past: a MAC of 63 characters and an IPv4 text of 15 are
        // taken by an add, one more character is refused.
        {ubus_static_mac_add,
         R"({"mac":"1:2:3:4:5:)" + std::string(52, '0') + R"(4","ip":"192.168.100.200"})", OK,
         "01:02:03:04:05:04 192.168.100.200 :: 4; " + A},
        {ubus_static_mac_add, R"({"mac":"1:2:3:4:5:)" + std::string(53, '0') + R"(4"})", FAIL, A},
        {ubus_static_mac_add, R"({"mac":"0:0:0:0:0:1","ip":"192.168.100.2001"})", FAIL, A},
        // A replace cuts "mac" after 17 characters, "ip" after 15 and "ip6" after 45.
        {ubus_static_mac_qv,
         R"({"neighbor_list":[{"mac":"00:11:22:33:44:5f5","ip":"192.168.100.2001",)"
         R"("ip6":"0000:0000:0000:0000:0000:ffff:192.168.100.2001"},)"
         R"({"mac":"00:11:22:33:44:f5","ip":"192.168.100.200",)"
         R"("ip6":"0000:0000:0000:0000:0000:ffff:192.168.100.200"}]})",
         OK,
         "00:11:22:33:44:f5 192.168.100.200 ::ffff:192.168.100.200 4; "
         "00:11:22:33:44:5f 192.168.100.200 ::ffff:192.168.100.200 4"},
        {ubus_static_mac_del, R"({"other":"x"})", OK, A},
        // An address is read by the AP's rules: a trailing blank makes it all ones.
        {ubus_static_mac_add, R"({"mac":"66:77:88:99:aa:bb","ip":"10.0.0.5 "})", OK,
         "66:77:88:99:aa:bb 255.255.255.255 :: 4; " + A},
        // Each element is taken, the address defaults to all ones, the last becomes the head.
        {ubus_static_mac_qv,
         R"({"neighbor_list":[{"mac":"00:11:22:33:44:55","ip":"10.0.0.5 "},)"
         R"({"mac":"66:77:88:99:aa:bb","ip":"127.0.0.3","ip6":"fd00::3"},"x"]})",
         OK,
         "00:00:00:00:00:00 255.255.255.255 :: 4; 66:77:88:99:aa:bb 127.0.0.3 fd00::3 4; "
         "00:11:22:33:44:55 255.255.255.255 :: 4"},
        {ubus_static_mac_qv, R"({"neighbor_list":{"mac":"66:77:88:99:aa:bb"}})", FAIL, A},
        {ubus_static_mac_qv, "", NO_JSON, A},
        // The first delete's failure does not decide the reply.
        {ubus_static_mac_qv_del,
         R"({"mac_list":[{"mac":"00:00:00:00:00:77"},{"mac":"00:11:22:33:44:55"}]})", OK, ""},
    };
    for (const auto &c : cases) {
        std::string seen = static_env::run([&c] {
            bool replace = c.before.find("neighbor_list") != std::string::npos;
            call(replace ? ubus_static_mac_qv : ubus_static_mac_add, c.before.c_str());
            std::string reply = call(c.handler, c.request.empty() ? nullptr : c.request.c_str());
            return reply + " | " + list_text();
        });
        EXPECT_EQ(seen, c.reply + (" | " + c.list_after)) << c.request;
    }
}

// Only "userconfig.reload" naming "all" or the file reloads: B, from the file, heads list C.
TEST(ReloadEvent, ReloadsOnlyForAMatchingName) {
    SKIP_UNLESS_ROOT();
    const struct {
        const char *type;
        const char *message;
        const char *head;
    } cases[] = {
        {"userconfig.reload", R"({"ModifiedConfig":["static_neighbor.conf"]})",
         "00:00:00:00:00:0b"},
        {"userconfig.reload", R"({"ModifiedConfig":["network","all"]})", "00:00:00:00:00:0b"},
        {"userconfig.reload", R"({"ModifiedConfig":["network","wireless"]})", "00:00:00:00:00:0c"},
        {"network.changed", R"({"ModifiedConfig":["all"]})", "00:00:00:00:00:0c"},
    };
    for (const auto &c : cases) {
        std::string head = static_env::run([&c] {
            call(ubus_static_mac_add, R"({"mac":"00:00:00:00:00:0c"})");
            static_env::write_conf(R"({"static_neighbor":[{"mac":"00:00:00:00:00:0a"},)"
                                   R"({"mac":"00:00:00:00:00:0b"}]})");
            json_ref parsed(json_tokener_parse(c.message));
            ubus_reload_event(c.type, parsed.get());
            return list_text().substr(0, 17);
        });
        EXPECT_EQ(head, c.head) << c.type << " " << c.message;
    }
}

}  // namespace
