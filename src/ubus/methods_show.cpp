#include <cstdlib>
#include <memory>

#include "ubus/methods.h"
#include "ubus/show_table.h"

namespace {

struct free_deleter {
    void operator()(void *block) const { free(block); }
};

int show_through(const char *command, json_ref &reply) {
    // 80 KiB: taken from the heap, not from the bus thread's stack.
    std::unique_ptr<show_text_table, free_deleter> table(
        static_cast<show_text_table *>(calloc(1, sizeof(show_text_table))));
    return show_cmd_reply(command, table.get(), reply);
}

}  // namespace

int ubus_show(const char * /*method*/, json_object * /*request*/, json_ref &reply) {
    return show_through("tarn show ubus", reply);
}

int ubus_show_neighbor(const char * /*method*/, json_object * /*request*/, json_ref &reply) {
    return show_through("tarn show neighbor", reply);
}
