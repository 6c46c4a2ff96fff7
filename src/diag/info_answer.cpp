#include "diag/info_answer.h"

#include <cstring>

#include "core/local_msg.h"
#include "diag/info_text.h"
#include "proto/nbcp.h"

bool info_decode_answer(const std::vector<uint8_t> &answer,
                        const std::vector<mac_addr> &static_macs,
                        std::vector<info_neighbor> &neighbors, info_string &error) {
    if (answer.size() < NBCP_LIST_HDR_LEN) {
        error = "answer of " + info_number(answer.size()) + " bytes is shorter than its header";
        return false;
    }
    uint16_t op;
    memcpy(&op, answer.data() + offsetof(local_msg_hdr, op), sizeof op);
    if (op != TARN_MSG_LIST_REPLY) {
        error = "answer is not a neighbor list (operation " + info_number(op) + ")";
        return false;
    }
    std::vector<ap_info> entries(nbcp_list_entries_bound(answer.size()));
    bool complete = false;
    size_t count = nbcp_list_read_whole(answer.data(), answer.size(), entries.data(),
                                        entries.size(), &complete);
    if (!complete) {
        error = "neighbor list of " + info_number(answer.size()) +
                " bytes does not end with its end mark";
        return false;
    }
    size_t static_count = info_static_tail(entries.data(), count, static_macs);
    neighbors = info_merge(entries.data(), count, static_count);
    return true;
}
