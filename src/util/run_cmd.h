// Running platform shell commands for their output.
#pragma once

#include <cstddef>
#include <mutex>

// Serialises every popen of the process, from before popen until after pclose. It is the
// innermost lock: a command may run while another lock is held, but nothing else is locked
// while it is held.
extern std::mutex popen_lock;

// Runs `cmd` through the shell and keeps the start of its output in `buf`: one read of at most
// `size` bytes, whose last byte is then replaced by the terminator (so a final newline goes,
// and output that fills the buffer is cut to size - 1 characters). Returns the number of
// characters kept, 0 when nothing was read or `cmd`/`buf` is missing. `buf` is always
// zero-terminated when it is given.
int run_cmd(const char *cmd, char *buf, size_t size);

// Cuts trailing spaces and tabs in place and returns the first character that is neither.
// Returns null for a null text and the text itself when it is empty. Other white space
// (newlines, carriage returns) is kept.
char *trim(char *text);
