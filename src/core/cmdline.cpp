#include "core/cmdline.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/settings.h"
#include "diag/show_client.h"
#include "util/log.h"

namespace {

constexpr const char *USAGE_FORMAT =
    "Usage: %s [-h] [-D] [-V version] [-n num] [-R rssi]\n\n"
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

constexpr const char *RSSI_RANGE_MESSAGE = "error arg, please input a  number  in  1-200 !";
constexpr const char *VERSION_RANGE_MESSAGE = "error arg, please input a number in 1-255 !";
constexpr const char *COUNT_RANGE_MESSAGE = "invalid arg, allowed max dynamic neighbor is 16-64";

// Command-line numbers are read with atoi and kept in 8-bit settings: 257 becomes 1.
uint8_t as_u8(const char *text) {
    return static_cast<uint8_t>(atoi(text));
}

bool in_count_range(uint8_t count) {
    return count >= MAX_NGBR_NUM_LOW && count <= MAX_NGBR_NUM_HIGH;
}

cmdline_decision exit_with(int status) {
    return {cmdline_outcome::exit_now, status, client_request::show, 0, true};
}

cmdline_decision client(client_request request, uint8_t value) {
    return {cmdline_outcome::client, 0, request, value, true};
}

cmdline_decision refuse(const char *message) {
    puts(message);
    return exit_with(0);
}

// "set rssi N", "set V N", "set count N"; any other word is ignored silently.
cmdline_decision parse_set(int argc, char **argv) {
    if (argc < 3) {
        return exit_with(0);
    }
    const char *what = argv[2];
    const char *number = argc > 3 ? argv[3] : nullptr;
    if (strcmp(what, "rssi") == 0) {
        if (number == nullptr) {
            return client(client_request::set_rssi, RSSI_MIN_DEFAULT);
        }
        rssi_min = as_u8(number);
        if (rssi_min == 0 || rssi_min > 200) {
            return refuse(RSSI_RANGE_MESSAGE);
        }
        return client(client_request::set_rssi, rssi_min);
    }
    if (strcmp(what, "V") == 0) {
        if (number != nullptr) {
            version = as_u8(number);
        }
        if (number == nullptr || version == 0) {
            return refuse(VERSION_RANGE_MESSAGE);
        }
        return client(client_request::set_version, version);
    }
    if (strcmp(what, "count") == 0) {
        if (number != nullptr) {
            max_ngbr_num = as_u8(number);
        }
        if (number == nullptr || !in_count_range(max_ngbr_num)) {
            return refuse(COUNT_RANGE_MESSAGE);
        }
        return client(client_request::set_count, max_ngbr_num);
    }
    return exit_with(0);
}

cmdline_decision parse_second_word(int argc, char **argv, const char *word,
                                   client_request request) {
    if (argc >= 3 && strcmp(argv[2], word) == 0) {
        return client(request, 0);
    }
    return exit_with(0);
}

show_kind show_kind_of(int argc, char **argv) {
    if (argc < 3) {
        return SHOW_WIRELESS;
    }
    if (strcmp(argv[2], "cluster") == 0) {
        return SHOW_CLUSTER;
    }
    if (strcmp(argv[2], "ubus") == 0) {
        return SHOW_UBUS;
    }
    if (strcmp(argv[2], "neighbor") == 0) {
        return SHOW_NEIGHBOR;
    }
    return SHOW_WIRELESS;
}

cmdline_decision usage(const char *program) {
    printf(USAGE_FORMAT, program);
    return exit_with(0);
}

// Option parsing stops at the first argument that is not an option, so a stray word starts
// the daemon with what was read so far (glibc needs "+" for that; other libcs stop there anyway).
#ifdef __GLIBC__
constexpr const char *DAEMON_OPTIONS = "+hDV:n:R:";
#else
constexpr const char *DAEMON_OPTIONS = "hDV:n:R:";
#endif

cmdline_decision parse_daemon_options(int argc, char **argv) {
    optind = 0;  // full re-initialisation, so the command line can be read more than once
    int option;
    while ((option = getopt(argc, argv, DAEMON_OPTIONS)) != -1) {
        switch (option) {
            case 'D':
                tarn_debug = 1;
                break;
            case 'V':
                version = as_u8(optarg);
                if (version == 0) {
                    TARN_ERR("invalid arg -V, please input a number in 1-255!\n");
                    return exit_with(0);
                }
                break;
            case 'n':
                max_ngbr_num = as_u8(optarg);
                if (!in_count_range(max_ngbr_num)) {
                    TARN_ERR("invalid arg -n,allowed max dynamic neighbor is 16-64\n");
                    return exit_with(0);
                }
                break;
            case 'R':
                rssi_min = as_u8(optarg);
                break;
            default:  // -h, an unknown option or an option without its value
                return usage(argv[0]);
        }
    }
    return {cmdline_outcome::run_daemon, 0, client_request::show, 0, true};
}

}  // namespace

cmdline_decision parse_cmdline(int argc, char **argv) {
    if (argc <= 1) {
        return {cmdline_outcome::run_daemon, 0, client_request::show, 0, false};
    }
    const char *word = argv[1];
    if (strcmp(word, "set") == 0) {
        return parse_set(argc, argv);
    }
    if (strcmp(word, "get") == 0) {
        return parse_second_word(argc, argv, "rssi", client_request::get_rssi);
    }
    if (strcmp(word, "static") == 0) {
        return parse_second_word(argc, argv, "update", client_request::static_update);
    }
    if (strcmp(word, "show") == 0) {
        return client(client_request::show, static_cast<uint8_t>(show_kind_of(argc, argv)));
    }
    return parse_daemon_options(argc, argv);
}
