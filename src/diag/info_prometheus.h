// tarn-info's Prometheus text exposition: gauges only, label values cleaned by the UTF-8 rule
// and then escaped for the text format.
#pragma once

#include <vector>

#include "diag/info_static.h"
#include "diag/info_string.h"

// The whole exposition. With up false only tarn_up (0) is written: no neighbor series.
info_string info_prometheus_text(bool up, const std::vector<info_neighbor> &neighbors);
