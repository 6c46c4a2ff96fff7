// Feeds arbitrary connection bytes to the embedded bus: the frame collector (byte 0 of the
// input sets the size of the pieces the bytes arrive in), the request decoder and the object
// "tarn" with its method arguments and its reload event. Checks that pieces of any size give
// the same frame, that a decoded request encodes back to its payload, that every status is one
// the bus or a handler gives, that a reply is one JSON object, and that the static list never
// holds more than 8 nodes. "show" and "show_neighbor" read no arguments and run a command per
// call; they are left out.
#include <mutex>
#include <string>
#include <vector>

#include "core/settings.h"
#include "devbus/bus_server.h"
#include "devbus/bus_status.h"
#include "devbus/bus_wire.h"
#include "fuzz_invariants.h"
#include "static/static_store.h"
#include "ubus/tarn_object.h"

namespace {

std::vector<method_entry> argument_methods() {
    std::vector<method_entry> methods;
    for (const method_entry &m : tarn_methods) {
        if (std::strncmp(m.name, "show", 4) != 0) {
            methods.push_back(m);
        }
    }
    return methods;
}

const std::vector<method_entry> methods = argument_methods();
const bus_event_listener listeners[] = {{RELOAD_EVENT_TYPE, ubus_reload_event}};
const bus_service service = {TARN_OBJECT_NAME, methods.data(), methods.size(), listeners, 1};

frame_collector collect(std::string_view bytes, size_t piece) {
    frame_collector frame(BUS_REQUEST_MAX);
    size_t taken = 0;
    while (!bytes.empty() && frame.status() == frame_collector::COLLECTING) {
        std::string_view part = bytes.substr(0, piece);
        size_t used = frame.feed(part);
        FUZZ_CHECK(used <= part.size());
        FUZZ_CHECK(used == part.size() || frame.status() != frame_collector::COLLECTING);
        taken += used;
        bytes.remove_prefix(part.size());
    }
    if (frame.status() == frame_collector::COMPLETE) {
        FUZZ_CHECK(taken == 4 + frame.payload().size());
    }
    return frame;
}

void check_round_trip(const std::string &payload) {
    bus_request request;
    if (!decode_request(payload, request)) {
        return;
    }
    std::string again;
    if (request.kind == "call") {
        again = encode_call(request.name, request.method, request.json);
    } else if (request.kind == "list") {
        again = encode_list(request.name);
    } else {
        again = encode_send(request.name, request.json);
    }
    FUZZ_CHECK(again == payload);
}

void check_dispatch(const std::string &payload) {
    std::string reply;
    int status = bus_dispatch(service, payload, reply);
    tarn_debug = 0;  // a debug_set must not turn logging on for the inputs after it
    FUZZ_CHECK(status >= METHOD_PARSE_FAILED && status <= BUS_STATUS_NOT_FOUND);
    if (!reply.empty()) {
        FUZZ_CHECK(status == BUS_STATUS_OK && parse_json_object(reply));
    }
    std::lock_guard<std::mutex> guard(stngbr_lock);
    FUZZ_CHECK(static_member_list.count >= 0 && static_member_list.count <= STATIC_NGBR_MAX);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    private_daemon_dirs();
    standin_command("getmode", "STANDALONE");
    sock_send_nbcp = -1;  // probes of the static update pass go nowhere
    sock6_nbcp = -1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) {
        return 0;
    }
    size_t piece = data[0] == 0 ? 1 : data[0];
    std::string_view bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
    frame_collector whole = collect(bytes, bytes.size() + 1);
    frame_collector pieces = collect(bytes, piece);
    FUZZ_CHECK(whole.status() == pieces.status() && whole.payload() == pieces.payload());
    if (whole.status() == frame_collector::COMPLETE) {
        check_round_trip(whole.payload());
        check_dispatch(whole.payload());
    }
    return 0;
}
