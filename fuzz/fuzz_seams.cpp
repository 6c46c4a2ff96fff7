// Link-time stand-ins (the linker's --wrap, set in fuzz/CMakeLists.txt) for the two things that
// make a fuzz input slow and that no parser depends on: a shell started for every platform
// command (popen, system) and a disk flush for every save (fsync). With them the targets that
// edit the static list run thousands of inputs a second instead of tens.
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "fuzz_invariants.h"

namespace {

std::mutex outputs_lock;

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
extern "C" FILE *__wrap_popen(const char *command, const char * /*mode*/) {
    std::lock_guard<std::mutex> guard(outputs_lock);
    const auto found = command_outputs().find(std::string(command, std::strcspn(command, " \t;|")));
    if (found == command_outputs().end()) {
        return std::fopen("/dev/null", "r");
    }
    std::string &output = found->second;
    return fmemopen(output.data(), output.size(), "r");
}

extern "C" int __wrap_pclose(FILE *stream) {
    return std::fclose(stream) == 0 ? 0 : -1;  // the command "exited" with status 0
}

extern "C" int __wrap_system(const char *command) {
    return command == nullptr ? 1 : 0;  // a shell is "available", every command succeeds
}

extern "C" int __wrap_fsync(int /*fd*/) {
    return 0;
}
