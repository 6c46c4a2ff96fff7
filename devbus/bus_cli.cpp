// The tarn-bus command: the ubus command's twin on the embedded bus. Same options, output, messages
// and exit statuses for the commands it has (list, call, send).
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "devbus/bus_client.h"
#include "devbus/bus_server.h"
#include "devbus/bus_status.h"
#include "devbus/bus_wire.h"

namespace {

void new_line(std::string &out, int level) {
    out.push_back('\n');
    out.append(static_cast<size_t>(level < 0 ? 0 : level), '\t');
}

struct cli_options {
    const char *socket_path = TARN_BUS_SOCKET_PATH;
    int timeout_ms = BUS_CLIENT_TIMEOUT_MS;
    bool simple_output = false;
    int verbose = 0;
};

// What a command returns for wrong arguments: the usage is printed and the process exits 254.
constexpr int CLI_WRONG_ARGUMENTS = -2;
constexpr int CLI_NO_BUS = -1;

int usage(const char *program) {
    fprintf(stderr,
            "Usage: %s [<options>] <command> [arguments...]\n"
            "Options:\n"
            " -s <socket>:\t\tSet the unix domain socket to connect to\n"
            " -t <timeout>:\t\tSet the timeout (in seconds) for a command to complete\n"
            " -S:\t\t\tUse simplified output (for scripts)\n"
            " -v:\t\t\tMore verbose output\n"
            "\n"
            "Commands:\n"
            " - list [<path>]\t\t\tList objects\n"
            " - call <path> <method> [<message>]\tCall an object method\n"
            " - send <type> [<message>]\t\tSend an event\n"
            "\n",
            program);
    return 1;
}

// A failed call: unless the output is simplified, a script (standard error not a terminal) gets
// the command line and the negated status, a terminal the status and, later, the short line.
int call_error(const cli_options &options, int argc, char **argv, int status) {
    if (options.simple_output || isatty(STDERR_FILENO)) {
        return status;
    }
    fprintf(stderr, "Command failed: ubus call ");
    for (int i = 0; i < argc; ++i) {
        fprintf(stderr, "%s ", argv[i]);
    }
    fprintf(stderr, "(%s)\n", bus_strerror(status).c_str());
    return -status;
}

// The message argument as the bus carries it: one JSON object, read as json-c reads it (text
// after the object is ignored). False when it is no object.
bool message_text(const char *argument, std::string &text) {
    json_ref parsed(json_tokener_parse(argument));
    if (!json_object_is_type(parsed.get(), json_type_object)) {
        return false;
    }
    text = json_object_to_json_string_ext(parsed.get(), JSON_C_TO_STRING_PLAIN);
    return true;
}

int run_list(const cli_options &options, int argc, char **argv) {
    if (argc > 1) {
        return CLI_WRONG_ARGUMENTS;
    }
    std::string reply;
    int status = bus_list(options.socket_path, argc == 1 ? argv[0] : "", options.timeout_ms, reply);
    if (status != BUS_STATUS_OK) {
        return status;
    }
    json_ref objects = parse_json_object(reply);
    if (!objects) {
        return BUS_STATUS_UNKNOWN_ERROR;
    }
    uint32_t id = 0;
    json_object_object_foreach(objects.get(), path, methods) {
        ++id;
        if (options.simple_output || options.verbose == 0) {
            printf("%s\n", path);
            continue;
        }
        printf("'%s' @%08x\n", path, id);
        json_object_object_foreach(methods, method, signature) {
            printf("\t\"%s\":%s\n", method,
                   json_object_to_json_string_ext(signature, JSON_C_TO_STRING_PLAIN));
        }
    }
    return BUS_STATUS_OK;
}

int run_call(const cli_options &options, int argc, char **argv) {
    if (argc < 2 || argc > 3) {
        return CLI_WRONG_ARGUMENTS;
    }
    std::string message;
    if (argc == 3 && !message_text(argv[2], message)) {
        return call_error(options, argc, argv, BUS_STATUS_PARSE_ERROR);
    }
    std::string reply;
    int status = bus_call(options.socket_path, argv[0], argv[1],
                          argc == 3 ? message.c_str() : nullptr, options.timeout_ms, reply);
    if (status == BUS_STATUS_NOT_FOUND) {
        return status;  // the object's lookup failed: the short line, whatever the output
    }
    if (status != BUS_STATUS_OK) {
        return call_error(options, argc, argv, status);
    }
    if (!reply.empty()) {
        printf("%s\n", options.simple_output ? reply.c_str() : format_json_indented(reply).c_str());
    }
    return BUS_STATUS_OK;
}

int run_send(const cli_options &options, int argc, char **argv) {
    if (argc < 1 || argc > 2) {
        return CLI_WRONG_ARGUMENTS;
    }
    std::string message;
    if (argc == 2 && !message_text(argv[1], message)) {
        return BUS_STATUS_PARSE_ERROR;
    }
    return bus_send(options.socket_path, argv[0], argc == 2 ? message.c_str() : nullptr,
                    options.timeout_ms);
}

using command_fn = int (*)(const cli_options &options, int argc, char **argv);

struct cli_command {
    const char *name;
    command_fn run;
};

constexpr cli_command commands[] = {
    {"list", run_list},
    {"call", run_call},
    {"send", run_send},
};

}  // namespace

// Works on the text rather than on a parsed value: a reply may hold the same member name twice
// (the radio table's columns), which a parsed object would fold into one.
std::string format_json_indented(const std::string &json) {
    std::string out;
    out.reserve(json.size() * 2);
    int level = 0;
    bool in_string = false;
    bool escaped = false;
    for (char c : json) {
        if (in_string) {
            out.push_back(c);
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                in_string = false;
            }
            continue;
        }
        switch (c) {
            case '"':
                in_string = true;
                out.push_back(c);
                break;
            case '{':
            case '[':
                out.push_back(c);
                new_line(out, ++level);
                break;
            case '}':
            case ']':
                new_line(out, --level);
                out.push_back(c);
                break;
            case ',':
                out.push_back(c);
                new_line(out, level);
                break;
            case ':':
                out.append(": ");
                break;
            case ' ':
            case '\t':
            case '\r':
            case '\n':
                break;
            default:
                out.push_back(c);
        }
    }
    return out;
}

int tarn_bus_main(int argc, char **argv) {
    const char *program = argc > 0 ? argv[0] : "tarn-bus";
    cli_options options;
    optind = 0;  // 0, not 1: glibc then forgets the state of an earlier parse (the unit tests)
    int option;
    while ((option = getopt(argc, argv, "vs:t:S")) != -1) {
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
            case 'v':
                ++options.verbose;
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
    if (!bus_reachable(options.socket_path, options.timeout_ms)) {
        if (!options.simple_output) {
            fprintf(stderr, "Failed to connect to ubus\n");
        }
        return CLI_NO_BUS;
    }
    int status = CLI_WRONG_ARGUMENTS;
    for (const cli_command &command : commands) {
        if (strcmp(command.name, argv[0]) == 0) {
            status = command.run(options, argc - 1, argv + 1);
            break;
        }
    }
    if (status > 0 && !options.simple_output) {
        fprintf(stderr, "Command failed: %s\n", bus_strerror(status).c_str());
    } else if (status == CLI_WRONG_ARGUMENTS) {
        usage(program);
    }
    return status;
}
