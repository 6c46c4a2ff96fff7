// Replacing a file so that a reader (or the next start after a crash or power loss) sees either
// the complete old content or the complete new content, never a torn or empty file.
#pragma once

#include <cstddef>

// The temporary file write_file_replacing uses for path: same directory, so the final rename
// never crosses file systems.
constexpr const char *REPLACE_TMP_SUFFIX = ".tmp";

// Outcome of write_file_replacing.
enum class replace_result {
    done,
    open_failed,   // the temporary file could not be created; nothing changed
    write_failed,  // writing, flushing or renaming failed; the old file is left as it was
};

// Writes len bytes of data to a temporary file next to path, flushes it to disk and renames it
// over path. A new file gets mode 0666 less the process's file-creation mask, as an ordinary
// open for writing would give it.
replace_result write_file_replacing(const char *path, const char *data, size_t len);
