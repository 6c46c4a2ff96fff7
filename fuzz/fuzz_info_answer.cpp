// Feeds arbitrary answers to tarn-info's decode, with a static list from the input's own first
// MACs, then renders them. Checks that the JSON parses with every neighbor in it, and that no
// received byte breaks the Prometheus text out of its line or its label.
#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "diag/info_answer.h"
#include "diag/info_json.h"
#include "diag/info_prometheus.h"
#include "fuzz_invariants.h"

namespace {

// Every line is a comment, a tarn_ sample, or empty; a label value that held a raw newline
// would start a line with something else.
bool lines_well_formed(const info_string &text) {
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        info_string line = text.substr(at, end - at);
        if (line.rfind("# HELP tarn_", 0) != 0 && line.rfind("# TYPE tarn_", 0) != 0 &&
            line.rfind("tarn_", 0) != 0) {
            return false;
        }
        at = end == info_string::npos ? text.size() : end + 1;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<uint8_t> answer(data, data + size);
    std::vector<mac_addr> static_macs;
    for (size_t at = 8; at + 6 <= size && static_macs.size() < 3; at += 6) {
        mac_addr mac;
        std::copy(data + at, data + at + 6, mac.begin());
        static_macs.push_back(mac);
    }
    std::vector<info_neighbor> neighbors;
    info_string error;
    if (!info_decode_answer(answer, static_macs, neighbors, error)) {
        FUZZ_CHECK(!error.empty());
        return 0;
    }
    info_string json_text = info_json_document(neighbors);
    std::unique_ptr<cJSON, void (*)(cJSON *)> doc(cJSON_Parse(json_text.c_str()), cJSON_Delete);
    FUZZ_CHECK(doc != nullptr);
    FUZZ_CHECK(cJSON_GetArraySize(cJSON_GetObjectItem(doc.get(), "neighbors")) ==
               static_cast<int>(neighbors.size()));
    FUZZ_CHECK(lines_well_formed(info_prometheus_text(true, neighbors)));
    return 0;
}
