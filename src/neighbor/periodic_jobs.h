// The four periodic jobs of the timer thread: learning (refresh self, probe every neighbor),
// table ageing, the static update pass and IP detection.
//
// Each create_* function is a self-rearming timer callback: it does its work and then arms a
// one-shot timer that calls it again after its period. Start-up calls each once directly, so
// every job runs at once and then once per period. The argument is unused.
#pragma once

#include <cstdint>

constexpr int64_t NBCP_UPDATE_PERIOD_SEC = 150;
constexpr int64_t TABLE_AGEING_PERIOD_SEC = 60;
constexpr int64_t STATIC_UPDATE_PERIOD_SEC = 120;
constexpr int64_t IP_DETECT_PERIOD_SEC = 10;

// A walk of the learning or ageing job visits at most this many entries.
constexpr int NGB_WALK_LIMIT = 64;
// An entry whose age has reached this value is marked offline by the next ageing run.
constexpr uint32_t NGB_AGE_OFFLINE = 106;

// Ids of the learning, ageing and static update timers last armed.
extern uint32_t nbcp_update_id;
extern uint32_t table_ageing_id;
extern uint32_t static_update_id;

// Refreshes this AP's description, then probes up to NGB_WALK_LIMIT neighbors (mode 2).
void neighbor_aps_learning();
// Raises the age of up to NGB_WALK_LIMIT neighbors, marking those past NGB_AGE_OFFLINE offline.
void neighbor_aps_timer();

void create_nbcp_update_timer(void *unused = nullptr);
void create_table_ageing_timer(void *unused = nullptr);
// Runs the static update pass.
void create_static_update_timer(void *unused = nullptr);
// Polls the uplink addresses until the driver has confirmed this AP's information; the first
// run after the confirmation returns without re-arming, and detection ends for good.
void create_ip_detect_timer(void *unused = nullptr);

// Runs each of the four jobs once now, in the order above; each then re-arms itself. The timer
// service must be started first.
void start_periodic_jobs();
