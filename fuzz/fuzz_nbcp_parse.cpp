// Feeds arbitrary datagrams to nbcp_parse. Beyond memory safety (the sanitizers), it checks that
// decoded strings stay terminated and that a decoded probe or answer survives being encoded
// and decoded again.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

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

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    quiet_stdout();
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
