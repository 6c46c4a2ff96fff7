// The command line: sub-command words, their range checks and messages, daemon options.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/cmdline.h"
#include "core/settings.h"
#include "diag/show_client.h"

namespace {

struct parsed {
    cmdline_decision decision;
    std::string output;
};

void reset_settings() {
    version = VERSION_DEFAULT;
    rssi_min = RSSI_MIN_DEFAULT;
    max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
    tarn_debug = 0;
}

parsed parse(std::vector<std::string> words) {
    reset_settings();
    words.insert(words.begin(), "/usr/sbin/tarn");
    std::vector<char *> argv;
    for (auto &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    testing::internal::CaptureStdout();
    cmdline_decision decision = parse_cmdline(static_cast<int>(words.size()), argv.data());
    return {decision, testing::internal::GetCapturedStdout()};
}

const std::string RSSI_MESSAGE = "error arg, please input a  number  in  1-200 !\n";
const std::string VERSION_MESSAGE = "error arg, please input a number in 1-255 !\n";
const std::string COUNT_MESSAGE = "invalid arg, allowed max dynamic neighbor is 16-64\n";

struct client_case {
    std::vector<std::string> words;
    cmdline_outcome outcome;
    client_request request;  // when outcome is client
    int value;               // when outcome is client
    std::string output;
};

class ClientWords : public testing::TestWithParam<client_case> {};

TEST_P(ClientWords, DecideRequestValueAndMessage) {
    const client_case &c = GetParam();
    parsed p = parse(c.words);
    EXPECT_EQ(p.decision.outcome, c.outcome);
    EXPECT_EQ(p.output, c.output);
    if (c.outcome == cmdline_outcome::client) {
        EXPECT_EQ(p.decision.request, c.request);
        EXPECT_EQ(p.decision.value, c.value);
    } else {
        EXPECT_EQ(p.decision.exit_status, 0);
    }
}

using O = cmdline_outcome;
using R = client_request;

INSTANTIATE_TEST_SUITE_P(
    Grammar, ClientWords,
    testing::Values(client_case{{"set", "rssi", "0"}, O::exit_now, R::show, 0, RSSI_MESSAGE},
                    client_case{{"set", "rssi", "201"}, O::exit_now, R::show, 0, RSSI_MESSAGE},
                    client_case{{"set", "rssi", "200"}, O::client, R::set_rssi, 200, ""},
                    client_case{{"set", "rssi", "1"}, O::client, R::set_rssi, 1, ""},
                    // 300 is kept in 8 bits before the check: 44.
                    client_case{{"set", "rssi", "300"}, O::client, R::set_rssi, 44, ""},
                    client_case{{"set", "rssi", "abc"}, O::exit_now, R::show, 0, RSSI_MESSAGE},
                    client_case{{"set", "rssi"}, O::client, R::set_rssi, 5, ""},
                    client_case{{"set", "V", "3"}, O::client, R::set_version, 3, ""},
                    client_case{{"set", "V", "256"}, O::exit_now, R::show, 0, VERSION_MESSAGE},
                    client_case{{"set", "V", "257"}, O::client, R::set_version, 1, ""},
                    client_case{{"set", "V"}, O::exit_now, R::show, 0, VERSION_MESSAGE},
                    client_case{{"set", "count", "32"}, O::client, R::set_count, 32, ""},
                    client_case{{"set", "count", "16"}, O::client, R::set_count, 16, ""},
                    client_case{{"set", "count", "64"}, O::client, R::set_count, 64, ""},
                    client_case{{"set", "count", "15"}, O::exit_now, R::show, 0, COUNT_MESSAGE},
                    client_case{{"set", "count", "65"}, O::exit_now, R::show, 0, COUNT_MESSAGE},
                    client_case{{"set", "count", "272"}, O::client, R::set_count, 16, ""},
                    client_case{{"set", "count"}, O::exit_now, R::show, 0, COUNT_MESSAGE},
                    client_case{{"set", "foo"}, O::exit_now, R::show, 0, ""},
                    client_case{{"set"}, O::exit_now, R::show, 0, ""},
                    client_case{{"set", "RSSI", "10"}, O::exit_now, R::show, 0, ""},
                    client_case{{"get", "rssi"}, O::client, R::get_rssi, 0, ""},
                    client_case{{"get", "foo"}, O::exit_now, R::show, 0, ""},
                    client_case{{"get"}, O::exit_now, R::show, 0, ""},
                    client_case{{"static", "update"}, O::client, R::static_update, 0, ""},
                    client_case{{"static"}, O::exit_now, R::show, 0, ""},
                    client_case{{"show"}, O::client, R::show, SHOW_WIRELESS, ""},
                    client_case{{"show", "cluster"}, O::client, R::show, SHOW_CLUSTER, ""},
                    client_case{{"show", "ubus"}, O::client, R::show, SHOW_UBUS, ""},
                    client_case{{"show", "neighbor"}, O::client, R::show, SHOW_NEIGHBOR, ""},
                    client_case{{"show", "xyz"}, O::client, R::show, SHOW_WIRELESS, ""}));

const std::string USAGE =
    "Usage: /usr/sbin/tarn [-h] [-D] [-V version] [-n num] [-R rssi]\n\n"
    "Options: Description (default value)\n"
    "  -h\t\tHelp\n"
    "  -D\t\tDebug mode, log output\n"
    "  -V <1-255>\tRunning version (1)\n"
    "  -R <1-200>\tRssi threshold, noise floor adjuested (5)\n"
    "  -n <16-64>\tMax dynamic neighbor count (64)\n\n"
    "Other usage:\n"
    "  tarn show  (display all neigbor aps wireless info)\n"
    "  tarn show cluster (display all neigbor aps cluster info)\n"
    "  tarn set rssi xxx  (set tarn rssi threshold)\n"
    "  tarn set V xxx  (set tarn running version)\n"
    "  tarn set count xxx  (set tarn max dynamic neighbor)\n"
    "  tarn get rssi (get rssi info)\n";

struct option_case {
    std::vector<std::string> words;
    cmdline_outcome outcome;
    std::string output;
    int version, rssi, count, debug;  // settings after the parse
};

class DaemonOptions : public testing::TestWithParam<option_case> {};

TEST_P(DaemonOptions, SettingsAndOutcome) {
    const option_case &c = GetParam();
    testing::internal::CaptureStderr();  // getopt's own complaints
    parsed p = parse(c.words);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(p.decision.outcome, c.outcome);
    EXPECT_EQ(p.output, c.output);
    EXPECT_EQ(version, c.version);
    EXPECT_EQ(rssi_min, c.rssi);
    EXPECT_EQ(max_ngbr_num, c.count);
    EXPECT_EQ(tarn_debug, c.debug);
}

INSTANTIATE_TEST_SUITE_P(
    Getopt, DaemonOptions,
    testing::Values(option_case{{"-h"}, O::exit_now, USAGE, 1, 5, 64, 0},
                    option_case{{"-x"}, O::exit_now, USAGE, 1, 5, 64, 0},
                    option_case{{"-V"}, O::exit_now, USAGE, 1, 5, 64, 0},
                    option_case{{"-D"}, O::run_daemon, "", 1, 5, 64, 1},
                    option_case{{"-V", "0"}, O::exit_now, "", 0, 5, 64, 0},
                    option_case{{"-V", "256"}, O::exit_now, "", 0, 5, 64, 0},
                    option_case{{"-V", "257"}, O::run_daemon, "", 1, 5, 64, 0},
                    option_case{{"-V", "7"}, O::run_daemon, "", 7, 5, 64, 0},
                    option_case{{"-n", "15"}, O::exit_now, "", 1, 5, 15, 0},
                    option_case{{"-n", "16"}, O::run_daemon, "", 1, 5, 16, 0},
                    option_case{{"-n", "64"}, O::run_daemon, "", 1, 5, 64, 0},
                    option_case{{"-n", "65"}, O::exit_now, "", 1, 5, 65, 0},
                    option_case{{"-R", "6"}, O::run_daemon, "", 1, 6, 64, 0},
                    option_case{{"-R", "0"}, O::run_daemon, "", 1, 0, 64, 0},
                    option_case{{"-D", "-R", "300", "-n", "32"}, O::run_daemon, "", 1, 44, 32, 1},
                    // A stray word ends option parsing: what follows it is not read.
                    option_case{{"stray", "-D", "-V", "9"}, O::run_daemon, "", 1, 5, 64, 0},
                    option_case{{"-D", "stray", "-V", "9"}, O::run_daemon, "", 1, 5, 64, 1}));

TEST(DaemonOptions, NoArgumentIsTheDaemonWithDefaults) {
    parsed p = parse({});
    EXPECT_EQ(p.decision.outcome, O::run_daemon);
    EXPECT_FALSE(p.decision.had_arguments);
    EXPECT_EQ(version, 1);
    EXPECT_EQ(rssi_min, 5);
    EXPECT_EQ(max_ngbr_num, 64);
    EXPECT_EQ(tarn_debug, 0);
}

TEST(DaemonOptions, RefusedValueIsLoggedOnlyWhenDebugCameFirst) {
    setenv("TARN_LOG_STDERR", "1", 1);
    testing::internal::CaptureStderr();
    parse({"-D", "-V", "0"});
    std::string with_debug_first = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    parse({"-V", "0", "-D"});
    std::string with_debug_after = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    parse({"-D", "-n", "65"});
    std::string count_refused = testing::internal::GetCapturedStderr();
    unsetenv("TARN_LOG_STDERR");

    EXPECT_EQ(with_debug_first, "invalid arg -V, please input a number in 1-255!\n");
    EXPECT_EQ(with_debug_after, "");
    EXPECT_EQ(count_refused, "invalid arg -n,allowed max dynamic neighbor is 16-64\n");
}

}  // namespace
