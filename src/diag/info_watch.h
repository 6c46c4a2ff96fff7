// The change events of tarn-info --watch: one JSON object per line.
#pragma once

#include <vector>

#include "diag/info_static.h"
#include "diag/info_string.h"

// The smallest neighbor limit the daemon accepts: a learned table this full may be full, so an
// entry that leaves while another arrives and the count stays may have been replaced.
constexpr size_t INFO_TABLE_MIN_LIMIT = 16;

// Appends an "added", "removed" or "changed" line for each neighbor that differs between two
// successive reads. Why an entry left is inferred, since the answer does not say:
// "unpinned" for a neighbor that was only static; "table_emptied" when at least two learned
// entries were there and none of them is left; "replaced" when the learned count stayed at 16
// or more while new learned entries appeared; "dropped" otherwise.
void info_watch_changes(const std::vector<info_neighbor> &before,
                        const std::vector<info_neighbor> &after, long long time, info_string &out);

// {"event":"daemon_up"|"daemon_down","time":T} and a newline.
void info_watch_daemon(bool up, long long time, info_string &out);
