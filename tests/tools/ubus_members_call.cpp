// Development tool of the real-bus tests: calls a method with a blobmsg message built member by
// member, so a test can send what the ubus command cannot: a repeated name, a member without a
// name, a member of any type. Linked against libubus; never installed.
//
//   ubus_members_call OBJECT METHOD [TYPE:NAME=VALUE...]
//       TYPE s (string) or i (int32); NAME may be empty
//
// Prints the reply's JSON text when there is one, then a line "status N" with the call's status.
extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool add_member(blob_buf *buf, const char *spec) {
    const char *colon = strchr(spec, ':');
    const char *equals = colon != nullptr ? strchr(colon, '=') : nullptr;
    if (colon != spec + 1 || equals == nullptr) {
        return false;
    }
    std::string name(colon + 1, equals);
    const char *value = equals + 1;
    switch (spec[0]) {
        case 's':
            return blobmsg_add_string(buf, name.c_str(), value) == 0;
        case 'i':
            return blobmsg_add_u32(buf, name.c_str(),
                                   static_cast<uint32_t>(strtol(value, nullptr, 0))) == 0;
        default:
            return false;
    }
}

void print_reply(ubus_request * /*req*/, int /*type*/, blob_attr *msg) {
    char *text = msg != nullptr ? blobmsg_format_json(msg, true) : nullptr;
    if (text != nullptr) {
        printf("%s\n", text);
        free(text);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s OBJECT METHOD [TYPE:NAME=VALUE...]\n", argv[0]);
        return 2;
    }
    blob_buf message = {};
    blob_buf_init(&message, 0);
    for (int i = 3; i < argc; ++i) {
        if (!add_member(&message, argv[i])) {
            fprintf(stderr, "bad member %s\n", argv[i]);
            return 2;
        }
    }
    ubus_context *ctx = ubus_connect(nullptr);
    uint32_t id = 0;
    if (ctx == nullptr || ubus_lookup_id(ctx, argv[1], &id) != 0) {
        fprintf(stderr, "no object %s on the bus\n", argv[1]);
        return 1;
    }
    int status = ubus_invoke(ctx, id, argv[2], message.head, print_reply, nullptr, 10000);
    printf("status %d\n", status);
    blob_buf_free(&message);
    ubus_free(ctx);
    return 0;
}
