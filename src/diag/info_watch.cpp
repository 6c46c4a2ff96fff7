#include "diag/info_watch.h"

#include <algorithm>

#include "diag/info_json.h"
#include "diag/info_text.h"

namespace {

const info_neighbor *find_mac(const std::vector<info_neighbor> &list, const mac_addr &mac) {
    auto found = std::find_if(list.begin(), list.end(),
                              [&](const info_neighbor &n) { return n.info.mac == mac; });
    return found == list.end() ? nullptr : &*found;
}

size_t learned_count(const std::vector<info_neighbor> &list) {
    return static_cast<size_t>(
        std::count_if(list.begin(), list.end(), [](const info_neighbor &n) { return n.learned; }));
}

bool still_learned(const std::vector<info_neighbor> &after, const info_neighbor &n) {
    const info_neighbor *now = find_mac(after, n.info.mac);
    return now != nullptr && now->learned;
}

const char *removal_reason(const std::vector<info_neighbor> &before,
                           const std::vector<info_neighbor> &after, const info_neighbor &gone) {
    if (!gone.learned) {
        return "unpinned";
    }
    size_t before_learned = learned_count(before);
    bool none_left = std::none_of(before.begin(), before.end(), [&](const info_neighbor &n) {
        return n.learned && still_learned(after, n);
    });
    if (before_learned >= 2 && none_left) {
        return "table_emptied";
    }
    bool newcomer = std::any_of(after.begin(), after.end(), [&](const info_neighbor &n) {
        const info_neighbor *was = find_mac(before, n.info.mac);
        return n.learned && (was == nullptr || !was->learned);
    });
    if (before_learned >= INFO_TABLE_MIN_LIMIT && learned_count(after) == before_learned &&
        newcomer) {
        return "replaced";
    }
    return "dropped";
}

void event_head(const char *event, long long time, const mac_addr &mac, info_string &out) {
    out += "{\"event\":\"";
    out += event;
    out += "\",\"time\":" + info_number(time) + ",\"mac\":\"" + info_mac_text(mac) + "\"";
}

void event_tail(const info_json_members &neighbor, info_string &out) {
    out += ",\"neighbor\":";
    info_json_object(neighbor, out);
    out += "}\n";
}

const info_string *member(const info_json_members &members, const char *key) {
    for (const auto &m : members) {
        if (std::string_view(m.first) == key) {
            return &m.second;
        }
    }
    return nullptr;
}

// Keys whose values differ, in the order of the newer members, then keys the newer one lacks.
std::vector<const char *> changed_fields(const info_json_members &old_members,
                                         const info_json_members &new_members) {
    std::vector<const char *> fields;
    for (const auto &m : new_members) {
        const info_string *old_value = member(old_members, m.first);
        if (old_value == nullptr || *old_value != m.second) {
            fields.push_back(m.first);
        }
    }
    for (const auto &m : old_members) {
        if (member(new_members, m.first) == nullptr) {
            fields.push_back(m.first);
        }
    }
    return fields;
}

}  // namespace

void info_watch_changes(const std::vector<info_neighbor> &before,
                        const std::vector<info_neighbor> &after, long long time, info_string &out) {
    for (const info_neighbor &old : before) {
        if (find_mac(after, old.info.mac) == nullptr) {
            event_head("removed", time, old.info.mac, out);
            out += ",\"reason\":\"";
            out += removal_reason(before, after, old);
            out += '"';
            event_tail(info_json_fields(old), out);
        }
    }
    for (const info_neighbor &now : after) {
        const info_neighbor *old = find_mac(before, now.info.mac);
        info_json_members now_members = info_json_fields(now);
        if (old == nullptr) {
            event_head("added", time, now.info.mac, out);
            event_tail(now_members, out);
            continue;
        }
        std::vector<const char *> fields = changed_fields(info_json_fields(*old), now_members);
        if (fields.empty()) {
            continue;
        }
        event_head("changed", time, now.info.mac, out);
        out += ",\"fields\":[";
        for (size_t i = 0; i < fields.size(); ++i) {
            out += i > 0 ? ",\"" : "\"";
            out += fields[i];
            out += '"';
        }
        out += ']';
        event_tail(now_members, out);
    }
}

void info_watch_daemon(bool up, long long time, info_string &out) {
    out += up ? "{\"event\":\"daemon_up\",\"time\":" : "{\"event\":\"daemon_down\",\"time\":";
    out += info_number(time) + "}\n";
}
