// Running settings, socket descriptors and receive counters of the process.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "util/log.h"  // tarn_debug, the fourth running setting

constexpr uint16_t NBCP_PORT = 32766;
constexpr uint8_t VERSION_DEFAULT = 1;
constexpr uint8_t RSSI_MIN_DEFAULT = 5;
constexpr uint8_t MAX_NGBR_NUM_DEFAULT = 64;
constexpr uint8_t MAX_NGBR_NUM_LOW = 16;
constexpr uint8_t MAX_NGBR_NUM_HIGH = 64;

// Settings are written by the receive thread (local requests) and the bus thread, and read
// by every thread, hence atomic.
extern std::atomic<uint8_t> version;
extern std::atomic<uint8_t> rssi_min;
extern std::atomic<uint8_t> max_ngbr_num;

// Sockets, opened once at start-up before any other thread exists.
extern int sock_send_nbcp;
extern int sock_recv_nbcp;
extern int sock6_nbcp;
extern int sock_recv_hand;
extern int sock_recv_local;

// How often each receiving socket was handled (handler calls, not accepted messages).
extern std::atomic<uint32_t> rcv_hand_cnt;
extern std::atomic<uint32_t> rcv_nbcp_cnt;
extern std::atomic<uint32_t> rcv_nbcp_ip6_cnt;
extern std::atomic<uint32_t> rcv_local_cnt;

// Largest datagram any receiving socket takes.
constexpr size_t RECV_MAX = 65535;
// Zero bytes kept after the largest datagram: a decoder that walks past the end of a datagram
// (as the nbcp element walk may, up to its consumed-byte limit) reads zeros, never outside.
constexpr size_t RECV_GUARD = 256;
constexpr size_t RECV_BUFFER_SIZE = RECV_MAX + RECV_GUARD;

// The receive thread's datagram buffer; only the receive thread touches it.
extern uint8_t buffer[RECV_BUFFER_SIZE];
