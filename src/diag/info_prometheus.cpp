#include "diag/info_prometheus.h"

#include <algorithm>
#include <array>

#include "diag/info_text.h"

namespace {

struct label {
    const char *name;
    info_string value;  // already cleaned, not yet escaped
};

void header(info_string &out, const char *name, const char *help) {
    out += "# HELP ";
    out += name;
    out += ' ';
    out += help;
    out += "\n# TYPE ";
    out += name;
    out += " gauge\n";
}

void sample(info_string &out, const char *name, const std::vector<label> &labels, long value) {
    out += name;
    if (!labels.empty()) {
        out += '{';
        for (size_t i = 0; i < labels.size(); ++i) {
            out += i > 0 ? "," : "";
            out += labels[i].name;
            out += "=\"";
            info_prom_label(labels[i].value, out);
            out += '"';
        }
        out += '}';
    }
    out += ' ';
    out += info_number(value);
    out += '\n';
}

info_string clean(std::string_view raw) {
    info_string text;
    info_utf8_clean(raw, text);
    return text;
}

const char *flag(bool value) {
    return value ? "true" : "false";
}

// A MAC listed twice would make duplicate series, which fail the whole scrape: the first wins.
std::vector<const info_neighbor *> unique_by_mac(const std::vector<info_neighbor> &neighbors) {
    std::vector<const info_neighbor *> unique;
    for (const info_neighbor &n : neighbors) {
        bool seen = std::any_of(unique.begin(), unique.end(),
                                [&](const info_neighbor *u) { return u->info.mac == n.info.mac; });
        if (!seen) {
            unique.push_back(&n);
        }
    }
    return unique;
}

void info_series(info_string &out, const std::vector<const info_neighbor *> &neighbors) {
    header(out, "tarn_neighbor_info", "A neighbor AP with its texts as labels; always 1.");
    for (const info_neighbor *n : neighbors) {
        const ap_info &i = n->info;
        sample(out, "tarn_neighbor_info",
               {{"mac", info_mac_text(i.mac)},
                {"name", clean(info_field(i.name))},
                {"version", clean(info_field(i.version))},
                {"tenant", clean(info_field(i.tenantId))},
                {"ip", info_ipv4_text(i.ip)},
                {"ip6", info_ipv6_text(i.ip6)},
                {"state", info_state_name(i.state)},
                {"learned", flag(n->learned)},
                {"static", flag(n->is_static)}},
               1);
    }
}

template <typename Value>
void per_neighbor(info_string &out, const char *name, const char *help,
                  const std::vector<const info_neighbor *> &neighbors, Value value) {
    header(out, name, help);
    for (const info_neighbor *n : neighbors) {
        sample(out, name, {{"mac", info_mac_text(n->info.mac)}}, value(*n));
    }
}

template <typename Field>
void per_radio(info_string &out, const char *name, const char *help,
               const std::vector<const info_neighbor *> &neighbors, Field field) {
    header(out, name, help);
    for (const info_neighbor *n : neighbors) {
        int carried = std::min<int>(n->info.radiocnt, AP_RADIO_MAX);
        for (int r = 0; r < carried; ++r) {
            const radio_info &radio = n->info.radio[r];
            sample(out, name,
                   {{"mac", info_mac_text(n->info.mac)},
                    {"radio", info_number(r)},
                    {"channel", info_number(radio.channel)}},
                   field(radio));
        }
    }
}

void counts(info_string &out, const std::vector<const info_neighbor *> &neighbors) {
    header(out, "tarn_neighbors", "Neighbors by state name.");
    constexpr std::array<uint8_t, 6> STATES = {0, 1, 2, 3, 4, 255};  // 255 stands for "unknown"
    for (uint8_t state : STATES) {
        const char *state_name = info_state_name(state);
        long count = std::count_if(neighbors.begin(), neighbors.end(), [&](const info_neighbor *n) {
            return std::string_view(info_state_name(n->info.state)) == state_name;
        });
        sample(out, "tarn_neighbors", {{"state", state_name}}, count);
    }
    header(out, "tarn_neighbors_learned", "Neighbors in the learned table.");
    sample(out, "tarn_neighbors_learned", {},
           std::count_if(neighbors.begin(), neighbors.end(),
                         [](const info_neighbor *n) { return n->learned; }));
    header(out, "tarn_neighbors_static", "Configured static neighbors.");
    sample(out, "tarn_neighbors_static", {},
           std::count_if(neighbors.begin(), neighbors.end(),
                         [](const info_neighbor *n) { return n->is_static; }));
}

}  // namespace

info_string info_prometheus_text(bool up, const std::vector<info_neighbor> &neighbors) {
    info_string out;
    header(out, "tarn_up", "1 when the tarn daemon answered the neighbor-table request.");
    sample(out, "tarn_up", {}, up ? 1 : 0);
    if (!up) {
        return out;
    }
    std::vector<const info_neighbor *> unique = unique_by_mac(neighbors);
    info_series(out, unique);
    per_neighbor(out, "tarn_neighbor_state",
                 "State number: 0 active, 1 offline, 2 wireless ageing, 3 static active, "
                 "4 static offline.",
                 unique, [](const info_neighbor &n) { return n.info.state; });
    per_neighbor(out, "tarn_neighbor_answered",
                 "1 when the neighbor answered a probe (it has a name or version).", unique,
                 [](const info_neighbor &n) { return info_answered(n.info) ? 1 : 0; });
    per_radio(out, "tarn_neighbor_radio_rssi",
              "RSSI of the neighbor's radio as the driver reports it.", unique,
              [](const radio_info &r) { return r.rssi; });
    per_radio(out, "tarn_neighbor_radio_txpower",
              "Transmit power the neighbor's radio announces, as the driver reports it.", unique,
              [](const radio_info &r) { return r.txpower; });
    per_radio(out, "tarn_neighbor_radio_bandwidth",
              "Channel bandwidth of the neighbor's radio (MHz figure as reported).", unique,
              [](const radio_info &r) { return r.bandwidth; });
    counts(out, unique);
    return out;
}
