// Feeds arbitrary text as the output of "tarn show ubus|neighbor" to the reader of the show
// table and builds the bus reply from it. Checks that every word kept is the input's word (its
// first 31 characters where the reader cuts it), in its place, with nothing kept that the input
// does not hold, and that the reply holds one object per line whose members are the line's
// words under their column names.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_invariants.h"
#include "ubus/show_methods.h"

namespace {

// The table the input should give, worked out from the text alone: pieces as a line reader
// with a 1024-byte buffer returns them (a line, or its next 1023 bytes), each read as a C
// string, one trailing newline dropped unless it is the whole piece, then cut at spaces.
std::vector<std::vector<std::string>> expected_lines(std::string_view text) {
    std::vector<std::vector<std::string>> lines;
    while (!text.empty() && lines.size() < 1 + SHOW_LINES_MAX) {
        const size_t newline = text.find('\n');
        const size_t line_len = newline == std::string_view::npos ? text.size() : newline + 1;
        const size_t piece_len = std::min(line_len, size_t{SHOW_PIECE_MAX});
        std::string_view piece = text.substr(0, piece_len);
        text.remove_prefix(piece_len);
        piece = piece.substr(0, std::min(piece.find('\0'), piece.size()));
        if (piece.size() > 1 && piece.back() == '\n') {
            piece.remove_suffix(1);
        }
        std::vector<std::string> words;
        size_t at = 0;
        while (words.size() < SHOW_WORDS_MAX) {
            at = piece.find_first_not_of(' ', at);
            if (at == std::string_view::npos) {
                break;
            }
            size_t end = std::min(piece.find(' ', at), piece.size());
            words.emplace_back(piece.substr(at, std::min<size_t>(end - at, SHOW_WORD_MAX)));
            at = end;
        }
        lines.push_back(std::move(words));
    }
    return lines;
}

void check_words(const show_word *words, const std::vector<std::string> &expected) {
    for (int i = 0; i < SHOW_WORDS_MAX; ++i) {
        FUZZ_CHECK(terminated(words[i]));
        const std::string want = static_cast<size_t>(i) < expected.size() ? expected[i] : "";
        FUZZ_CHECK(want == words[i]);
    }
}

void check_reply(const show_text_table &table) {
    json_ref reply = show_table_reply(&table);
    json_object *result = nullptr;
    FUZZ_CHECK(json_object_object_get_ex(reply.get(), "result", &result));
    FUZZ_CHECK(json_object_array_length(result) == static_cast<size_t>(table.line_cnt));
    for (int line = 0; line < table.line_cnt; ++line) {
        json_object *row = json_object_array_get_idx(result, line);
        int members = 0;
        json_object_object_foreach(row, name, value) {
            (void)name;
            FUZZ_CHECK(std::strlen(json_object_get_string(value)) <= SHOW_WORD_MAX);
            ++members;
        }
        int named = 0;
        for (int i = 0; i < SHOW_WORDS_MAX; ++i) {
            named += table.names[i][0] != '\0' && table.lines[line][i][0] != '\0';
        }
        // A repeated column name (the radio table's) is a member of its own each time.
        FUZZ_CHECK(members == named);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) {
        return 0;  // fmemopen needs a byte to point at; an empty output reads as no line anyway
    }
    std::unique_ptr<uint8_t[]> text = exact_copy(data, size);
    FILE *stream = fmemopen(text.get(), size, "r");
    FUZZ_CHECK(stream != nullptr);
    auto table = std::make_unique<show_text_table>();
    std::memset(table.get(), 0, sizeof *table);
    read_show_lines(stream, *table);
    std::fclose(stream);

    const std::vector<std::vector<std::string>> expected =
        expected_lines(std::string_view(reinterpret_cast<const char *>(data), size));
    FUZZ_CHECK(table->line_cnt == (expected.empty() ? 0 : static_cast<int>(expected.size()) - 1));
    check_words(table->names, expected.empty() ? std::vector<std::string>{} : expected[0]);
    for (int line = 0; line < table->line_cnt; ++line) {
        check_words(table->lines[line], expected[line + 1]);
    }
    check_reply(*table);
    return 0;
}
