// The four tables the show commands print on standard output.
#pragma once

#include "neighbor/ap_info.h"

void print_wireless_table(const ap_info *list, int n);
void print_pvc_table(const ap_info *list, int n);
void print_cluster_table(const ap_info *list, int n);
void print_radio_table(const ap_info *list, int n);

// Prints the table of a show kind (SHOW_WIRELESS, SHOW_CLUSTER, SHOW_UBUS, SHOW_NEIGHBOR).
void print_show_table(int kind, const ap_info *list, int n);
