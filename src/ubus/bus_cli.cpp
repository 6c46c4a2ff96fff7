#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ubus/bus_client.h"
#include "ubus/bus_server.h"
#include "ubus/bus_status.h"

namespace {

struct cli_options {
    const char *socket_path = TARN_BUS_SOCKET_PATH;
    int timeout_ms = BUS_CLIENT_TIMEOUT_MS;
    bool simple_output = false;
};

constexpr int CLI_USAGE_STATUS = 1;

int usage(const char *program) {
    fprintf(stderr,
            "Usage: %s [<options>] <command> [arguments...]\n"
            "Options:\n"
            " -s <socket>:\t\tSet the unix domain socket to connect to (%s)\n"
            " -t <timeout>:\t\tSet the timeout (in seconds) for a command to complete\n"
            " -S:\t\t\tUse simplified output (for scripts)\n"
            "\n"
            "Commands:\n"
            " - call <path> <method> [<message>]\tCall an object method\n"
            " - send <type> [<message>]\t\tSend an event\n"
            "\n",
            program, TARN_BUS_SOCKET_PATH);
    return CLI_USAGE_STATUS;
}

int report(const cli_options &options, int status) {
    if (status > 0 && !options.simple_output) {
        fprintf(stderr, "Command failed: %s\n", bus_strerror(status));
    }
    return status;
}

int run_call(const cli_options &options, int argc, char **argv) {
    std::string reply;
    int status = bus_call(options.socket_path, argv[0], argv[1], argc == 3 ? argv[2] : nullptr,
                          options.timeout_ms, reply);
    if (status == BUS_STATUS_OK && !reply.empty()) {
        printf("%s\n", options.simple_output ? reply.c_str() : format_json_indented(reply).c_str());
    }
    return report(options, status);
}

int run_send(const cli_options &options, int argc, char **argv) {
    int status =
        bus_send(options.socket_path, argv[0], argc == 2 ? argv[1] : nullptr, options.timeout_ms);
    return report(options, status);
}

}  // namespace

int tarn_bus_main(int argc, char **argv) {
    const char *program = argc > 0 ? argv[0] : "tarn-bus";
    cli_options options;
    optind = 1;
    int option;
    while ((option = getopt(argc, argv, "s:t:S")) != -1) {
        switch (option) {
            case 's':
                options.socket_path = optarg;
                break;
            case 't': {
                int seconds = atoi(optarg);
                options.timeout_ms = seconds > 0 && seconds < 86400 ? seconds * 1000 : 1000;
                break;
            }
            case 'S':
                options.simple_output = true;
                break;
            default:
                return usage(program);
        }
    }
    argc -= optind;
    argv += optind;
    if (argc < 1) {
        return usage(program);
    }
    const char *command = argv[0];
    ++argv;
    --argc;
    if (strcmp(command, "call") == 0 && argc >= 2 && argc <= 3) {
        return run_call(options, argc, argv);
    }
    if (strcmp(command, "send") == 0 && argc >= 1 && argc <= 2) {
        return run_send(options, argc, argv);
    }
    return usage(program);
}
