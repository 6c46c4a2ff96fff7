// The static update pass: mark every static neighbor offline and probe it again.
#pragma once

#include "neighbor/ap_info.h"

void update_static_neighbor();

// Sends the cluster query about one static neighbor to the platform's cluster process.
void get_cluster_list(const mac_addr &mac);
