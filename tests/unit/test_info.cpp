// tarn-info's pieces below the process: the text rule and each format's escaping, the answer
// decode with the static merge, the JSON fields, the watch events, the command line, the shared
// answer's file rules and the exchange's length limit.
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
#include <iterator>
#include <memory>
#include <sstream>
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
#include "sandbox.h"

namespace {

using bytes = std::vector<uint8_t>;

struct cjson_deleter {
    void operator()(cJSON *item) const { cJSON_Delete(item); }
};
using json = std::unique_ptr<cJSON, cjson_deleter>;

// ---- The text rule, then each format's escaping of its result -------------------------------

// Each received text is made valid UTF-8 once, then escaped once per format; every clean text
// reads back unchanged from its JSON string.
TEST(TextRule, CleanThenEscapeOnce) {
    const struct {
        const char *what;
        std::string raw;
        info_string clean;
        const char *json = nullptr;   // the JSON string of the clean text, when checked
        const char *label = nullptr;  // the Prometheus label value of the clean text
    } rows[] = {
        // clang-format off
        {"plain", "ap2", "ap2", "\"ap2\"", "ap2"},
        {"backslash doubled once per step", "a\\b", "a\\\\b", "\"a\\\\\\\\b\"", "a\\\\\\\\b"},
        {"received \\x vs a replaced byte", "\\x41", "\\\\x41", "\"\\\\\\\\x41\"", "\\\\\\\\x41"},
        {"quote", "a\"b", "a\"b", "\"a\\\"b\"", "a\\\"b"},
        {"newline", "a\nb", "a\nb", "\"a\\u000ab\"", "a\\nb"},
        {"terminal escape", "\x1b[2J", "\x1b[2J", "\"\\u001b[2J\"", "\x1b[2J"},
        {"2-4 byte forms", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80",
         "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\"", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"lowest 2-byte form U+0080", "\xc2\x80", "\xc2\x80"},
        {"overlong 2-byte", "\xc1\xbf", "\\xc1\\xbf"},
        {"overlong 3-byte", "\xe0\x9f\xbf", "\\xe0\\x9f\\xbf"},
        {"overlong 4-byte", "\xf0\x8f\xbf\xbf", "\\xf0\\x8f\\xbf\\xbf"},
        {"last before surrogates", "\xed\x9f\xbf", "\xed\x9f\xbf"},
        {"surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"highest code point U+10FFFF", "\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},
        {"U+110000", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80", "\"\\\\xf4\\\\x90\\\\x80\\\\x80\"",
         "\\\\xf4\\\\x90\\\\x80\\\\x80"},
        {"truncated at the end", "a\xe2\x82", "a\\xe2\\x82"},
        {"truncated before ASCII", "\xe2\x82" "A", "\\xe2\\x82A"},
        {"stray continuation and FF", "\x80\xff", "\\x80\\xff"},
        // clang-format on
    };
    for (const auto &row : rows) {
        info_string clean, text, label;
        info_utf8_clean(row.raw, clean);
        EXPECT_EQ(clean, row.clean) << row.what;
        info_json_string(clean, text);
        info_prom_label(clean, label);
        EXPECT_EQ(text, row.json ? row.json : text) << row.what;
        EXPECT_EQ(label, row.label ? row.label : label) << row.what;
        json parsed(cJSON_Parse(text.c_str()));
        ASSERT_TRUE(cJSON_IsString(parsed.get())) << row.what;
        EXPECT_EQ(std::string_view(parsed->valuestring), clean) << row.what;
    }
}

// ---- Answers: decode, static merge, JSON fields ----------------------------------------------

// clang-format off
mac_addr mac_of(uint8_t last_mac_byte) { return {0x02, 0, 0, 0, 0, last_mac_byte}; }
// clang-format on

ap_info entry(uint8_t last_mac_byte, uint8_t state = AP_STATE_ACTIVE) {
    ap_info info{};
    info.mac = mac_of(last_mac_byte);
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

// The JSON document of an answer whose static neighbor file lists these MAC bytes.
std::string document_text(const std::vector<ap_info> &answer, const std::vector<uint8_t> &file) {
    std::vector<mac_addr> macs;
    for (uint8_t b : file) {
        macs.push_back(mac_of(b));
    }
    std::vector<info_neighbor> neighbors;
    info_string error;
    EXPECT_TRUE(info_decode_answer(list_answer(answer), macs, neighbors, error)) << error;
    return std::string(std::string_view(info_json_document(neighbors)));
}

// Each neighbor of a document as "<MAC><L if learned><S if static>[=static_state]", the MAC
// without the "02:00:00:00:00:" of mac_of.
std::string merge_summary(const cJSON *doc) {
    std::string out;
    const cJSON *n = nullptr;
    cJSON_ArrayForEach(n, cJSON_GetObjectItem(doc, "neighbors")) {
        const cJSON *static_state = cJSON_GetObjectItem(n, "static_state");
        std::string mac = cJSON_GetObjectItem(n, "mac")->valuestring;
        out += (out.empty() ? "" : " ") + (mac.rfind("02:00:00:00:00:", 0) ? mac : mac.substr(15));
        out += cJSON_IsTrue(cJSON_GetObjectItem(n, "learned")) ? "L" : "";
        out += cJSON_IsTrue(cJSON_GetObjectItem(n, "static")) ? "S" : "";
        out += static_state ? "=" + std::to_string(static_state->valueint) : "";
    }
    return out;
}

TEST(StaticMerge, ReportsEachNeighborOnceWithItsLists) {
    // A daemon keeps the first 8 of a file of 9, each loaded to the front of its list.
    const std::vector<uint8_t> file_of_9 = {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8};
    std::vector<ap_info> all_statics = {entry(1)};
    for (int i = STATIC_NGBR_MAX - 1; i >= 0; --i) {
        all_statics.push_back(entry(file_of_9[i]));
    }
    const struct {
        const char *what;
        std::vector<ap_info> answer;
        std::vector<uint8_t> file_macs;
        std::string expected;
    } rows[] = {
        // clang-format off
        {"no static file: all learned", {entry(1), entry(2)}, {}, "01L 02L"},
        {"trailing, file order: static", {entry(1), entry(8, 4), entry(9, 3)}, {8, 9}, "01L 08S 09S"},
        {"learned, claiming state 3", {entry(1, AP_STATE_STATIC_ACTIVE)}, {}, "01L"},
        {"learned and static appear once with both facts",
         {entry(5, AP_STATE_OFFLINE), entry(2), entry(5, AP_STATE_STATIC_ACTIVE)}, {5}, "05LS=3 02L"},
        {"loaded file: reverse order", {entry(1), entry(9), entry(8), entry(7)}, {7, 8, 9},
         "01L 09S 08S 07S"},
        {"mixed order: matching part static", {entry(1), entry(8), entry(9), entry(7)}, {7, 8, 9},
         "01L 08L 09L 07S"},
        {"file lists a neighbor the answer lacks yet", {entry(1), entry(8)}, {8, 9}, "01L 08S"},
        {"file MACs not at the end: nothing static", {entry(8), entry(1)}, {8}, "08L 01L"},
        {"every static neighbor of a file one longer than the list", all_statics, file_of_9,
         "01L a7S a6S a5S a4S a3S a2S a1S a0S"},
        // clang-format on
    };
    for (const auto &row : rows) {
        json doc(cJSON_Parse(document_text(row.answer, row.file_macs).c_str()));
        EXPECT_EQ(merge_summary(doc.get()), row.expected) << row.what;
    }
}

TEST(AnswerDecode, FieldsOfOneEntry) {
    ap_info info = longest_entry(2);
    info.state = 5;     // outside the named states
    info.radiocnt = 5;  // announces more radios than an entry carries
    for (int r = 0; r < AP_RADIO_MAX; ++r) {
        info.radio[r] = {static_cast<uint8_t>(3 - r), static_cast<uint8_t>(36 + r), 17, 40, 80};
    }
    info.ip6.fill(0);
    info.qv_ip = 0;
    inet_pton(AF_INET, "10.99.0.1", &info.pvc_ip);
    info.pvc_mac = mac_of(0xaa);
    info.cluster_flag = 1;
    info.cluster_id = 4000000000u;
    EXPECT_EQ(
        document_text({info}, {}),
        R"({"schema":1,"neighbors":[{"mac":"02:00:00:00:00:02","learned":true,"static":false,)"
        R"("state":5,"state_name":"unknown","answered":true,"name":")" +
            std::string(31, 'n') + R"(","version":")" + std::string(15, 'v') + R"(","tenant":")" +
            std::string(63, 't') +
            R"(","ip":"10.99.0.12","ip6":null,"qv_ip":null,"cluster":{"flag":1,"id":4000000000,)"
            R"("pvc_ip":"10.99.0.1","pvc_mac":"02:00:00:00:00:aa"},"radio_count":5,"radios":[)"
            R"({"index":0,"radioid":3,"channel":36,"bandwidth":80,"rssi":40,"txpower":17},)"
            R"({"index":1,"radioid":2,"channel":37,"bandwidth":80,"rssi":40,"txpower":17},)"
            R"({"index":2,"radioid":1,"channel":38,"bandwidth":80,"rssi":40,"txpower":17},)"
            R"({"index":3,"radioid":0,"channel":39,"bandwidth":80,"rssi":40,"txpower":17}]}]})"
            "\n");
}

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
    const bytes one = list_answer({entry(1)});
    bytes cut_entry = one;
    cut_entry.erase(cut_entry.end() - NBCP_END_LEN - 1, cut_entry.end() - NBCP_END_LEN);
    bytes not_list = one;
    not_list[offsetof(local_msg_hdr, op)] = TARN_MSG_DUMP_NGBR;
    const struct {
        const char *what;
        bytes answer;
        size_t entries;  // 0 with decodes false
        bool decodes;
    } rows[] = {
        {"the most one answer holds", full, NBCP_LIST_ENTRIES_MAX, true},
        {"empty table", empty, 0, true},
        {"the most entries one answer closes", bare, bare_count, true},
        {"header only", bytes(empty.begin(), empty.begin() + NBCP_LIST_HDR_LEN), 0, false},
        {"shorter than the header", bytes(NBCP_LIST_HDR_LEN - 1, 0), 0, false},
        {"no end mark", bytes(one.begin(), one.end() - NBCP_END_LEN), 0, false},
        {"end mark cut in half", bytes(one.begin(), one.end() - 1), 0, false},
        {"entry end without its value byte", cut_entry, 0, false},
        {"not a list reply", not_list, 0, false},
    };
    for (const auto &row : rows) {
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
    size_t series = text.find("\ntarn_neighbor_state{");
    EXPECT_TRUE(series != info_string::npos && series == text.rfind("\ntarn_neighbor_state{"));
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

info_neighbor learned(uint8_t mac, uint8_t state = AP_STATE_ACTIVE) {
    return {entry(mac, state), true, false, 0};
}

// count learned entries from MAC byte 0x40, the last replaced by last_mac when given.
std::vector<info_neighbor> learned_table(int count, uint8_t last_mac = 0) {
    std::vector<info_neighbor> table;
    for (int i = 0; i < count; ++i) {
        table.push_back(learned(static_cast<uint8_t>(0x40 + i)));
    }
    if (last_mac != 0) {
        table.back() = learned(last_mac);
    }
    return table;
}

TEST(Watch, EventsAndWhyEntriesLeft) {
    const struct {
        const char *what;
        std::vector<info_neighbor> before, after;
        std::vector<std::string> lines;  // each expected line holds this text
    } rows[] = {
        // clang-format off
        {"nothing changed", learned_table(3), learned_table(3), {}},
        {"one dropped", learned_table(3), learned_table(2),
         {"\"removed\",\"time\":9,\"mac\":\"02:00:00:00:00:42\",\"reason\":\"dropped\""}},
        {"table emptied", learned_table(2), {},
         {"\"reason\":\"table_emptied\"", "\"reason\":\"table_emptied\""}},
        {"a lone entry gone is dropped", learned_table(1), {}, {"\"reason\":\"dropped\""}},
        {"full table of 16 replaces", learned_table(16), learned_table(16, 0x99),
         {"\"reason\":\"replaced\"", "\"added\",\"time\":9,\"mac\":\"02:00:00:00:00:99\""}},
        {"15: not full", learned_table(15), learned_table(15, 0x99),
         {"\"reason\":\"dropped\"", "\"added\""}},
        {"static gone", {{entry(8), false, true, 4}}, {}, {"\"reason\":\"unpinned\""}},
        {"ageing marks offline", {learned(1)}, {learned(1, AP_STATE_OFFLINE)},
         {"\"changed\",\"time\":9,\"mac\":\"02:00:00:00:00:01\",\"fields\":"
          "[\"state\",\"state_name\"],\"neighbor\":{"}},
        {"becomes static too", {learned(1)}, {{entry(1), true, true, 3}},
         {"\"fields\":[\"static\",\"static_state\",\"static_state_name\"]"}},
        // clang-format on
    };
    for (const auto &row : rows) {
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
    const struct {
        std::string args;
        std::string parsed;  // "<mode> <interval_s>"; empty: refused with a reason
    } rows[] = {
        // clang-format off
        {"", "json 0"}, {"--watch", "watch 10"}, {"--watch 5s", ""}, {"show", ""},
        {"--watch 1", "watch 1"}, {"--watch 0", ""},
        {"--watch 86400", "watch 86400"}, {"--watch 86401", ""},
        {"--prometheus --output f --interval 1", "prometheus 1"},
        {"--prometheus --output f --interval 0", ""},
        {"--prometheus --output f --interval 86400", "prometheus 86400"},
        {"--prometheus --output f --interval 86401", ""},
        {"--prometheus --interval 15", ""}, {"--json --output f", ""},
        {"--prometheus --output", ""}, {"--json --watch", ""},
        // clang-format on
    };
    const char *const mode_names[] = {"json", "prometheus", "watch", "help"};
    for (const auto &r : rows) {
        std::istringstream words(r.args);
        std::vector<std::string> args{std::istream_iterator<std::string>(words), {}};
        std::vector<const char *> argv = {"tarn-info"};
        for (const std::string &a : args) {
            argv.push_back(a.c_str());
        }
        info_options options;
        info_string error;
        bool accepted =
            info_parse_options(static_cast<int>(argv.size()), argv.data(), options, error);
        std::string parsed = std::string(mode_names[static_cast<int>(options.mode)]) + " " +
                             std::to_string(options.interval_s);
        EXPECT_EQ(accepted ? parsed : "", r.parsed) << r.args;
        EXPECT_EQ(error.empty(), accepted) << r.args;
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
        own_ = dir_ + "/tarn_info." + info_number(getpid());
    }
    void TearDown() override {
        if (!dir_.empty()) {
            ASSERT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
        }
    }
    static int bound_socket(const info_string &path) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, path.c_str());
        int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        return fd;
    }
    static int mode_of(const info_string &path) {
        struct stat st {};
        return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode) : -1;
    }

    info_string dir_, own_;  // own_: this process's reply socket path
    info_cache_paths paths_;
};

TEST_F(InfoFiles, CacheIsTrustedOnlyWhenPrivateRootOwnedAndFresh) {
    const bytes answer = list_answer({entry(1)});
    const auto keep = [](const info_string &) {};
    constexpr long long NS = 1000000000;
    const struct {
        const char *what;
        std::function<void(const info_string &)> spoil;
        long long age_ns;  // of the file when read
        bool used;
    } rows[] = {
        // clang-format off
        {"fresh", keep, 0, true},
        {"5 s old", keep, INFO_CACHE_MAX_AGE_S * NS, true},
        {"1 ns older", keep, INFO_CACHE_MAX_AGE_S * NS + 1, false},
        {"1 ns in the future", keep, -1, false},
        {"mode 0644", [](const info_string &p) { chmod(p.c_str(), 0644); }, 0, false},
        {"nobody's", [](const info_string &p) { ASSERT_EQ(chown(p.c_str(), 65534, 0), 0); }, 0, false},
        {"linked", [&](const info_string &p) { link(p.c_str(), (dir_ + "/x").c_str()); }, 0, false},
        {"a link to a private file", [&](const info_string &p) {
             rename(p.c_str(), (dir_ + "/real").c_str());
             ASSERT_EQ(symlink((dir_ + "/real").c_str(), p.c_str()), 0);
         }, 0, false},
        // clang-format on
    };
    for (const auto &r : rows) {
        ASSERT_TRUE(info_cache_write(paths_, answer)) << r.what;
        r.spoil(paths_.cache);
        struct stat st {};
        lstat(paths_.cache.c_str(), &st);
        long long now_ns = st.st_mtim.tv_sec * NS + st.st_mtim.tv_nsec + r.age_ns;
        timespec now{static_cast<time_t>(now_ns / NS), static_cast<long>(now_ns % NS)};
        bytes read;
        EXPECT_EQ(info_cache_read(paths_, now, read), r.used) << r.what;
        EXPECT_EQ(read, r.used ? answer : read) << r.what;
        for (const info_string &path : {paths_.cache, dir_ + "/x", dir_ + "/real"}) {
            unlink(path.c_str());
        }
    }
}

TEST_F(InfoFiles, FilesAreMadePrivateAndNeverThroughAPlantedOne) {
    info_string victim = dir_ + "/victim";
    sandbox::write_file(victim.c_str(), "keep");
    ASSERT_EQ(symlink(victim.c_str(), paths_.tmp.c_str()), 0);
    umask(0);
    ASSERT_TRUE(info_cache_write(paths_, {51, 0}));
    umask(022);
    EXPECT_EQ(mode_of(paths_.cache), S_IFREG | 0600);
    EXPECT_EQ(mode_of(paths_.tmp), -1);
    struct stat st {};
    ASSERT_EQ(lstat(victim.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 4);

    sandbox::write_file(paths_.lock.c_str(), "", 0666);
    {
        info_cache_lock lock(paths_.lock, 0);
        EXPECT_TRUE(lock.held());
        info_cache_lock second(paths_.lock, 0);  // another caller's, meanwhile
        EXPECT_FALSE(second.held());
    }
    EXPECT_EQ(mode_of(paths_.lock), S_IFREG | 0600);
}

// A stand-in daemon bound at dir/tarn_socket answers each request with reply_len bytes.
TEST_F(InfoFiles, ExchangeTakesAnAnswerUpToTheDatagramLimitFromItsOwnPath) {
    info_string daemon_path = dir_ + "/" + INFO_DAEMON_SOCKET;
    int daemon = bound_socket(daemon_path);
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
        EXPECT_NE(access(own_.c_str(), F_OK), 0) << "the reply socket's path is gone again";
    }
    close(daemon);  // a stopped daemon leaves its socket path behind
    EXPECT_EQ(info_daemon_probe(dir_), ECONNREFUSED);
    unlink(daemon_path.c_str());
    EXPECT_EQ(info_daemon_probe(dir_), ENOENT);

    // The reply path of this pid is taken over only when it is a socket (left by an earlier
    // process of this pid): with no daemon the call gets as far as sending, past the bind.
    close(bound_socket(own_));
    bytes got;
    info_string error;
    EXPECT_FALSE(info_exchange(dir_, 100, got, error));
    EXPECT_NE(error.find("no daemon"), std::string::npos) << error;
    EXPECT_NE(access(own_.c_str(), F_OK), 0);
    sandbox::write_file(own_.c_str(), "");
    EXPECT_FALSE(info_exchange(dir_, 100, got, error));
    EXPECT_NE(error.find("not a socket"), std::string::npos) << error;
    EXPECT_EQ(access(own_.c_str(), F_OK), 0);
}

}  // namespace
