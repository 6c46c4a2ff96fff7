// Which entries of the daemon's neighbor list are static neighbors, and the merged view of a
// MAC that is both learned and static.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "neighbor/ap_info.h"

// One neighbor as tarn-info reports it.
struct info_neighbor {
    ap_info info;  // the learned entry, or the static one for a neighbor that is only static
    bool learned;
    bool is_static;
    uint8_t static_state;  // the static entry's state, for a neighbor that is both
};

// Whether the neighbor ever answered a probe: an entry the driver reported but whose probes
// were never answered has neither name nor version.
inline bool info_answered(const ap_info &info) {
    return info.name[0] != '\0' || info.version[0] != '\0';
}

// The MACs of the "static_neighbor" array of the static neighbor file at path, in file order;
// an entry whose MAC is missing or does not parse gives an all-zero MAC. Empty when the file is
// missing or is not such a document.
std::vector<mac_addr> info_static_macs(const char *path);

// How many trailing entries of the answer are static: the daemon sends its static neighbors
// after all learned ones, in the order of the file it writes. The largest k such that the last
// k entries' MACs equal the file's first k MACs, in order. When file and answer disagree (the
// file was rewritten between the answer and the read, or edited by hand), entries beyond the
// matching prefix are taken as learned.
size_t info_static_tail(const ap_info *entries, size_t count, const std::vector<mac_addr> &macs);

// The neighbors of an answer of count entries whose last static_count are static: learned
// entries in answer order, a static entry whose MAC is also learned folded into that learned
// neighbor, the other static entries after them.
std::vector<info_neighbor> info_merge(const ap_info *entries, size_t count, size_t static_count);
