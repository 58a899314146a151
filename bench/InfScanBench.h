// Measures the scan of INF files.
#pragma once

#include "Bench.h"

void BenchInfScan(Report &report);
