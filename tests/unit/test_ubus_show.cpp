// "show" and "show_neighbor": the printed table of the command-line client as JSON.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "ubus/methods.h"
#include "ubus/show_table.h"

namespace {

std::string text_of(const json_ref &value) {
    return value ? json_object_to_json_string_ext(value.get(), JSON_C_TO_STRING_PLAIN) : "(none)";
}

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

TEST(ShowTableReply, NoTableRepliesAnEmptyResult) {
    EXPECT_EQ(text_of(show_table_reply(nullptr)), R"({"result":[]})");
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

TEST_F(StandInClientTest, OverlongLineIsCutToTwentyWordsOfThirtyOneCharacters) {
    std::string header;
    std::string line;
    for (int i = 0; i < 22; ++i) {
        header += "c" + std::to_string(i) + " ";
        line += (i == 3 ? std::string(40, 'w') : "v" + std::to_string(i)) + " ";
    }
    print(header + "\n" + line + "\n");
    json_ref reply;
    EXPECT_EQ(ubus_show("show", nullptr, reply), 0);
    json_object *result = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(reply.get(), "result", &result));
    ASSERT_EQ(json_object_array_length(result), 1u);
    json_object *row = json_object_array_get_idx(result, 0);
    EXPECT_EQ(json_object_object_length(row), 20);
    json_object *word = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(row, "c3", &word));
    EXPECT_EQ(std::string(json_object_get_string(word)), std::string(31, 'w'));
    ASSERT_TRUE(json_object_object_get_ex(row, "c19", &word));
    EXPECT_STREQ(json_object_get_string(word), "v19");
    EXPECT_FALSE(json_object_object_get_ex(row, "c20", nullptr));
}

TEST_F(StandInClientTest, ClientPrintingNothingRepliesEmptyResult) {
    json_ref reply;
    EXPECT_EQ(ubus_show("show", nullptr, reply), 0);
    EXPECT_EQ(text_of(reply), R"({"result":[]})");
}

TEST_F(StandInClientTest, UnallocatedTableRunsNothingAndRepliesEmptyResult) {
    print(cluster_header() + cluster_line("00:11:22:33:44:55", "1.1.1.1", "::", 0, "x"));
    json_ref reply;
    EXPECT_EQ(show_cmd_reply("tarn show ubus", nullptr, reply), 0);
    EXPECT_EQ(text_of(reply), R"({"result":[]})");
    EXPECT_EQ(calls(), "");
}

}  // namespace
