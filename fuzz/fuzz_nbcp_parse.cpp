// Feeds arbitrary datagrams to nbcp_parse. Beyond memory safety (the sanitizers), it checks that
// decoded strings stay terminated and that a decoded probe or answer survives being encoded
// and decoded again. A round trip cannot see a field the decoder drops (the encoder then sends
// it empty, and it decodes empty again), so every run first decodes its seed answers and
// compares each field with what the datagram's bytes say.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_invariants.h"
#include "proto/nbcp.h"

namespace {

nbcp_msg &decode_area() {
    static nbcp_msg *msg = new nbcp_msg();
    return *msg;
}

nbcp_msg &second_area() {
    static nbcp_msg *msg = new nbcp_msg();
    return *msg;
}

// rec lies in a record cleared by nbcp_msg_reset, so its padding is zero like the second one.
void check_ndrp_round_trip(nbcp_ndrp &rec) {
    uint8_t out[NBCP_NDRP_LEN];
    FUZZ_CHECK(nbcp_build_ndrp(out, &rec) == NBCP_NDRP_LEN);
    nbcp_msg &again = second_area();
    nbcp_msg_reset(&again, out, sizeof out);
    FUZZ_CHECK(nbcp_decode(out, sizeof out, &again) == 1);
    FUZZ_CHECK(std::memcmp(&again.m.ndrp, &rec, sizeof rec) == 0);
}

void check_ndsp_round_trip(nbcp_ndsp &rec) {
    FUZZ_CHECK(terminated(rec.info.tenantId) && terminated(rec.info.version) &&
               terminated(rec.info.name));
    uint8_t out[NBCP_NDSP_MAX];
    uint32_t n = nbcp_build_ndsp(out, &rec);
    FUZZ_CHECK(n >= NBCP_NDSP_BASE_LEN && n <= NBCP_NDSP_MAX);
    nbcp_msg &again = second_area();
    nbcp_msg_reset(&again, out, n);
    FUZZ_CHECK(nbcp_decode(out, n, &again) == 1);
    const nbcp_ndsp &got = again.m.ndsp;
    FUZZ_CHECK(std::memcmp(&got.hdr, &rec.hdr, sizeof rec.hdr) == 0);
    FUZZ_CHECK(got.kind_flag == rec.kind_flag && got.mode == rec.mode && got.ip == rec.ip &&
               got.mac == rec.mac && got.pvc_ip == rec.pvc_ip && got.cluster_id == rec.cluster_id &&
               got.pvc_mac == rec.pvc_mac && got.cluster_flag == rec.cluster_flag);
    FUZZ_CHECK(same_carried_info(got.info, rec.info));
}

std::vector<uint8_t> from_hex(const char *hex) {
    std::vector<uint8_t> out;
    std::string digits;
    for (const char *p = hex; *p != '\0'; ++p) {
        if (*p != ' ') {
            digits += *p;
        }
    }
    for (size_t at = 0; at + 1 < digits.size(); at += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(at, 2), nullptr, 16)));
    }
    return out;
}

// Answers as they travel, element by element, and what each field must decode to.
struct answer_seed {
    const char *name;
    const char *hex;
    uint8_t kind_flag, mode;
    uint32_t ip;
    mac_addr mac;
    uint32_t info_ip;
    ip6_addr info_ip6;
    uint32_t qv_ip;
    uint8_t state;
    const char *tenant, *version, *ap_name;
    uint8_t radiocnt;
    radio_info radio[AP_RADIO_MAX];
    uint32_t pvc_ip, cluster_id;
    mac_addr pvc_mac;
    uint8_t cluster_flag;
};

const answer_seed ANSWER_SEEDS[] = {
    {"cluster head, one radio",
     "0000000B000000000000 0086000101 0087000103 00880004C0A8010A 00890006001122334455 "
     "009600040A000001 0097000400000007 0098000600AABBCCDDEE 0099000101 008A0004C0A8010A "
     "009C0010FD000000000000000000000000000001 009500040A000064 008B0006000000000000 "
     "008C000100 009A000174 008D0003312E32 008E00026170 008F000101 0091000100 0092000124 "
     "0093000114 0094000128 009B000150 0090000100 0000 ",
     1,
     3,
     0xC0A8010A,
     {0x00, 0x11, 0x22, 0x33, 0x44, 0x55},
     0xC0A8010A,
     {0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01},
     0x0A000064,
     0,
     "t",
     "1.2",
     "ap",
     1,
     {{0, 36, 20, 40, 80}},
     0x0A000001,
     7,
     {0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE},
     1},
    {"elements out of order, six radios of which four are kept, name cut to 31 characters",
     "0000000B000000000000008E00286E616D652D6F662D666F7274792D636861726163746572732D2D2D2D"
     "2D2D2D2D2D2D2D2D2D2D2D2D008C000104008F0001060091000101009200010B00930001150094000129"
     "009B00012800900001000091000102009200010C0093000116009400012A009B00012800900001000091"
     "000103009200010D0093000117009400012B009B00012800900001000091000104009200010E00930001"
     "18009400012C009B00012800900001000091000105009200010F0093000119009400012D009B00012800"
     "9000010000910001060092000110009300011A009400012E009B0001280090000100008D0009322E302E"
     "312D6C6162009A000874656E616E742D6100870001000000",
     0,
     0,
     0,
     {},
     0,
     {},
     0,
     4,
     "tenant-a",
     "2.0.1-lab",
     "name-of-forty-characters-------",
     6,
     {{1, 11, 21, 41, 40}, {2, 12, 22, 42, 40}, {3, 13, 23, 43, 40}, {4, 14, 24, 44, 40}},
     0,
     0,
     {},
     0},
};

template <typename T>
void check_field(const char *seed, const char *field, const T &got, const T &want) {
    if (!(got == want)) {
        std::fprintf(stderr, "seed \"%s\": field %s decoded wrong\n", seed, field);
        std::abort();
    }
}

void check_text(const char *seed, const char *field, const char *got, const char *want) {
    check_field(seed, field, std::string(got), std::string(want));
}

void check_answer_seed(const answer_seed &s) {
    std::vector<uint8_t> datagram = from_hex(s.hex);
    nbcp_msg &msg = second_area();
    nbcp_msg_reset(&msg, datagram.data(), datagram.size());
    check_field(s.name, "result", nbcp_decode(datagram.data(), datagram.size(), &msg), 1);
    check_field(s.name, "kind", static_cast<int>(msg.kind), static_cast<int>(NBCP_TYPE_NDSP));
    const nbcp_ndsp &got = msg.m.ndsp;
    check_field(s.name, "kind_flag", got.kind_flag, s.kind_flag);
    check_field(s.name, "mode", got.mode, s.mode);
    check_field(s.name, "ip", got.ip, s.ip);
    check_field(s.name, "mac", got.mac, s.mac);
    check_field(s.name, "info.ip", got.info.ip, s.info_ip);
    check_field(s.name, "info.ip6", got.info.ip6, s.info_ip6);
    check_field(s.name, "info.qv_ip", got.info.qv_ip, s.qv_ip);
    check_field(s.name, "info.mac", got.info.mac, mac_addr{});  // not carried in answers
    check_field(s.name, "info.state", got.info.state, s.state);
    check_text(s.name, "info.tenantId", got.info.tenantId, s.tenant);
    check_text(s.name, "info.version", got.info.version, s.version);
    check_text(s.name, "info.name", got.info.name, s.ap_name);
    check_field(s.name, "info.radiocnt", got.info.radiocnt, s.radiocnt);
    static const char *const RADIO_FIELDS[] = {"radioid", "channel", "txpower", "rssi",
                                               "bandwidth"};
    for (int r = 0; r < AP_RADIO_MAX; ++r) {
        const radio_info &x = got.info.radio[r];
        const radio_info &y = s.radio[r];
        const uint8_t got_fields[] = {x.radioid, x.channel, x.txpower, x.rssi, x.bandwidth};
        const uint8_t want_fields[] = {y.radioid, y.channel, y.txpower, y.rssi, y.bandwidth};
        for (int f = 0; f < 5; ++f) {
            std::string field = "info.radio[" + std::to_string(r) + "]." + RADIO_FIELDS[f];
            check_field(s.name, field.c_str(), got_fields[f], want_fields[f]);
        }
    }
    check_field(s.name, "pvc_ip", got.pvc_ip, s.pvc_ip);
    check_field(s.name, "cluster_id", got.cluster_id, s.cluster_id);
    check_field(s.name, "pvc_mac", got.pvc_mac, s.pvc_mac);
    check_field(s.name, "cluster_flag", got.cluster_flag, s.cluster_flag);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    quiet_stdout();
    for (const answer_seed &seed : ANSWER_SEEDS) {
        check_answer_seed(seed);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::unique_ptr<uint8_t[]> datagram = exact_copy(data, size);
    nbcp_msg &msg = decode_area();
    nbcp_msg_reset(&msg, datagram.get(), size);
    int known = nbcp_parse(datagram.get(), size, &msg);
    if (known == 0) {
        return 0;
    }
    if (msg.kind == NBCP_TYPE_NDRP) {
        check_ndrp_round_trip(msg.m.ndrp);
    } else if (msg.kind == NBCP_TYPE_NDSP) {
        check_ndsp_round_trip(msg.m.ndsp);
    } else if (msg.kind == 2) {
        for (const nbcp_kind2_entry &e : msg.m.kind2.entries) {
            FUZZ_CHECK(terminated(e.text));
        }
    } else if (msg.kind == 3 && msg.m.hdr.type == 23) {
        const nbcp_kind3 &k = msg.m.kind3;
        FUZZ_CHECK(terminated(k.text1) && terminated(k.text2) && terminated(k.text3) &&
                   terminated(k.text4));
    }
    return 0;
}
