// The methods "show" and "show_neighbor": the text table they read from the command-line
// client's printed output, and its conversion into the reply
// {"result": [ {column: word, ...}, ... ]}.
#pragma once

#include <cstdio>
#include <string_view>

#include "ubus/json_ref.h"

constexpr int SHOW_WORDS_MAX = 20;    // columns of the header, words kept of a data line
constexpr int SHOW_LINES_MAX = 127;   // data lines kept; later ones are read and dropped
constexpr int SHOW_WORD_MAX = 31;     // characters kept of a column name or word
constexpr int SHOW_PIECE_MAX = 1023;  // characters of one read; a longer line reads as several

using show_word = char[SHOW_WORD_MAX + 1];

struct show_text_table {
    show_word names[SHOW_WORDS_MAX];
    int line_cnt;  // data lines stored in lines
    show_word lines[SHOW_LINES_MAX][SHOW_WORDS_MAX];
};

// Cuts text at spaces (a run of spaces is one cut) into words: the first SHOW_WORDS_MAX words
// are kept, each cut to SHOW_WORD_MAX characters; the rest of words is cleared.
void split_show_words(std::string_view text, show_word *words);

// Reads a printed table: the first line gives the column names, the next SHOW_LINES_MAX lines
// the data lines. table must be zero-filled.
void read_show_lines(FILE *stream, show_text_table &table);

// Runs command through a pipe and reads its output into table. Returns 0, or 1 when the command
// could not be started.
int run_show_command(const char *command, show_text_table &table);

// {"result": [...]}: one object per data line, whose members are named by the column names and
// hold the line's words (a word without a column name is left out; a repeated column name gives
// a repeated member). A null table gives an empty "result".
json_ref show_table_reply(const show_text_table *table);

// Fills the zero-filled table from command and builds the reply; a null table (it could not be
// allocated) runs nothing and replies an empty "result". Returns 0.
int show_cmd_reply(const char *command, show_text_table *table, json_ref &reply);
