// Feeds arbitrary text as the output of a platform command to the readers the gatherers use:
// trim (every command's output) and the dashed MAC of "/tmp/pvc-info" in both of its ways of
// reading (the usual one and the one for C libraries that store %hhx as two bytes). Checks
// that trim only cuts leading and trailing spaces and tabs, and that both MAC readers agree.
#include <memory>

#include "fuzz_invariants.h"
#include "sysinfo/sysinfo.h"
#include "util/run_cmd.h"

namespace {

void check_trim(const char *original, size_t length) {
    std::unique_ptr<char[]> text(new char[length + 1]);
    std::memcpy(text.get(), original, length + 1);
    auto blank = [](char c) { return c == ' ' || c == '\t'; };
    char *kept = trim(text.get());
    size_t lead = static_cast<size_t>(kept - text.get());
    size_t left = std::strlen(kept);
    FUZZ_CHECK(lead + left <= length && std::memcmp(kept, original + lead, left) == 0);
    FUZZ_CHECK(left == 0 || (!blank(kept[0]) && !blank(kept[left - 1])));
    for (size_t i = 0; i < length; ++i) {
        FUZZ_CHECK(blank(original[i]) || (i >= lead && i < lead + left));
    }
}

void check_mac(const char *text) {
    mac_addr usual{}, wide{};
    int got_usual = parse_mac_dash_for(text, usual, false);
    int got_wide = parse_mac_dash_for(text, wide, true);
    FUZZ_CHECK(got_usual == got_wide && got_usual >= 0 && got_usual <= 6);
    FUZZ_CHECK(usual == wide);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Command output is read as a C string: it ends at the first NUL.
    std::unique_ptr<char[]> text(new char[size + 1]);
    std::memcpy(text.get(), data, size);
    text[size] = '\0';
    size_t length = std::strlen(text.get());
    check_trim(text.get(), length);
    check_mac(text.get());
    return 0;
}
