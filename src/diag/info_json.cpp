#include "diag/info_json.h"

#include <algorithm>

#include "diag/info_text.h"

namespace {

info_string text_value(std::string_view raw) {
    info_string clean;
    info_utf8_clean(raw, clean);
    info_string value;
    info_json_string(clean, value);
    return value;
}

// An address text needs no cleaning: it is made here, not received.
info_string address_value(const info_string &text) {
    return text.empty() ? "null" : "\"" + text + "\"";
}

info_string bool_value(bool value) {
    return value ? "true" : "false";
}

info_string cluster_value(const ap_info &info) {
    return "{\"flag\":" + info_number(info.cluster_flag) +
           ",\"id\":" + info_number(info.cluster_id) +
           ",\"pvc_ip\":" + address_value(info_ipv4_text(info.pvc_ip)) + ",\"pvc_mac\":\"" +
           info_mac_text(info.pvc_mac) + "\"}";
}

info_string radios_value(const ap_info &info) {
    info_string value = "[";
    int carried = std::min<int>(info.radiocnt, AP_RADIO_MAX);
    for (int i = 0; i < carried; ++i) {
        const radio_info &r = info.radio[i];
        if (i > 0) {
            value += ',';
        }
        value += "{\"index\":" + info_number(i) + ",\"radioid\":" + info_number(r.radioid) +
                 ",\"channel\":" + info_number(r.channel) +
                 ",\"bandwidth\":" + info_number(r.bandwidth) + ",\"rssi\":" + info_number(r.rssi) +
                 ",\"txpower\":" + info_number(r.txpower) + "}";
    }
    return value + "]";
}

}  // namespace

info_json_members info_json_fields(const info_neighbor &neighbor) {
    const ap_info &info = neighbor.info;
    info_json_members m;
    m.reserve(18);
    m.emplace_back("mac", "\"" + info_mac_text(info.mac) + "\"");
    m.emplace_back("learned", bool_value(neighbor.learned));
    m.emplace_back("static", bool_value(neighbor.is_static));
    m.emplace_back("state", info_number(info.state));
    m.emplace_back("state_name", info_string("\"") + info_state_name(info.state) + "\"");
    if (neighbor.learned && neighbor.is_static) {
        m.emplace_back("static_state", info_number(neighbor.static_state));
        m.emplace_back("static_state_name",
                       info_string("\"") + info_state_name(neighbor.static_state) + "\"");
    }
    m.emplace_back("answered", bool_value(info_answered(info)));
    m.emplace_back("name", text_value(info_field(info.name)));
    m.emplace_back("version", text_value(info_field(info.version)));
    m.emplace_back("tenant", text_value(info_field(info.tenantId)));
    m.emplace_back("ip", address_value(info_ipv4_text(info.ip)));
    m.emplace_back("ip6", address_value(info_ipv6_text(info.ip6)));
    m.emplace_back("qv_ip", address_value(info_ipv4_text(info.qv_ip)));
    m.emplace_back("cluster", cluster_value(info));
    m.emplace_back("radio_count", info_number(info.radiocnt));
    m.emplace_back("radios", radios_value(info));
    return m;
}

void info_json_object(const info_json_members &members, info_string &out) {
    out += '{';
    for (size_t i = 0; i < members.size(); ++i) {
        if (i > 0) {
            out += ',';
        }
        out += '"';
        out += members[i].first;
        out += "\":";
        out += members[i].second;
    }
    out += '}';
}

info_string info_json_document(const std::vector<info_neighbor> &neighbors) {
    info_string out = "{\"schema\":" + info_number(INFO_SCHEMA_VERSION) + ",\"neighbors\":[";
    for (size_t i = 0; i < neighbors.size(); ++i) {
        if (i > 0) {
            out += ',';
        }
        info_json_object(info_json_fields(neighbors[i]), out);
    }
    out += "]}\n";
    return out;
}
