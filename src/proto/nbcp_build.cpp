#include "proto/nbcp.h"
#include "proto/nbcp_codes.h"
#include "proto/nbcp_walk.h"

namespace {

nbcp_encoder start_message(uint8_t *out, nbcp_hdr &hdr, uint8_t type) {
    hdr.type = type;
    nbcp_hdr_encode(out, &hdr);
    return nbcp_encoder{out + NBCP_HDR_LEN, static_cast<uint32_t>(NBCP_HDR_LEN)};
}

}  // namespace

uint32_t nbcp_build_ndrp(uint8_t *out, nbcp_ndrp *rec) {
    if (out == nullptr || rec == nullptr) {
        return 0;
    }
    nbcp_encoder e = start_message(out, rec->hdr, NBCP_TYPE_NDRP);
    nbcp_put_u8(e, NDRP_KIND_FLAG, rec->kind_flag);
    nbcp_put_u8(e, NDRP_MODE, rec->mode);
    nbcp_put_u32(e, NDRP_IP, rec->ip);
    nbcp_put_addr6(e, NDRP_IP6, rec->ip6.data());
    nbcp_put_mac(e, NDRP_MAC, rec->mac.data());
    nbcp_put_end(e);
    return e.count;
}

uint32_t nbcp_build_ndsp(uint8_t *out, nbcp_ndsp *rec) {
    if (out == nullptr || rec == nullptr) {
        return 0;
    }
    nbcp_encoder e = start_message(out, rec->hdr, NBCP_TYPE_NDSP);
    const ap_info &info = rec->info;
    nbcp_put_u8(e, NDSP_KIND_FLAG, rec->kind_flag);
    nbcp_put_u8(e, NDSP_MODE, rec->mode);
    nbcp_put_u32(e, NDSP_IP, rec->ip);
    nbcp_put_mac(e, NDSP_MAC, rec->mac.data());
    nbcp_put_u32(e, NDSP_PVC_IP, rec->pvc_ip);
    nbcp_put_u32(e, NDSP_CLUSTER_ID, rec->cluster_id);
    nbcp_put_mac(e, NDSP_PVC_MAC, rec->pvc_mac.data());
    nbcp_put_u8(e, NDSP_CLUSTER_FLAG, rec->cluster_flag);
    nbcp_put_u32(e, NDSP_INFO_IP, info.ip);
    nbcp_put_addr6(e, NDSP_INFO_IP6, info.ip6.data());
    nbcp_put_u32(e, NDSP_INFO_QV_IP, info.qv_ip);
    nbcp_put_mac(e, NDSP_INFO_MAC, info.mac.data());
    nbcp_put_u8(e, NDSP_INFO_STATE, info.state);
    nbcp_put_field_string(e, NDSP_INFO_TENANT_ID, info.tenantId);
    nbcp_put_field_string(e, NDSP_INFO_VERSION, info.version);
    nbcp_put_field_string(e, NDSP_INFO_NAME, info.name);
    nbcp_put_radios<NDSP_RADIO_CODES>(e, NDSP_INFO_RADIOCNT, info);
    nbcp_put_end(e);
    return e.count;
}
