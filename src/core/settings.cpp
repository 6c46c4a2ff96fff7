#include "core/settings.h"

std::atomic<uint8_t> version{VERSION_DEFAULT};
std::atomic<uint8_t> rssi_min{RSSI_MIN_DEFAULT};
std::atomic<uint8_t> max_ngbr_num{MAX_NGBR_NUM_DEFAULT};

int sock_send_nbcp = 0;
int sock_recv_nbcp = 0;
int sock6_nbcp = -1;
int sock_recv_hand = 0;
int sock_recv_local = 0;

std::atomic<uint32_t> rcv_hand_cnt{0};
std::atomic<uint32_t> rcv_nbcp_cnt{0};
std::atomic<uint32_t> rcv_nbcp_ip6_cnt{0};
std::atomic<uint32_t> rcv_local_cnt{0};

uint8_t buffer[RECV_BUFFER_SIZE];
