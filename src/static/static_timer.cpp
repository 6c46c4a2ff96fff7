#include "static/static_timer.h"

#include "static/static_update.h"
#include "util/log.h"
#include "util/timer.h"

uint32_t static_update_id = 0;

void create_static_update_timer(void * /*arg*/) {
    TARN_DBG("Create static neighbor update timer\n");
    update_static_neighbor();
    static_update_id = timer_add(STATIC_UPDATE_PERIOD_S, 0, create_static_update_timer, nullptr);
}
