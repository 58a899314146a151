// The benchmark of the connection metrics.
#pragma once

#include "Bench.h"

/// Measures the module in this program's folder, and adds its rows.
void BenchConnMetrics(Report &report);
