// Link-time stand-ins (the linker's --wrap, set in fuzz/CMakeLists.txt) for the two things that
// make a fuzz input slow and that no parser depends on: a shell started for every platform
// command (popen, system) and a disk flush for every save (fsync). With them the targets that
// edit the static list run thousands of inputs a second instead of tens.
//
// The daemon runs its platform commands by name, found on PATH; a command line whose first
// word holds a slash (libFuzzer starts its own binary that way for -fork, -jobs and merges) goes
// to the real function.
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "fuzz_invariants.h"

extern "C" FILE *__real_popen(const char *command, const char *mode);
extern "C" int __real_pclose(FILE *stream);
extern "C" int __real_system(const char *command);

namespace {

std::mutex outputs_lock;

// Streams handed out for stand-in commands, which pclose closes as plain files.
std::set<FILE *> &standin_streams() {
    static auto *streams = new std::set<FILE *>();
    return *streams;
}

std::string first_word(const char *command) {
    const char *start = command + std::strspn(command, " \t");
    return std::string(start, std::strcspn(start, " \t;|"));
}

bool platform_command(const char *command) {
    return first_word(command).find('/') == std::string::npos;
}

std::map<std::string, std::string> &command_outputs() {
    static auto *outputs = new std::map<std::string, std::string>();
    return *outputs;
}

}  // namespace

void standin_command(const char *name, const char *output) {
    std::lock_guard<std::mutex> guard(outputs_lock);
    command_outputs()[name] = std::string(output) + "\n";  // as the platform's command prints it
}

// A command is known by its first word; one without a stand-in prints nothing.
extern "C" FILE *__wrap_popen(const char *command, const char *mode) {
    if (!platform_command(command)) {
        return __real_popen(command, mode);
    }
    std::lock_guard<std::mutex> guard(outputs_lock);
    const auto found = command_outputs().find(first_word(command));
    FILE *stream = nullptr;
    if (found == command_outputs().end()) {
        stream = std::fopen("/dev/null", "r");
    } else {
        std::string &output = found->second;
        stream = fmemopen(output.data(), output.size(), "r");
    }
    if (stream != nullptr) {
        standin_streams().insert(stream);
    }
    return stream;
}

extern "C" int __wrap_pclose(FILE *stream) {
    {
        std::lock_guard<std::mutex> guard(outputs_lock);
        if (standin_streams().erase(stream) == 0) {
            return __real_pclose(stream);
        }
    }
    return std::fclose(stream) == 0 ? 0 : -1;  // the command "exited" with status 0
}

extern "C" int __wrap_system(const char *command) {
    if (command == nullptr) {
        return 1;  // a shell is "available"
    }
    return platform_command(command) ? 0 : __real_system(command);  // every command succeeds
}

extern "C" int __wrap_fsync(int /*fd*/) {
    return 0;
}
