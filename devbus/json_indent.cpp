#include <string>

#include "devbus/bus_client.h"

namespace {

void new_line(std::string &out, int level) {
    out.push_back('\n');
    out.append(static_cast<size_t>(level < 0 ? 0 : level), '\t');
}

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
