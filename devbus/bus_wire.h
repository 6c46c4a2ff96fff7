// Framing and messages of the embedded bus.
//
// A connection carries one request and its reply over an AF_UNIX stream socket. Each is one
// frame: a 4-byte length in network byte order, then that many bytes of payload.
//   request payload: "call" NUL object NUL method NUL json   or   "send" NUL type NUL json
//                    or   "list" NUL path NUL   (an empty path lists every object)
//   reply payload:   4-byte status (int32, network byte order), then the reply's JSON text
//                    (empty when the method sent no reply)
// The JSON texts are objects. Frames longer than the limits below are refused unread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "ubus/json_ref.h"

constexpr size_t BUS_REQUEST_MAX = 64 * 1024;
// A show reply of 127 lines of 20 escaped words stays well below this.
constexpr size_t BUS_REPLY_MAX = 4 * 1024 * 1024;

enum wire_result : int {
    WIRE_OK = 0,
    WIRE_CLOSED = -1,     // the peer closed (or reset) the connection
    WIRE_TIMEOUT = -2,    // the deadline passed
    WIRE_TOO_LARGE = -3,  // the announced length exceeds the limit
    WIRE_ERROR = -4,      // any other socket error
};

// Milliseconds on the monotonic clock.
int64_t wire_now_ms();

// The frame of a payload of at most UINT32_MAX bytes: its length, then the payload.
std::string wire_frame(std::string_view payload);

// Writes one frame to a non-blocking socket before deadline_ms (monotonic).
int wire_write_frame(int fd, std::string_view payload, int64_t deadline_ms);

// Reads one frame of at most max bytes from a non-blocking socket before deadline_ms.
int wire_read_frame(int fd, size_t max, std::string &payload, int64_t deadline_ms);

// Collects one frame from a connection's bytes as they arrive, in pieces of any size; the
// server keeps one per connection, so no connection waits for another's bytes.
class frame_collector {
  public:
    enum state : int { COLLECTING = 1, COMPLETE = WIRE_OK, TOO_LARGE = WIRE_TOO_LARGE };

    explicit frame_collector(size_t max) : max_(max) {}
    // Takes bytes up to the end of the frame; returns how many were taken (bytes after a
    // complete or refused frame are left).
    size_t feed(std::string_view bytes);
    state status() const { return state_; }
    // The frame's payload, once status() is COMPLETE.
    const std::string &payload() const { return payload_; }

  private:
    size_t max_;
    state state_ = COLLECTING;
    std::string header_;
    std::string payload_;
    size_t length_ = 0;
};

struct bus_request {
    std::string kind;  // "call", "send" or "list"
    std::string name;  // object of a call, event type of a send, path of a list
    std::string method;
    std::string json;
};

std::string encode_call(std::string_view object, std::string_view method, std::string_view json);
std::string encode_send(std::string_view type, std::string_view json);
std::string encode_list(std::string_view path);
// False when the payload is not a request of a known kind with all its fields.
bool decode_request(std::string_view payload, bus_request &request);

std::string encode_reply(int32_t status, std::string_view json);
// False when the payload is too short to hold a status.
bool decode_reply(std::string_view payload, int32_t &status, std::string &json);

// Parses text that must be exactly one JSON object (surrounding white space allowed); null
// otherwise.
json_ref parse_json_object(std::string_view text);
