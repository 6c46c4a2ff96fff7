// The command line: one table of accepted and refused forms with what each decides, stores and
// prints. The usage text, the refused options' log and what a client sends are system-tested.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/cmdline.h"
#include "core/settings.h"
#include "diag/show_client.h"

namespace {

struct parsed {
    cmdline_decision decision;
    std::string printed;
};

parsed parse(std::vector<std::string> words) {
    version = VERSION_DEFAULT;
    rssi_min = RSSI_MIN_DEFAULT;
    max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
    tarn_debug = 0;
    words.insert(words.begin(), "/usr/sbin/tarn");
    std::vector<char *> argv;
    for (auto &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();  // getopt's complaints
    cmdline_decision decision = parse_cmdline(static_cast<int>(words.size()), argv.data());
    std::string printed = testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    return {decision, printed};
}

// "client <request> <value>", "daemon" or "exit <status>", then the settings.
std::string decided(const cmdline_decision &d) {
    std::string out =
        d.outcome == cmdline_outcome::client
            ? "client " + std::to_string(int(d.request)) + " " + std::to_string(d.value)
        : d.outcome == cmdline_outcome::run_daemon ? "daemon"
                                                   : "exit " + std::to_string(d.exit_status);
    return out + " | V" + std::to_string(version) + " R" + std::to_string(rssi_min) + " n" +
           std::to_string(max_ngbr_num) + (tarn_debug != 0 ? " D" : "");
}

const std::string VERSION = "error arg, please input a number in 1-255 !\n";
const std::string RSSI = "error arg, please input a  number  in  1-200 !\n";
const std::string COUNT = "invalid arg, allowed max dynamic neighbor is 16-64\n";
const std::string DEFAULTS = " | V1 R5 n64";

struct form {
    std::vector<std::string> words;
    std::string decided;
    std::string printed;
};

// Requests: 0 set rssi, 1 set V, 2 set count, 3 get rssi, 4 static update, 5 show (the value
// is the show kind). Numbers are cut to 8 bits before the range check. The settings matter for
// the daemon's options only: a form without them is compared without them.
const form FORMS[] = {
    {{}, "daemon" + DEFAULTS, ""},
    {{"set", "rssi", "200"}, "client 0 200", ""},
    {{"set", "rssi", "1"}, "client 0 1", ""},
    {{"set", "rssi", "0"}, "exit 0", RSSI},
    {{"set", "rssi", "201"}, "exit 0", RSSI},
    {{"set", "rssi", "256"}, "exit 0", RSSI},
    {{"set", "rssi", "300"}, "client 0 44", ""},
    {{"set", "rssi"}, "client 0 5", ""},
    {{"set", "V", "257"}, "client 1 1", ""},
    {{"set", "V", "255"}, "client 1 255", ""},
    {{"set", "V", "256"}, "exit 0", VERSION},
    {{"set", "V"}, "exit 0", VERSION},
    {{"set", "count", "16"}, "client 2 16", ""},
    {{"set", "count", "64"}, "client 2 64", ""},
    {{"set", "count", "15"}, "exit 0", COUNT},
    {{"set", "count", "65"}, "exit 0", COUNT},
    {{"set", "count", "272"}, "client 2 16", ""},
    {{"set", "count"}, "exit 0", COUNT},
    {{"set", "RSSI", "10"}, "exit 0", ""},
    {{"get", "rssi"}, "client 3 0", ""},
    {{"get", "foo"}, "exit 0", ""},
    {{"static"}, "exit 0", ""},
    {{"show"}, "client 5 0", ""},
    {{"show", "cluster"}, "client 5 1", ""},
    {{"show", "neighbor"}, "client 5 3", ""},
    {{"show", "xyz"}, "client 5 0", ""},
    {{"-V", "0"}, "exit 0 | V0 R5 n64", ""},
    // Values equal to a default follow another value, so that a value not stored shows.
    {{"-V", "9", "-V", "1"}, "daemon" + DEFAULTS, ""},
    {{"-V", "255"}, "daemon | V255 R5 n64", ""},
    {{"-V", "256"}, "exit 0 | V0 R5 n64", ""},
    {{"-V", "9", "-V", "257"}, "daemon" + DEFAULTS, ""},
    {{"-n", "16"}, "daemon | V1 R5 n16", ""},
    {{"-n", "32", "-n", "64"}, "daemon" + DEFAULTS, ""},
    {{"-n", "15"}, "exit 0 | V1 R5 n15", ""},
    {{"-n", "65"}, "exit 0 | V1 R5 n65", ""},
    {{"-n", "32", "-n", "320"}, "daemon" + DEFAULTS, ""},
    // -R has no range check: 0 and 201 are taken as given.
    {{"-R", "0"}, "daemon | V1 R0 n64", ""},
    {{"-R", "201"}, "daemon | V1 R201 n64", ""},
    {{"-D", "-R", "300", "-n", "32"}, "daemon | V1 R44 n32 D", ""},
    // A stray word ends option parsing: what follows it is not read.
    {{"-D", "stray", "-V", "9"}, "daemon" + DEFAULTS + " D", ""},
};

TEST(Cmdline, AcceptedAndRefusedForms) {
    for (const form &f : FORMS) {
        SCOPED_TRACE(testing::PrintToString(f.words));
        parsed p = parse(f.words);
        std::string got = decided(p.decision);
        if (f.decided.find(" | ") == std::string::npos) {
            got.resize(got.find(" | "));
        }
        EXPECT_EQ(got, f.decided);
        EXPECT_EQ(p.printed, f.printed);
        EXPECT_EQ(p.decision.had_arguments, !f.words.empty());
    }
}

}  // namespace
