// The daemon's answer to operation 1 as tarn-info's neighbors.
#pragma once

#include <cstdint>
#include <vector>

#include "diag/info_static.h"
#include "diag/info_string.h"

// Decodes a whole neighbor-list answer (bounded only by its length) and marks its static
// entries from static_macs (see info_static_tail). Returns false with a message in error when
// the answer is not a list reply or does not end with the list's end mark.
bool info_decode_answer(const std::vector<uint8_t> &answer,
                        const std::vector<mac_addr> &static_macs,
                        std::vector<info_neighbor> &neighbors, info_string &error);
