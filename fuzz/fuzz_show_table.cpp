// Feeds arbitrary text as the output of "tarn show ubus|neighbor" to the reader of the show
// table and builds the bus reply from it. Checks the table's limits (127 lines, 20 words of at
// most 31 characters, all terminated) and that the reply holds one object per line whose
// members are the line's words under their column names.
#include <cstdio>
#include <memory>

#include "fuzz_invariants.h"
#include "ubus/show_methods.h"

namespace {

void check_words(const show_word *words) {
    for (int i = 0; i < SHOW_WORDS_MAX; ++i) {
        FUZZ_CHECK(terminated(words[i]));
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
    std::unique_ptr<uint8_t[]> text = exact_copy(data, size);
    FILE *stream = fmemopen(text.get(), size == 0 ? 1 : size, "r");
    FUZZ_CHECK(stream != nullptr);
    auto table = std::make_unique<show_text_table>();
    std::memset(table.get(), 0, sizeof *table);
    read_show_lines(stream, *table);
    std::fclose(stream);

    FUZZ_CHECK(table->line_cnt >= 0 && table->line_cnt <= SHOW_LINES_MAX);
    check_words(table->names);
    for (int line = 0; line < table->line_cnt; ++line) {
        check_words(table->lines[line]);
    }
    check_reply(*table);
    return 0;
}
