// Measures a diagnostic package of a driver with many connections.
#pragma once

#include "Bench.h"

void BenchDiagnostics(Report &report);
