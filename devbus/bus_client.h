// The client side of the embedded bus, as used by the tarn-bus command.
#pragma once

#include <string>

// How long a client waits for its reply unless told otherwise; "show" alone may take 15 s.
constexpr int BUS_CLIENT_TIMEOUT_MS = 30000;

// Calls method of object with the JSON object text args (null: no arguments). Returns the bus
// status (a method's own non-zero status included); reply_json gets the reply's JSON text,
// empty when there is none.
int bus_call(const char *socket_path, const char *object, const char *method, const char *args,
             int timeout_ms, std::string &reply_json);

// True when a connection to the bus can be made within timeout_ms (the ubus command connects
// before it looks at its command).
bool bus_reachable(const char *socket_path, int timeout_ms);

// Lists the objects whose name is path (every object when path is empty): reply_json gets
// {object: {method: {argument: type name}}}. BUS_STATUS_NOT_FOUND when none matches.
int bus_list(const char *socket_path, const char *path, int timeout_ms, std::string &reply_json);

// Sends the event type with the JSON object text message (null: an empty object).
int bus_send(const char *socket_path, const char *type, const char *message, int timeout_ms);

// Re-indents a compact JSON text the way `ubus call` prints a reply: a line per member or
// element, one tab per level, ": " after a name, empty containers on two lines.
std::string format_json_indented(const std::string &json);

// The tarn-bus command line: [-s socket] [-t seconds] [-S] [-v] list [PATH] | call OBJECT METHOD
// [JSON] | send TYPE [JSON]. Prints as the ubus command does and returns its exit status.
int tarn_bus_main(int argc, char **argv);
