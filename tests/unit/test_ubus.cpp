// The bus methods: argument reading by policy, debug_set/debug_get, show/show_neighbor, the
// static neighbor methods and the reload event.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
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

// Argument reading by policy: a member of another type counts as absent.
json_ref parse(const char *text) {
    return json_ref(json_tokener_parse(text));
}

struct type_case {
    const char *value;  // JSON text of the member
    arg_type type;
    bool accepted;
};

class ArgTypeTest : public ::testing::TestWithParam<type_case> {};

TEST_P(ArgTypeTest, AcceptsOnlyItsOwnType) {
    const type_case &c = GetParam();
    json_ref value = parse(c.value);
    EXPECT_EQ(arg_has_type(value.get(), c.type), c.accepted) << c.value;
}

INSTANTIATE_TEST_SUITE_P(
    Values, ArgTypeTest,
    ::testing::Values(
        type_case{"\"1\"", arg_type::string, true}, type_case{"1", arg_type::string, false},
        type_case{"null", arg_type::string, false}, type_case{"1", arg_type::int32, true},
        type_case{"-2147483648", arg_type::int32, true},
        type_case{"2147483647", arg_type::int32, true},
        type_case{"2147483648", arg_type::int32, false},
        type_case{"-2147483649", arg_type::int32, false},
        type_case{"18446744073709551615", arg_type::int32, false},
        type_case{"1.5", arg_type::int32, false}, type_case{"\"1\"", arg_type::int32, false},
        type_case{"true", arg_type::int32, false}, type_case{"[]", arg_type::array, true},
        type_case{"{}", arg_type::array, false}, type_case{"\"[]\"", arg_type::array, false},
        type_case{"{}", arg_type::table, true}, type_case{"[]", arg_type::table, false}));

const arg_policy add_policy[3] = {
    {"mac", arg_type::string}, {"ip", arg_type::string}, {"count", arg_type::int32}};

TEST(ParseArgsJson, FindsMembersOfTheirTypeAndSkipsOthers) {
    json_ref request = parse(R"({"mac":"aa:bb","ip":7,"count":3,"other":"x"})");
    json_object *found[3];
    ASSERT_EQ(parse_args_json(add_policy, 3, request.get(), found), 0);
    ASSERT_NE(found[0], nullptr);
    EXPECT_STREQ(json_object_get_string(found[0]), "aa:bb");
    EXPECT_EQ(found[1], nullptr);  // "ip" is a number, not a string: absent
    ASSERT_NE(found[2], nullptr);
    EXPECT_EQ(json_object_get_int(found[2]), 3);
}

TEST(ParseArgsJson, NonObjectRequestFailsAndClearsEveryMember) {
    json_ref array = parse(R"([{"mac":"aa"}])");
    for (json_object *request : {static_cast<json_object *>(nullptr), array.get()}) {
        json_object *found[3] = {array.get(), array.get(), array.get()};
        EXPECT_EQ(parse_args_json(add_policy, 3, request, found), -1);
        for (json_object *member : found) {
            EXPECT_EQ(member, nullptr);
        }
    }
}

// "debug_set" and "debug_get".
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

// "show" and "show_neighbor": the printed table of the command-line client as JSON.
struct free_deleter {
    void operator()(void *block) const { free(block); }
};
using table_ptr = std::unique_ptr<show_text_table, free_deleter>;

table_ptr new_table() {
    return table_ptr(static_cast<show_text_table *>(calloc(1, sizeof(show_text_table))));
}

// Reads text as the command's output would be read.
table_ptr table_from(const std::string &text) {
    table_ptr table = new_table();
    FILE *stream = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    read_show_lines(stream, *table);
    fclose(stream);
    return table;
}

std::string cluster_header() {
    char line[256];
    snprintf(line, sizeof line, "%-17s  %-15s  %-40s  %-15s  %-10s  %-6s %-10s  %-10s \n", "mac",
             "ip", "ip6", "qv_ip", "cluster_id", "state", "name", "version");
    return line;
}

std::string cluster_line(const char *mac, const char *ip, const char *ip6, int state,
                         const char *name) {
    char line[256];
    snprintf(line, sizeof line, "%s  %-15s  %-40s  %-15s  %-10d  %-6d %-10s  %-10s\n", mac, ip, ip6,
             "10.0.0.1", 5, state, name, "1.2.3");
    return line;
}

std::string radio_header() {
    char line[512];
    snprintf(line, sizeof line,
             "%-17s  %-15s  %-15s  %-15s  %-6s %-10s  %-12s  %-8s %-7s %-7s %s %-7s %-7s %-7s %s "
             "%-7s %-7s %-7s %s %s\n",
             "mac", "ip", "qv_ip", "tenantId", "state", "name", "version", "radiocnt", "radioid",
             "channel", "rssi", "txpower", "radioid", "channel", "rssi", "txpower", "radioid",
             "channel", "rssi", "txpower");
    return line;
}

TEST(SplitShowWords, CutsAtRunsOfSpacesOnly) {
    show_word words[SHOW_WORDS_MAX];
    split_show_words("  a  bb\tc   ddd ", words);
    EXPECT_STREQ(words[0], "a");
    EXPECT_STREQ(words[1], "bb\tc");
    EXPECT_STREQ(words[2], "ddd");
    EXPECT_STREQ(words[3], "");
}

TEST(SplitShowWords, KeepsTwentyWordsOfThirtyOneCharacters) {
    std::string text;
    for (int i = 0; i < 25; ++i) {
        text += std::string(i == 4 ? 40 : 3, static_cast<char>('a' + i)) + " ";
    }
    show_word words[SHOW_WORDS_MAX];
    memset(words, 'x', sizeof words);  // every unused word must come back empty
    split_show_words(text, words);
    EXPECT_EQ(std::string(words[4]), std::string(31, 'e'));
    EXPECT_STREQ(words[19], "ttt");
    EXPECT_STREQ(words[0], "aaa");
    for (const show_word &word : words) {
        EXPECT_LE(strlen(word), 31u);
    }
}

TEST(ReadShowLines, HeaderOnlyGivesNoDataLine) {
    table_ptr table = table_from(cluster_header());
    EXPECT_EQ(table->line_cnt, 0);
    EXPECT_STREQ(table->names[0], "mac");
    EXPECT_STREQ(table->names[7], "version");
    EXPECT_STREQ(table->names[8], "");
    EXPECT_EQ(text_of(show_table_reply(table.get())), R"({"result":[]})");
}

TEST(ReadShowLines, NothingPrintedGivesNoLine) {
    table_ptr table = table_from("");
    EXPECT_EQ(table->line_cnt, 0);
    EXPECT_EQ(text_of(show_table_reply(table.get())), R"({"result":[]})");
}

TEST(ReadShowLines, KeepsTheFirst127DataLines) {
    std::string text = "n\n";
    for (int i = 1; i <= 130; ++i) {
        text += "w" + std::to_string(i) + "\n";
    }
    table_ptr table = table_from(text);
    EXPECT_EQ(table->line_cnt, SHOW_LINES_MAX);
    EXPECT_STREQ(table->lines[0][0], "w1");
    EXPECT_STREQ(table->lines[126][0], "w127");
    json_ref reply = show_table_reply(table.get());
    json_object *result = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(reply.get(), "result", &result));
    EXPECT_EQ(json_object_array_length(result), 127u);
}

TEST(ReadShowLines, LineLongerThanOneReadCountsAsTwoLines) {
    std::string text = "a b\n" + std::string(1023, 'x') + "yy zz\n";
    table_ptr table = table_from(text);
    ASSERT_EQ(table->line_cnt, 2);
    EXPECT_EQ(std::string(table->lines[0][0]), std::string(31, 'x'));
    EXPECT_STREQ(table->lines[1][0], "yy");
    EXPECT_STREQ(table->lines[1][1], "zz");
}

TEST(ReadShowLines, LoneLineFeedStaysAWord) {
    // Only a line longer than one character loses its line feed.
    table_ptr table = table_from("a b\n\nc d\n");
    ASSERT_EQ(table->line_cnt, 2);
    EXPECT_STREQ(table->lines[0][0], "\n");
    EXPECT_EQ(text_of(show_table_reply(table.get())),
              R"({"result":[{"a":"\n"},{"a":"c","b":"d"}]})");
}

TEST(ShowTableReply, WordsBeyondTheNamedColumnsAreLeftOut) {
    table_ptr table = table_from("mac ip\naa:bb 1.2.3.4 extra more\n");
    EXPECT_EQ(text_of(show_table_reply(table.get())),
              R"({"result":[{"mac":"aa:bb","ip":"1.2.3.4"}]})");
}

TEST(ShowTableReply, RepeatedColumnNamesGiveRepeatedMembersInOrder) {
    std::string text =
        radio_header() +
        "00:11:22:33:44:55  192.168.1.2      10.0.0.1         -1               0      "
        "ap-2        1.0.0         2        0       36      40   20      1       1    "
        "   35   18      \n";
    table_ptr table = table_from(text);
    EXPECT_STREQ(table->names[19], "txpower");
    EXPECT_EQ(text_of(show_table_reply(table.get())),
              R"({"result":[{"mac":"00:11:22:33:44:55","ip":"192.168.1.2","qv_ip":"10.0.0.1",)"
              R"("tenantId":"-1","state":"0","name":"ap-2","version":"1.0.0","radiocnt":"2",)"
              R"("radioid":"0","channel":"36","rssi":"40","txpower":"20",)"
              R"("radioid":"1","channel":"1","rssi":"35","txpower":"18"}]})");
}

// A stand-in for the command-line client on PATH, printing a prepared table and recording how
// it was called.
class StandInClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/tarn_show_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        std::ofstream script(dir_ + "/tarn");
        script << "#!/bin/sh\n"
               << "echo \"$@\" >> '" << dir_ << "/calls'\n"
               << "cat '" << dir_ << "/output' 2>/dev/null\n";
        script.close();
        chmod((dir_ + "/tarn").c_str(), 0755);
        old_path_ = getenv("PATH") != nullptr ? getenv("PATH") : "";
        setenv("PATH", (dir_ + ":" + old_path_).c_str(), 1);
    }

    void TearDown() override {
        setenv("PATH", old_path_.c_str(), 1);
        std::string cleanup = "rm -rf '" + dir_ + "'";
        ASSERT_EQ(system(cleanup.c_str()), 0);
    }

    void print(const std::string &text) {
        std::ofstream output(dir_ + "/output");
        output << text;
    }

    std::string calls() {
        std::ifstream in(dir_ + "/calls");
        std::stringstream all;
        all << in.rdbuf();
        return all.str();
    }

    std::string dir_;
    std::string old_path_;
};

TEST_F(StandInClientTest, ShowNeighborWithOnlyTheHeaderRepliesEmptyResult) {
    print(radio_header());
    json_ref reply;
    EXPECT_EQ(ubus_show_neighbor("show_neighbor", nullptr, reply), 0);
    EXPECT_EQ(text_of(reply), R"({"result":[]})");
    EXPECT_EQ(calls(), "show neighbor\n");
}

TEST_F(StandInClientTest, ShowRepliesOneObjectPerClusterLine) {
    print(cluster_header() +
          cluster_line("00:11:22:33:44:55", "192.168.1.2", "fe80::1", 0, "ap-2") +
          cluster_line("66:77:88:99:aa:bb", "192.168.1.3", "::", 4, "ap-3"));
    json_ref reply;
    EXPECT_EQ(ubus_show("show", nullptr, reply), 0);
    EXPECT_EQ(text_of(reply),
              R"({"result":[{"mac":"00:11:22:33:44:55","ip":"192.168.1.2","ip6":"fe80::1",)"
              R"("qv_ip":"10.0.0.1","cluster_id":"5","state":"0","name":"ap-2","version":"1.2.3"},)"
              R"({"mac":"66:77:88:99:aa:bb","ip":"192.168.1.3","ip6":"::","qv_ip":"10.0.0.1",)"
              R"("cluster_id":"5","state":"4","name":"ap-3","version":"1.2.3"}]})");
    EXPECT_EQ(calls(), "show ubus\n");
}

TEST_F(StandInClientTest, UnallocatedTableRunsNothingAndRepliesEmptyResult) {
    print(cluster_header() + cluster_line("00:11:22:33:44:55", "1.1.1.1", "::", 0, "x"));
    json_ref reply;
    EXPECT_EQ(show_cmd_reply("tarn show ubus", nullptr, reply), 0);
    EXPECT_EQ(text_of(reply), R"({"result":[]})");
    EXPECT_EQ(calls(), "");
}

// The static neighbor methods and the reload event: request arguments in, status and
// "success"/"fail" out. What the store does with a call (order, limits, the file) is tested
// with the store.
using static_env::list_text;

// "<status> <reply>" of one handler call.
std::string call(method_handler handler, const char *request) {
    json_ref message(request != nullptr ? json_tokener_parse(request) : nullptr);
    json_ref answer;
    int status = handler("method", message.get(), answer);
    return std::to_string(status) + " " +
           (answer ? json_object_to_json_string_ext(answer.get(), JSON_C_TO_STRING_PLAIN)
                   : "(none)");
}

constexpr const char *A = "00:11:22:33:44:55 0.0.0.0 :: 4";
constexpr const char *OK = "0 {\"result\":\"success\"}";
constexpr const char *FAIL = "0 {\"result\":\"fail\"}";

struct method_case {
    method_handler handler;
    const char *request;
    const char *reply;
    const char *list_after;  // the list starts as node A alone
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
    EXPECT_EQ(seen, std::string(c.reply) + " | " + c.list_after);
}

const char *const NO_JSON = "1 (none)";
const char *const PARSE_FAILED = "-1 (none)";

INSTANTIATE_TEST_SUITE_P(
    Cases, StaticMethods,
    testing::Values(
        method_case{ubus_static_mac_add, R"({"mac":"66:77:88:99:aa:bb"})", OK,
                    "66:77:88:99:aa:bb 0.0.0.0 :: 4; 00:11:22:33:44:55 0.0.0.0 :: 4"},
        method_case{ubus_static_mac_add,
                    R"({"mac":"66:77:88:99:aa:bb","ip":"127.0.0.9","ip6":"fd00::9"})", OK,
                    "66:77:88:99:aa:bb 127.0.0.9 fd00::9 4; 00:11:22:33:44:55 0.0.0.0 :: 4"},
        method_case{ubus_static_mac_add, R"({"ip":"127.0.0.2"})", OK, A},
        method_case{ubus_static_mac_add, R"({"mac":12345})", OK, A},
        method_case{ubus_static_mac_add, R"({"mac":["66:77:88:99:aa:bb"]})", OK, A},
        method_case{ubus_static_mac_add, nullptr, PARSE_FAILED, A},
        method_case{ubus_static_mac_del, nullptr, PARSE_FAILED, A},
        method_case{ubus_static_mac_del, R"({"mac":"66:77:88:99:aa:bb"})", FAIL, A},
        method_case{ubus_static_mac_del, R"({"other":"x"})", OK, A},
        method_case{ubus_static_mac_del, R"({"mac":"00:11:22:33:44:55"})", OK, ""},
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
        // Only the last delete of the list decides the reply.
        method_case{ubus_static_mac_qv_del,
                    R"({"mac_list":[{"mac":"00:11:22:33:44:55"},{"mac":"00:00:00:00:00:77"}]})",
                    FAIL, ""},
        method_case{ubus_static_mac_qv_del,
                    R"({"mac_list":[{"mac":"00:00:00:00:00:77"},{"mac":"00:11:22:33:44:55"}]})", OK,
                    ""},
        method_case{ubus_static_mac_qv_del, R"({})", OK, A},
        method_case{ubus_static_mac_qv_del, R"({"mac_list":[]})", OK, A}));

TEST(StaticMethodsLimit, ReplaceWithMoreThanEightElementsKeepsTheFirstEightAndLogsTheRest) {
    SKIP_UNLESS_ROOT();
    std::string seen = static_env::run([] {
        std::string request = R"({"neighbor_list":[)";
        for (int i = 1; i <= 10; ++i) {
            char element[64];
            snprintf(element, sizeof element, R"(%s{"mac":"00:00:00:00:00:%02x"})",
                     i > 1 ? "," : "", i);
            request += element;
        }
        std::string reply = call(ubus_static_mac_qv, (request + "]}").c_str());
        std::string list = list_text();
        return reply + " | " + list.substr(0, list.find(' ')) + " | " + sandbox::log_text();
    });
    EXPECT_EQ(seen.rfind(std::string(OK) + " | 00:00:00:00:00:08 | ", 0), 0u) << seen;
    for (const char *line :
         {"ubus_static_mac_qv: neighbor_list holds 10 entries, only the first 8 are kept\n",
          "ubus_static_mac_qv: dropped static neighbor [00:00:00:00:00:09]\n",
          "ubus_static_mac_qv: dropped static neighbor [00:00:00:00:00:0a]\n"}) {
        EXPECT_TRUE(static_env::contains(seen, line)) << line;
    }
}

// Delivers a reload event to a list of node C whose file holds A and B instead; returns the
// list after it and the log lines the event wrote.
std::string reload(const char *type, const char *message, bool delete_file = false) {
    return static_env::run([=] {
        call(ubus_static_mac_qv, R"({"neighbor_list":[{"mac":"00:00:00:00:00:0c"}]})");
        static_env::write_conf(
            R"({"static_neighbor":[{"mac":"00:00:00:00:00:0a","ip":"127.0.0.10","ip6":"::"},)"
            R"({"mac":"00:00:00:00:00:0b","ip":"127.0.0.11","ip6":"::"}]})");
        if (delete_file) {
            unlink(STATIC_NEIGHBOR_CONF_PATH);
        }
        size_t logged_before = sandbox::log_text().size();
        json_ref parsed(message != nullptr ? json_tokener_parse(message) : nullptr);
        ubus_reload_event(type, parsed.get());
        std::string list = list_text();
        return list.substr(0, list.find(' ')) + " | " + sandbox::log_text().substr(logged_before);
    });
}

TEST(ReloadEvent, ReloadsOncePerMatchingNameAndIgnoresTheRest) {
    SKIP_UNLESS_ROOT();
    const std::string line = "Tarn update static neighbor by ubus event[userconfig.reload].\n";
    std::string seen =
        reload("userconfig.reload", R"({"ModifiedConfig":["x","static_neighbor.conf"]})");
    EXPECT_EQ(seen.rfind("00:00:00:00:00:0b | ", 0), 0u) << seen;
    EXPECT_EQ(static_env::occurrences(seen, line), 1) << seen;
    seen = reload("userconfig.reload", R"({"ModifiedConfig":["all","static_neighbor.conf"]})");
    EXPECT_EQ(static_env::occurrences(seen, line), 2) << seen;
    seen = reload("userconfig.reload", R"({"ModifiedConfig":["static_neighbor.conf"]})", true);
    EXPECT_EQ(seen.rfind("00:00:00:00:00:0c | " + line, 0), 0u) << "deleted file keeps the list";

    for (const char *message :
         {R"({"ModifiedConfig":["network","wireless"]})", R"({"ModifiedConfig":[]})",
          R"({"Other":["all"]})", R"({"ModifiedConfig":"all"})",
          R"({"ModifiedConfig":[1,{"all":1}]})", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(reload("userconfig.reload", message), "00:00:00:00:00:0c | ")
            << (message ? message : "(none)");
    }
    EXPECT_EQ(reload("network.changed", R"({"ModifiedConfig":["all"]})"),
              "00:00:00:00:00:0c | Tarn do not handle the ubus event[network.changed].\n");
}

}  // namespace
