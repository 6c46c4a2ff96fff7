#include "ubus/show_methods.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ubus/methods.h"
#include "util/log.h"

void split_show_words(std::string_view text, show_word *words) {
    memset(words, 0, sizeof(show_word) * SHOW_WORDS_MAX);
    size_t pos = 0;
    for (int count = 0; count < SHOW_WORDS_MAX; ++count) {
        pos = text.find_first_not_of(' ', pos);
        if (pos == std::string_view::npos) {
            return;
        }
        size_t end = std::min(text.find(' ', pos), text.size());
        std::string_view word = text.substr(pos, end - pos);
        size_t kept = std::min(word.size(), static_cast<size_t>(SHOW_WORD_MAX));
        memcpy(words[count], word.data(), kept);
        pos = end;
    }
}

void read_show_lines(FILE *stream, show_text_table &table) {
    char piece[SHOW_PIECE_MAX + 1];
    int lines_read = 0;  // stops counting past the last line that is kept
    while (fgets(piece, sizeof piece, stream) != nullptr) {
        size_t len = strlen(piece);
        if (len > 1 && piece[len - 1] == '\n') {
            piece[--len] = '\0';
        }
        TARN_DBG("get the show_ubus buf:[%s]\n", piece);
        if (lines_read == 0) {
            split_show_words(std::string_view(piece, len), table.names);
        } else if (lines_read <= SHOW_LINES_MAX) {
            split_show_words(std::string_view(piece, len), table.lines[lines_read - 1]);
        }
        if (lines_read <= SHOW_LINES_MAX) {
            ++lines_read;
        }
    }
    table.line_cnt = lines_read > 0 ? lines_read - 1 : 0;
}

int run_show_command(const char *command, show_text_table &table) {
    // "e": the pipe is not inherited by commands that the client itself might start.
    FILE *stream = popen(command, "re");
    if (stream == nullptr) {
        return 1;
    }
    read_show_lines(stream, table);
    pclose(stream);
    return 0;
}

namespace {

json_object *show_line_object(const show_text_table &table, const show_word *words) {
    json_object *line = json_object_new_object();
    if (line == nullptr) {
        return nullptr;
    }
    for (int column = 0; column < SHOW_WORDS_MAX; ++column) {
        if (table.names[column][0] == '\0' || words[column][0] == '\0') {
            continue;
        }
        // The radio table names "radioid", "channel", "rssi" and "txpower" once per radio; every
        // one of them is a member of its own, so the key is added without replacing.
        json_object_object_add_ex(line, table.names[column], json_object_new_string(words[column]),
                                  JSON_C_OBJECT_ADD_KEY_IS_NEW);
    }
    return line;
}

}  // namespace

json_ref show_table_reply(const show_text_table *table) {
    json_ref reply(json_object_new_object());
    json_object *result = json_object_new_array();
    if (!reply || result == nullptr) {
        json_object_put(result);
        return reply;
    }
    json_object_object_add(reply.get(), "result", result);
    if (table == nullptr) {
        return reply;
    }
    int lines = std::clamp(table->line_cnt, 0, SHOW_LINES_MAX);
    for (int i = 0; i < lines; ++i) {
        json_object *line = show_line_object(*table, table->lines[i]);
        if (line != nullptr) {
            json_object_array_add(result, line);
        }
    }
    return reply;
}

int show_cmd_reply(const char *command, show_text_table *table, json_ref &reply) {
    if (table == nullptr) {
        TARN_ERR("%s: Malloc failed\n", "show_cmd_reply");
    } else {
        int ran = run_show_command(command, *table);
        TARN_DBG("show_cmd [%d]:[%p]:[%d]-------->\n", ran, static_cast<void *>(table),
                 static_cast<int>(sizeof(show_text_table)));
    }
    reply = show_table_reply(table);
    return 0;
}

namespace {

struct free_deleter {
    void operator()(void *block) const { free(block); }
};

int show_through(const char *command, json_ref &reply) {
    // 80 KiB: taken from the heap, not from the bus thread's stack.
    std::unique_ptr<show_text_table, free_deleter> table(
        static_cast<show_text_table *>(calloc(1, sizeof(show_text_table))));
    return show_cmd_reply(command, table.get(), reply);
}

}  // namespace

int ubus_show(const char * /*method*/, json_object * /*request*/, json_ref &reply) {
    return show_through("tarn show ubus", reply);
}

int ubus_show_neighbor(const char * /*method*/, json_object * /*request*/, json_ref &reply) {
    return show_through("tarn show neighbor", reply);
}
