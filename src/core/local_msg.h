// The header of every local control message and of every answer on the local sockets.
#pragma once

#include <cstddef>
#include <cstdint>

// Host byte order; the daemon reads the fields at these fixed positions.
struct local_msg_hdr {
    uint8_t value;  // argument of the set operations, 0 otherwise
    uint8_t reserved0[3];
    uint16_t op;  // one of the TARN_MSG_* codes
    uint8_t reserved1[2];
};
static_assert(sizeof(local_msg_hdr) == 8, "local_msg_hdr is 8 bytes");
static_assert(offsetof(local_msg_hdr, op) == 4, "local_msg_hdr op sits at bytes 4-5");

constexpr size_t LOCAL_MSG_HDR_LEN = sizeof(local_msg_hdr);

enum tarn_msg_op : uint16_t {
    TARN_MSG_NGBR_INFO = 1,
    TARN_MSG_DUMP_NGBR = 2,
    TARN_MSG_DUMP_CLUSTER = 3,
    TARN_MSG_SET_RSSI = 4,
    TARN_MSG_GET_RSSI = 5,
    TARN_MSG_ADD_MAC = 6,
    TARN_MSG_DEL_MAC = 7,
    TARN_MSG_DUMP_STATIC = 8,
    TARN_MSG_UPDATE_STATIC = 9,
    TARN_MSG_DUMP_IP = 10,
    TARN_MSG_SET_VERSION = 11,
    TARN_MSG_SET_NGBR_NUM = 12,
    TARN_MSG_LIST_REPLY = 51,  // header of every neighbor-list answer
};
