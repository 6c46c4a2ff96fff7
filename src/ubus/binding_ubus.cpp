// The bus service on the platform's ubus: converts each request between blobmsg and the JSON
// values of the method layer, which does all the work.
extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

#include <json-c/json.h>
#include <pthread.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ubus/tarn_object.h"
#include "ubus/ubus_service.h"
#include "util/log.h"

namespace {

constexpr size_t POLICY_MAX = 3;  // the longest method policy ("mac", "ip", "ip6")

ubus_context *ubus_ctx = nullptr;
blob_buf b;  // the reply buffer; handlers run one at a time on the loop's thread
ubus_event_handler event_handler;

blobmsg_policy tarn_policies[TARN_METHOD_COUNT][POLICY_MAX];
ubus_method tarn_ubus_methods[TARN_METHOD_COUNT];
ubus_object_type tarn_object_type;
ubus_object tarn_object;

enum blobmsg_type blobmsg_type_of(arg_type type) {
    switch (type) {
        case arg_type::array:
            return BLOBMSG_TYPE_ARRAY;
        case arg_type::table:
            return BLOBMSG_TYPE_TABLE;
        case arg_type::string:
            return BLOBMSG_TYPE_STRING;
        case arg_type::int32:
            return BLOBMSG_TYPE_INT32;
    }
    return BLOBMSG_TYPE_UNSPEC;
}

// The request as a JSON object, or null when a member is malformed or the text cannot be made.
// Every libubox version reads an empty request the same way here ({}), whereas newer ones refuse
// it in blobmsg_parse.
json_ref request_json(blob_attr *msg) {
    if (msg == nullptr) {
        return nullptr;
    }
    blob_attr *member;
    size_t rem;
    blob_for_each_attr(member, msg, rem) {
        if (!blobmsg_check_attr(member, true)) {
            return nullptr;
        }
    }
    char *text = blobmsg_format_json(msg, true);
    if (text == nullptr) {
        return nullptr;
    }
    json_ref value(json_tokener_parse(text));
    free(text);
    if (!json_object_is_type(value.get(), json_type_object)) {
        return nullptr;
    }
    return value;
}

bool add_json_value(blob_buf *buf, const char *name, json_object *value);

bool add_json_members(blob_buf *buf, json_object *table) {
    // The iterator visits every member, a repeated name (the radio table's columns) included.
    json_object_iterator it = json_object_iter_begin(table);
    json_object_iterator end = json_object_iter_end(table);
    for (; !json_object_iter_equal(&it, &end); json_object_iter_next(&it)) {
        if (!add_json_value(buf, json_object_iter_peek_name(&it),
                            json_object_iter_peek_value(&it))) {
            return false;
        }
    }
    return true;
}

bool add_json_elements(blob_buf *buf, json_object *array) {
    size_t count = json_object_array_length(array);
    for (size_t i = 0; i < count; ++i) {
        if (!add_json_value(buf, nullptr, json_object_array_get_idx(array, i))) {
            return false;
        }
    }
    return true;
}

bool add_json_value(blob_buf *buf, const char *name, json_object *value) {
    switch (json_object_get_type(value)) {
        case json_type_object: {
            void *cookie = blobmsg_open_table(buf, name);
            if (cookie == nullptr) {
                return false;
            }
            bool added = add_json_members(buf, value);
            blobmsg_close_table(buf, cookie);
            return added;
        }
        case json_type_array: {
            void *cookie = blobmsg_open_array(buf, name);
            if (cookie == nullptr) {
                return false;
            }
            bool added = add_json_elements(buf, value);
            blobmsg_close_array(buf, cookie);
            return added;
        }
        case json_type_string:
            return blobmsg_add_string(buf, name, json_object_get_string(value)) == 0;
        case json_type_int:
            return blobmsg_add_u32(buf, name, static_cast<uint32_t>(json_object_get_int(value))) ==
                   0;
        case json_type_boolean:
            return blobmsg_add_u8(buf, name, json_object_get_boolean(value) ? 1 : 0) == 0;
        case json_type_null:
            return blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0) == 0;
        default:
            return false;  // the replies hold no other kind of value
    }
}

void send_json_reply(ubus_context *ctx, ubus_request_data *req, json_object *reply) {
    blob_buf_init(&b, 0);
    if (add_json_members(&b, reply)) {
        ubus_send_reply(ctx, req, b.head);
    } else {
        TARN_ERR("%s: reply does not fit the bus\n", "send_json_reply");
    }
    blob_buf_free(&b);
}

int tarn_method_handler(ubus_context *ctx, ubus_object * /*obj*/, ubus_request_data *req,
                        const char *method, blob_attr *msg) {
    const method_entry *entry = find_method(tarn_methods, TARN_METHOD_COUNT, method);
    if (entry == nullptr) {
        return UBUS_STATUS_METHOD_NOT_FOUND;
    }
    json_ref request = request_json(msg);
    json_ref reply;
    int status = entry->handler(entry->name, request.get(), reply);
    if (status == 0 && reply) {
        send_json_reply(ctx, req, reply.get());
    }
    return status;
}

void reload_event_callback(ubus_context * /*ctx*/, ubus_event_handler * /*ev*/, const char *type,
                           blob_attr *msg) {
    if (msg == nullptr) {
        return;
    }
    json_ref message = request_json(msg);
    ubus_reload_event(type, message.get());
}

void build_tarn_object() {
    for (size_t i = 0; i < TARN_METHOD_COUNT; ++i) {
        const method_entry &entry = tarn_methods[i];
        size_t policies = entry.policy_count < POLICY_MAX ? entry.policy_count : POLICY_MAX;
        for (size_t j = 0; j < policies; ++j) {
            tarn_policies[i][j].name = entry.policy[j].name;
            tarn_policies[i][j].type = blobmsg_type_of(entry.policy[j].type);
        }
        ubus_method &method = tarn_ubus_methods[i];
        memset(&method, 0, sizeof method);
        method.name = entry.name;
        method.handler = tarn_method_handler;
        method.policy = policies > 0 ? tarn_policies[i] : nullptr;
        method.n_policy = static_cast<int>(policies);
    }
    memset(&tarn_object_type, 0, sizeof tarn_object_type);
    tarn_object_type.name = TARN_OBJECT_NAME;
    tarn_object_type.id = 0;
    tarn_object_type.methods = tarn_ubus_methods;
    tarn_object_type.n_methods = static_cast<int>(TARN_METHOD_COUNT);

    memset(&tarn_object, 0, sizeof tarn_object);
    tarn_object.name = TARN_OBJECT_NAME;
    tarn_object.type = &tarn_object_type;
    tarn_object.methods = tarn_ubus_methods;
    tarn_object.n_methods = static_cast<int>(TARN_METHOD_COUNT);
}

}  // namespace

int ubus_init() {
    uloop_init();
    ubus_ctx = ubus_connect(nullptr);
    if (ubus_ctx == nullptr) {
        TARN_ERR("%s: Ubus connect faild!\n", "ubus_init");
        return -1;
    }
    ubus_add_uloop(ubus_ctx);

    build_tarn_object();
    if (ubus_add_object(ubus_ctx, &tarn_object) != 0) {
        TARN_ERR("%s: Failed to add ubus object.\n", "ubus_init");
        return -1;
    }
    memset(&event_handler, 0, sizeof event_handler);
    event_handler.cb = reload_event_callback;
    if (ubus_register_event_handler(ubus_ctx, &event_handler, RELOAD_EVENT_TYPE) != 0) {
        TARN_ERR("%s: Failed to register ubus event handler\n", "ubus_init");
        return -1;
    }
    return 0;
}

void ubus_loop_run() {
    TARN_DBG("ubus init success, uloop run.\n");
    // Start-up blocks SIGINT and SIGTERM in every thread; uloop ends on them through its own
    // handlers, so this thread alone takes them again.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
    uloop_run();
}

void ubus_teardown() {
    if (ubus_ctx != nullptr) {
        ubus_free(ubus_ctx);
    }
    ubus_ctx = nullptr;
    TARN_DBG("ubus free success.\n");
    uloop_done();
}
