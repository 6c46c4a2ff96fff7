// The periodic static update job.
#pragma once

#include <cstdint>

constexpr int64_t STATIC_UPDATE_PERIOD_S = 120;

// Id of the pending static update timer.
extern uint32_t static_update_id;

// Runs the static update pass and arms itself again for STATIC_UPDATE_PERIOD_S seconds; the
// argument is not used (the timer service hands one to every callback).
void create_static_update_timer(void *arg = nullptr);
