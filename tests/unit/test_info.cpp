// tarn-info's pieces below the process: the text rule and each format's escaping, the answer
// decode with the static merge, the JSON fields, the watch events, the command line, the shared
// answer's file rules and the exchange's length limit. The program against a real daemon is
// driven by the system tests.
#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "diag/info_answer.h"
#include "diag/info_cache.h"
#include "diag/info_exchange.h"
#include "diag/info_json.h"
#include "diag/info_options.h"
#include "diag/info_prometheus.h"
#include "diag/info_text.h"
#include "diag/info_watch.h"
#include "proto/nbcp.h"
#include "proto/nbcp_codes.h"

namespace {

using bytes = std::vector<uint8_t>;

struct cjson_deleter {
    void operator()(cJSON *item) const { cJSON_Delete(item); }
};
using json = std::unique_ptr<cJSON, cjson_deleter>;

// ---- The text rule, then each format's escaping of its result -------------------------------

struct text_row {
    const char *what;
    std::string raw;
    info_string clean;  // after the UTF-8 rule
    std::string json;   // the JSON string of the clean text
    info_string label;  // the Prometheus label value of the clean text
};

const text_row TEXT_ROWS[] = {
    {"plain", "ap2", "ap2", "\"ap2\"", "ap2"},
    {"backslash doubled once per step", "a\\b", "a\\\\b", "\"a\\\\\\\\b\"", "a\\\\\\\\b"},
    {"a received \\x is told from a replaced byte", "\\x41", "\\\\x41", "\"\\\\\\\\x41\"",
     "\\\\\\\\x41"},
    {"quote", "a\"b", "a\"b", "\"a\\\"b\"", "a\\\"b"},
    {"newline", "a\nb", "a\nb", "\"a\\u000ab\"", "a\\nb"},
    {"terminal escape is a control character", "\x1b[2J", "\x1b[2J", "\"\\u001b[2J\"", "\x1b[2J"},
    {"2, 3 and 4 byte forms kept", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80",
     "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\"",
     "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
    {"lowest 2-byte form U+0080", "\xc2\x80", "\xc2\x80", "\"\xc2\x80\"", "\xc2\x80"},
    {"highest code point U+10FFFF", "\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf", "\"\xf4\x8f\xbf\xbf\"",
     "\xf4\x8f\xbf\xbf"},
    {"overlong 2-byte", "\xc1\xbf", "\\xc1\\xbf", "\"\\\\xc1\\\\xbf\"", "\\\\xc1\\\\xbf"},
    {"overlong 3-byte", "\xe0\x9f\xbf", "\\xe0\\x9f\\xbf", "\"\\\\xe0\\\\x9f\\\\xbf\"",
     "\\\\xe0\\\\x9f\\\\xbf"},
    {"overlong 4-byte", "\xf0\x8f\xbf\xbf", "\\xf0\\x8f\\xbf\\xbf",
     "\"\\\\xf0\\\\x8f\\\\xbf\\\\xbf\"", "\\\\xf0\\\\x8f\\\\xbf\\\\xbf"},
    {"surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80", "\"\\\\xed\\\\xa0\\\\x80\"",
     "\\\\xed\\\\xa0\\\\x80"},
    {"last before surrogates kept", "\xed\x9f\xbf", "\xed\x9f\xbf", "\"\xed\x9f\xbf\"",
     "\xed\x9f\xbf"},
    {"one past U+10FFFF", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80",
     "\"\\\\xf4\\\\x90\\\\x80\\\\x80\"", "\\\\xf4\\\\x90\\\\x80\\\\x80"},
    {"truncated at the end", "a\xe2\x82", "a\\xe2\\x82", "\"a\\\\xe2\\\\x82\"", "a\\\\xe2\\\\x82"},
    {"truncated before ASCII",
     "\xe2\x82"
     "A",
     "\\xe2\\x82A", "\"\\\\xe2\\\\x82A\"", "\\\\xe2\\\\x82A"},
    {"stray continuation and FF", "\x80\xff", "\\x80\\xff", "\"\\\\x80\\\\xff\"", "\\\\x80\\\\xff"},
};

class TextRule : public ::testing::TestWithParam<text_row> {};

TEST_P(TextRule, CleanThenEscapeOnce) {
    const text_row &row = GetParam();
    info_string clean;
    info_utf8_clean(row.raw, clean);
    EXPECT_EQ(std::string_view(clean), row.clean) << row.what;
    info_string json_text;
    info_json_string(clean, json_text);
    EXPECT_EQ(std::string_view(json_text), row.json) << row.what;
    info_string label;
    info_prom_label(clean, label);
    EXPECT_EQ(std::string_view(label), row.label) << row.what;
    // What JSON readers get back is exactly the clean text.
    json parsed(cJSON_Parse(json_text.c_str()));
    ASSERT_TRUE(cJSON_IsString(parsed.get())) << row.what;
    EXPECT_EQ(std::string_view(parsed->valuestring), clean) << row.what;
}

INSTANTIATE_TEST_SUITE_P(Rows, TextRule, ::testing::ValuesIn(TEXT_ROWS));

// ---- Answers: decode, static merge, JSON fields ----------------------------------------------

ap_info entry(uint8_t last_mac_byte, uint8_t state = AP_STATE_ACTIVE) {
    ap_info info{};
    info.mac = {0x02, 0, 0, 0, 0, last_mac_byte};
    info.state = state;
    inet_pton(AF_INET, "10.99.0.12", &info.ip);
    strcpy(info.name, "ap");
    strcpy(info.version, "2.0.1");
    info.radiocnt = 2;
    info.radio[0] = {0, 6, 20, 40, 20};
    info.radio[1] = {1, 36, 18, 30, 80};
    return info;
}

// The longest entry: every text at the most a list carries, four radios.
ap_info longest_entry(uint8_t last_mac_byte) {
    ap_info info = entry(last_mac_byte);
    memset(info.tenantId, 't', sizeof info.tenantId - 1);
    memset(info.version, 'v', sizeof info.version - 1);
    memset(info.name, 'n', sizeof info.name - 1);
    info.radiocnt = AP_RADIO_MAX;
    return info;
}

bytes list_answer(const std::vector<ap_info> &entries) {
    bytes out(NBCP_LIST_MAX);
    local_msg_hdr hdr{};
    uint32_t at = nbcp_list_put(out.data(), nullptr, &hdr, NBCP_LIST_PIECE_HEADER);
    for (const ap_info &e : entries) {
        at += nbcp_list_put(out.data() + at, &e, nullptr, NBCP_LIST_PIECE_ENTRY);
    }
    at += nbcp_list_put(out.data() + at, nullptr, nullptr, NBCP_LIST_PIECE_END);
    out.resize(at);
    return out;
}

mac_addr mac_of(uint8_t last_mac_byte) {
    return {0x02, 0, 0, 0, 0, last_mac_byte};
}

// What one reported neighbor must be: MAC byte, learned, static, state in "static_state".
struct expect_neighbor {
    uint8_t mac;
    bool learned;
    bool is_static;
    int static_state;  // -1: no static_state member
};

struct merge_row {
    const char *what;
    std::vector<ap_info> answer;
    std::vector<uint8_t> file_macs;
    std::vector<expect_neighbor> expected;
};

// The 8 static neighbors a daemon keeps of a file of 9 (its first 8), each loaded to the front.
std::vector<ap_info> loaded_statics() {
    std::vector<ap_info> list = {entry(1)};
    for (uint8_t i = 0; i < STATIC_NGBR_MAX; ++i) {
        list.insert(list.begin() + 1, entry(static_cast<uint8_t>(0xa0 + i)));
    }
    return list;
}

const std::vector<merge_row> &merge_rows() {
    static const std::vector<merge_row> rows = {
        {"no static file: all learned", {entry(1), entry(2)}, {}, {{1, 1, 0, -1}, {2, 1, 0, -1}}},
        {"trailing entries in file order are static",
         {entry(1), entry(8, 4), entry(9, 3)},
         {8, 9},
         {{1, 1, 0, -1}, {8, 0, 1, -1}, {9, 0, 1, -1}}},
        {"a learned neighbor claiming state 3 stays learned",
         {entry(1, AP_STATE_STATIC_ACTIVE)},
         {},
         {{1, 1, 0, -1}}},
        {"learned and static appear once with both facts",
         {entry(5, AP_STATE_OFFLINE), entry(2), entry(5, AP_STATE_STATIC_ACTIVE)},
         {5},
         {{5, 1, 1, 3}, {2, 1, 0, -1}}},
        {"a loaded file's entries come in reverse order",
         {entry(1), entry(9), entry(8), entry(7)},
         {7, 8, 9},
         {{1, 1, 0, -1}, {9, 0, 1, -1}, {8, 0, 1, -1}, {7, 0, 1, -1}}},
        {"file order mixed: only the matching part is static",
         {entry(1), entry(8), entry(9), entry(7)},
         {7, 8, 9},
         {{1, 1, 0, -1}, {8, 1, 0, -1}, {9, 1, 0, -1}, {7, 0, 1, -1}}},
        {"file lists a neighbor the answer lacks yet",
         {entry(1), entry(8)},
         {8, 9},
         {{1, 1, 0, -1}, {8, 0, 1, -1}}},
        {"every static neighbor of a file one longer than the list",
         loaded_statics(),
         {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8},
         {{1, 1, 0, -1},
          {0xa7, 0, 1, -1},
          {0xa6, 0, 1, -1},
          {0xa5, 0, 1, -1},
          {0xa4, 0, 1, -1},
          {0xa3, 0, 1, -1},
          {0xa2, 0, 1, -1},
          {0xa1, 0, 1, -1},
          {0xa0, 0, 1, -1}}},
        {"file MACs not at the end: nothing static",
         {entry(8), entry(1)},
         {8},
         {{8, 1, 0, -1}, {1, 1, 0, -1}}},
    };
    return rows;
}

std::vector<mac_addr> macs_of(const std::vector<uint8_t> &last_bytes) {
    std::vector<mac_addr> macs;
    for (uint8_t b : last_bytes) {
        macs.push_back(mac_of(b));
    }
    return macs;
}

class StaticMerge : public ::testing::TestWithParam<size_t> {};

TEST_P(StaticMerge, ReportsEachNeighborOnceWithItsLists) {
    const merge_row &row = merge_rows()[GetParam()];
    std::vector<info_neighbor> neighbors;
    info_string error;
    ASSERT_TRUE(
        info_decode_answer(list_answer(row.answer), macs_of(row.file_macs), neighbors, error))
        << error;
    json doc(cJSON_Parse(info_json_document(neighbors).c_str()));
    const cJSON *list = cJSON_GetObjectItem(doc.get(), "neighbors");
    ASSERT_EQ(cJSON_GetArraySize(list), static_cast<int>(row.expected.size())) << row.what;
    for (size_t i = 0; i < row.expected.size(); ++i) {
        const expect_neighbor &want = row.expected[i];
        const cJSON *n = cJSON_GetArrayItem(list, static_cast<int>(i));
        EXPECT_EQ(std::string_view(cJSON_GetObjectItem(n, "mac")->valuestring),
                  info_mac_text(mac_of(want.mac)))
            << row.what;
        EXPECT_EQ(cJSON_IsTrue(cJSON_GetObjectItem(n, "learned")), want.learned) << row.what;
        EXPECT_EQ(cJSON_IsTrue(cJSON_GetObjectItem(n, "static")), want.is_static) << row.what;
        const cJSON *static_state = cJSON_GetObjectItem(n, "static_state");
        EXPECT_EQ(static_state == nullptr ? -1 : static_state->valueint, want.static_state)
            << row.what;
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, StaticMerge, ::testing::Range<size_t>(0, merge_rows().size()));

TEST(AnswerDecode, FieldsOfOneEntry) {
    ap_info info = longest_entry(2);
    info.state = 5;     // outside the named states
    info.radiocnt = 5;  // announces more radios than an entry carries
    for (int r = 0; r < AP_RADIO_MAX; ++r) {
        info.radio[r] = {static_cast<uint8_t>(r), static_cast<uint8_t>(36 + r), 17, 40, 80};
    }
    info.ip6.fill(0);
    info.qv_ip = 0;
    inet_pton(AF_INET, "10.99.0.1", &info.pvc_ip);
    info.cluster_flag = 1;
    info.cluster_id = 4000000000u;
    std::vector<info_neighbor> neighbors;
    info_string error;
    ASSERT_TRUE(info_decode_answer(list_answer({info}), {}, neighbors, error));
    json n(cJSON_Parse(info_json_document(neighbors).c_str()));
    const cJSON *got = cJSON_GetArrayItem(cJSON_GetObjectItem(n.get(), "neighbors"), 0);
    auto text = [&](const cJSON *o, const char *key) {
        const cJSON *v = cJSON_GetObjectItem(o, key);
        return cJSON_IsString(v) ? std::string(v->valuestring) : std::string("<not text>");
    };
    EXPECT_EQ(cJSON_GetObjectItem(got, "state")->valueint, 5);
    EXPECT_EQ(text(got, "state_name"), "unknown");
    EXPECT_EQ(text(got, "name"), std::string(31, 'n'));
    EXPECT_EQ(text(got, "tenant"), std::string(63, 't'));
    EXPECT_EQ(text(got, "ip"), "10.99.0.12");
    EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItem(got, "ip6")));
    EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItem(got, "qv_ip")));
    const cJSON *cluster = cJSON_GetObjectItem(got, "cluster");
    EXPECT_EQ(text(cluster, "pvc_ip"), "10.99.0.1");
    EXPECT_EQ(cJSON_GetObjectItem(cluster, "id")->valuedouble, 4000000000.0);
    EXPECT_EQ(cJSON_GetObjectItem(got, "radio_count")->valueint, 5);
    const cJSON *radios = cJSON_GetObjectItem(got, "radios");
    ASSERT_EQ(cJSON_GetArraySize(radios), AP_RADIO_MAX);
    const cJSON *last = cJSON_GetArrayItem(radios, 3);
    EXPECT_EQ(cJSON_GetObjectItem(last, "index")->valueint, 3);
    EXPECT_EQ(cJSON_GetObjectItem(last, "channel")->valueint, 39);
    EXPECT_EQ(cJSON_GetObjectItem(last, "txpower")->valueint, 17);
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(got, "answered")));
}

struct decode_row {
    const char *what;
    bytes answer;
    bool decodes;
    size_t entries;
};

TEST(AnswerDecode, BoundedByTheDatagramOnly) {
    // As many longest entries as one 65535-byte answer holds: far past the show commands' 12000
    // bytes and 67 entries.
    std::vector<ap_info> most;
    for (uint32_t i = 0; i < NBCP_LIST_ENTRIES_MAX; ++i) {
        most.push_back(longest_entry(static_cast<uint8_t>(i)));
    }
    bytes full = list_answer(most);
    ASSERT_LE(full.size(), NBCP_LIST_MAX);
    bytes empty = list_answer({});
    // The most entries one answer can close: each nothing but its 5-byte end element.
    bytes bare = empty;
    const size_t bare_count = (NBCP_LIST_MAX - NBCP_LIST_HDR_LEN - NBCP_END_LEN) / 5;
    for (size_t i = 0; i < bare_count; ++i) {
        bare.insert(bare.end() - NBCP_END_LEN, {0, LIST_ENTRY_END, 0, 1, 0});
    }
    bytes no_end = list_answer({entry(1)});
    no_end.resize(no_end.size() - NBCP_END_LEN);
    bytes half_end = list_answer({entry(1)});
    half_end.pop_back();
    bytes cut_entry = list_answer({entry(1)});
    cut_entry.erase(cut_entry.end() - NBCP_END_LEN - 1, cut_entry.end() - NBCP_END_LEN);
    bytes not_list = list_answer({entry(1)});
    not_list[offsetof(local_msg_hdr, op)] = TARN_MSG_DUMP_NGBR;
    const decode_row rows[] = {
        {"the most one answer holds", full, true, NBCP_LIST_ENTRIES_MAX},
        {"empty table", empty, true, 0},
        {"the most entries one answer closes", bare, true, bare_count},
        {"header only", bytes(empty.begin(), empty.begin() + NBCP_LIST_HDR_LEN), false, 0},
        {"shorter than the header", bytes(NBCP_LIST_HDR_LEN - 1, 0), false, 0},
        {"no end mark", no_end, false, 0},
        {"end mark cut in half", half_end, false, 0},
        {"entry end without its value byte", cut_entry, false, 0},
        {"not a list reply", not_list, false, 0},
    };
    for (const decode_row &row : rows) {
        std::vector<info_neighbor> neighbors;
        info_string error;
        EXPECT_EQ(info_decode_answer(row.answer, {}, neighbors, error), row.decodes) << row.what;
        EXPECT_EQ(neighbors.size(), row.entries) << row.what;
        EXPECT_EQ(error.empty(), row.decodes) << row.what;
    }
}

// ---- Prometheus -----------------------------------------------------------------------------

TEST(Prometheus, HostileTextsAndRepeatedMacs) {
    ap_info hostile = entry(7);
    strcpy(hostile.name, "a\"b\nc\\<img src=x>\xff");
    std::vector<info_neighbor> neighbors = {{hostile, true, false, 0}, {entry(7), false, true, 3}};
    info_string text = info_prometheus_text(true, neighbors);
    EXPECT_NE(text.find("name=\"a\\\"b\\nc\\\\\\\\<img src=x>\\\\xff\""), std::string::npos)
        << text;
    // A MAC listed twice gives one series, which keeps the scrape valid.
    size_t states = 0;
    for (size_t at = 0; (at = text.find("\ntarn_neighbor_state{", at)) != std::string::npos; ++at) {
        ++states;
    }
    EXPECT_EQ(states, 1u);
    for (const char *state :
         {"active", "offline", "wireless_ageing", "static_active", "static_offline", "unknown"}) {
        EXPECT_NE(text.find(std::string("tarn_neighbors{state=\"") + state + "\"}"),
                  std::string::npos)
            << state;
    }
    EXPECT_EQ(info_prometheus_text(false, neighbors),
              "# HELP tarn_up 1 when the tarn daemon answered the neighbor-table request.\n"
              "# TYPE tarn_up gauge\ntarn_up 0\n");
}

// ---- Watch events ---------------------------------------------------------------------------

struct watch_row {
    const char *what;
    std::vector<info_neighbor> before;
    std::vector<info_neighbor> after;
    std::vector<std::string> lines;  // each expected line holds this text
};

info_neighbor learned(uint8_t mac, uint8_t state = AP_STATE_ACTIVE) {
    return {entry(mac, state), true, false, 0};
}

std::vector<info_neighbor> learned_table(int count, uint8_t first = 0x40) {
    std::vector<info_neighbor> table;
    for (int i = 0; i < count; ++i) {
        table.push_back(learned(static_cast<uint8_t>(first + i)));
    }
    return table;
}

std::vector<info_neighbor> replace_last(std::vector<info_neighbor> table, uint8_t mac) {
    table.back() = learned(mac);
    return table;
}

TEST(Watch, EventsAndWhyEntriesLeft) {
    const watch_row rows[] = {
        {"nothing changed", learned_table(3), learned_table(3), {}},
        {"one dropped",
         learned_table(3),
         learned_table(2),
         {"\"removed\",\"time\":9,\"mac\":\"02:00:00:00:00:42\",\"reason\":\"dropped\""}},
        {"table emptied",
         learned_table(2),
         {},
         {"\"reason\":\"table_emptied\"", "\"reason\":\"table_emptied\""}},
        {"a lone entry gone is dropped", learned_table(1), {}, {"\"reason\":\"dropped\""}},
        {"full table of 16 replaces",
         learned_table(16),
         replace_last(learned_table(16), 0x99),
         {"\"reason\":\"replaced\"", "\"added\",\"time\":9,\"mac\":\"02:00:00:00:00:99\""}},
        {"15 entries cannot be full",
         learned_table(15),
         replace_last(learned_table(15), 0x99),
         {"\"reason\":\"dropped\"", "\"added\""}},
        {"static gone", {{entry(8), false, true, 4}}, {}, {"\"reason\":\"unpinned\""}},
        {"ageing marks offline",
         {learned(1)},
         {learned(1, AP_STATE_OFFLINE)},
         {"\"changed\",\"time\":9,\"mac\":\"02:00:00:00:00:01\",\"fields\":[\"state\","
          "\"state_name\"],\"neighbor\":{"}},
        {"becomes static too",
         {learned(1)},
         {{entry(1), true, true, 3}},
         {"\"fields\":[\"static\",\"static_state\",\"static_state_name\"]"}},
    };
    for (const watch_row &row : rows) {
        info_string out;
        info_watch_changes(row.before, row.after, 9, out);
        std::vector<info_string> lines;
        for (size_t at = 0, nl; (nl = out.find('\n', at)) != std::string::npos; at = nl + 1) {
            lines.push_back(out.substr(at, nl - at));
        }
        ASSERT_EQ(lines.size(), row.lines.size()) << row.what << "\n" << out;
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_NE(lines[i].find(std::string_view(row.lines[i])), info_string::npos)
                << row.what << ": " << lines[i];
            EXPECT_TRUE(json(cJSON_Parse(lines[i].c_str()))) << row.what << ": " << lines[i];
        }
    }
}

// ---- Command line ---------------------------------------------------------------------------

TEST(Options, IntervalsAtTheirLimits) {
    struct row {
        std::vector<const char *> args;
        bool accepted;
        info_mode mode;
        long interval_s;
    };
    const row rows[] = {
        {{}, true, info_mode::json, 0},
        {{"--watch"}, true, info_mode::watch, 10},
        {{"--watch", "1"}, true, info_mode::watch, 1},
        {{"--watch", "0"}, false, info_mode::watch, 0},
        {{"--watch", "86400"}, true, info_mode::watch, 86400},
        {{"--watch", "86401"}, false, info_mode::watch, 0},
        {{"--watch", "5s"}, false, info_mode::watch, 0},
        {{"--prometheus", "--output", "f", "--interval", "1"}, true, info_mode::prometheus, 1},
        {{"--prometheus", "--output", "f", "--interval", "0"}, false, info_mode::prometheus, 0},
        {{"--prometheus", "--output", "f", "--interval", "86400"},
         true,
         info_mode::prometheus,
         86400},
        {{"--prometheus", "--output", "f", "--interval", "86401"}, false, info_mode::prometheus, 0},
        {{"--prometheus", "--interval", "15"}, false, info_mode::prometheus, 0},
        {{"--json", "--output", "f"}, false, info_mode::json, 0},
        {{"--prometheus", "--output"}, false, info_mode::prometheus, 0},
        {{"--json", "--watch"}, false, info_mode::json, 0},
        {{"show"}, false, info_mode::json, 0},
    };
    for (const row &r : rows) {
        std::vector<const char *> argv = {"tarn-info"};
        argv.insert(argv.end(), r.args.begin(), r.args.end());
        info_options options;
        info_string error;
        std::string line;
        for (const char *a : r.args) {
            line += std::string(a) + " ";
        }
        ASSERT_EQ(info_parse_options(static_cast<int>(argv.size()), argv.data(), options, error),
                  r.accepted)
            << line;
        if (r.accepted) {
            EXPECT_EQ(options.mode, r.mode) << line;
            EXPECT_EQ(options.interval_s, r.interval_s) << line;
        } else {
            EXPECT_FALSE(error.empty()) << line;
        }
    }
}

// ---- The shared answer's files and the exchange ---------------------------------------------

class InfoFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "the cache trusts only files owned by root";
        }
        char templ[] = "/tmp/tarn-info-test.XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        dir_ = templ;
        paths_ = info_cache_paths_in(dir_);
    }
    void TearDown() override {
        if (!dir_.empty()) {
            info_string cmd = "rm -rf '" + dir_ + "'";
            ASSERT_EQ(system(cmd.c_str()), 0);
        }
    }

    timespec mtime_of(const info_string &path) {
        struct stat st {};
        lstat(path.c_str(), &st);
        return st.st_mtim;
    }

    info_string dir_;
    info_cache_paths paths_;
};

TEST_F(InfoFiles, CacheIsTrustedOnlyWhenPrivateRootOwnedAndFresh) {
    const bytes answer = list_answer({entry(1)});
    struct row {
        const char *what;
        std::function<void(const info_string &)> spoil;
        long age_s;
        bool used;
    };
    const row rows[] = {
        {"fresh", [](const info_string &) {}, 0, true},
        {"5 s old", [](const info_string &) {}, INFO_CACHE_MAX_AGE_S, true},
        {"6 s old", [](const info_string &) {}, INFO_CACHE_MAX_AGE_S + 1, false},
        {"from the future", [](const info_string &) {}, -2, false},
        {"mode 0644", [](const info_string &p) { chmod(p.c_str(), 0644); }, 0, false},
        {"owned by nobody", [](const info_string &p) { ASSERT_EQ(chown(p.c_str(), 65534, 0), 0); },
         0, false},
        {"hard-linked", [&](const info_string &p) { link(p.c_str(), (dir_ + "/x").c_str()); }, 0,
         false},
        {"a link to a private file",
         [&](const info_string &p) {
             rename(p.c_str(), (dir_ + "/real").c_str());
             ASSERT_EQ(symlink((dir_ + "/real").c_str(), p.c_str()), 0);
         },
         0, false},
    };
    for (const row &r : rows) {
        ASSERT_TRUE(info_cache_write(paths_, answer)) << r.what;
        r.spoil(paths_.cache);
        timespec now = mtime_of(paths_.cache);
        now.tv_sec += r.age_s;
        bytes read;
        EXPECT_EQ(info_cache_read(paths_, now, read), r.used) << r.what;
        if (r.used) {
            EXPECT_EQ(read, answer) << r.what;
        }
        unlink(paths_.cache.c_str());
        unlink((dir_ + "/x").c_str());
        unlink((dir_ + "/real").c_str());
    }
}

TEST_F(InfoFiles, WriteNeverFollowsAPlantedTemporaryFile) {
    info_string victim = dir_ + "/victim";
    FILE *f = fopen(victim.c_str(), "w");
    fputs("keep", f);
    fclose(f);
    ASSERT_EQ(symlink(victim.c_str(), paths_.tmp.c_str()), 0);
    umask(0);
    ASSERT_TRUE(info_cache_write(paths_, {51, 0}));
    umask(022);
    struct stat st {};
    ASSERT_EQ(lstat(paths_.cache.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(lstat(paths_.tmp.c_str(), &st), -1);
    ASSERT_EQ(lstat(victim.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 4);
}

TEST_F(InfoFiles, UntrustedLockIsReplaced) {
    FILE *f = fopen(paths_.lock.c_str(), "w");
    fclose(f);
    chmod(paths_.lock.c_str(), 0666);
    {
        info_cache_lock lock(paths_.lock, 0);
        EXPECT_TRUE(lock.held());
        // A second holder (another caller) does not get it while the first holds it.
        info_cache_lock second(paths_.lock, 0);
        EXPECT_FALSE(second.held());
    }
    struct stat st {};
    ASSERT_EQ(lstat(paths_.lock.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(InfoFiles, ReplyPathOfThisPidIsTakenOverOnlyWhenItIsASocket) {
    info_string own = dir_ + "/tarn_info." + info_number(getpid());
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, own.c_str());
    int stale = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    close(stale);  // a socket path left by an earlier process of this pid
    bytes got;
    info_string error;
    // No daemon here: the call gets as far as sending, past the bind, and fails there.
    EXPECT_FALSE(info_exchange(dir_, 100, got, error));
    EXPECT_NE(error.find("no daemon"), std::string::npos) << error;
    EXPECT_NE(access(own.c_str(), F_OK), 0);

    FILE *f = fopen(own.c_str(), "w");
    fclose(f);
    EXPECT_FALSE(info_exchange(dir_, 100, got, error));
    EXPECT_NE(error.find("not a socket"), std::string::npos) << error;
    EXPECT_EQ(access(own.c_str(), F_OK), 0);
}

// A stand-in daemon bound at dir/tarn_socket answers each request with reply_len bytes.
TEST_F(InfoFiles, ExchangeTakesAnAnswerUpToTheDatagramLimit) {
    info_string daemon_path = dir_ + "/" + INFO_DAEMON_SOCKET;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, daemon_path.c_str());
    int daemon = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(daemon, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    int sndbuf = 4 * NBCP_LIST_MAX;
    EXPECT_EQ(info_daemon_probe(dir_), 0);
    for (size_t reply_len : {size_t{NBCP_LIST_MAX}, size_t{NBCP_LIST_MAX} + 1}) {
        std::thread answer([&] {
            uint8_t request[64];
            sockaddr_un from{};
            socklen_t from_len = sizeof from;
            ssize_t n = recvfrom(daemon, request, sizeof request, 0,
                                 reinterpret_cast<sockaddr *>(&from), &from_len);
            EXPECT_EQ(n, 8);
            EXPECT_EQ(request[offsetof(local_msg_hdr, op)], TARN_MSG_NGBR_INFO);
            // The daemon answers from an unbound socket, to the sender's path.
            int out = socket(AF_UNIX, SOCK_DGRAM, 0);
            setsockopt(out, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
            bytes reply(reply_len, 0);
            EXPECT_EQ(sendto(out, reply.data(), reply.size(), 0,
                             reinterpret_cast<sockaddr *>(&from), from_len),
                      static_cast<ssize_t>(reply_len));
            close(out);
        });
        bytes got;
        info_string error;
        bool ok = info_exchange(dir_, 5000, got, error);
        answer.join();
        EXPECT_EQ(ok, reply_len <= NBCP_LIST_MAX) << reply_len << ": " << error;
        EXPECT_EQ(got.size(), ok ? reply_len : got.size());
        // The reply socket's path is gone again.
        info_string own = dir_ + "/tarn_info." + info_number(getpid());
        EXPECT_NE(access(own.c_str(), F_OK), 0);
    }
    close(daemon);  // a stopped daemon leaves its socket path behind
    EXPECT_EQ(info_daemon_probe(dir_), ECONNREFUSED);
    unlink(daemon_path.c_str());
    EXPECT_EQ(info_daemon_probe(dir_), ENOENT);
}

}  // namespace
