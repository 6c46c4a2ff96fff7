// The command-line client's control requests to the running daemon.
#pragma once

#include <cstdint>

void tarn_update_static();
void tarn_get_rssi();
void tarn_set_rssi(uint8_t rssi);
void tarn_set_version(uint8_t ver);
void tarn_set_dynamic_ngbr_num(uint8_t num);
