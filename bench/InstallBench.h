// Measures installations on simulated machines, and how fast a worker that hangs is ended.
#pragma once

#include "Bench.h"

void BenchInstall(Report &report);
