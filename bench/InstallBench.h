// Measures installations on simulated machines, and how fast a hanging worker is killed.
#pragma once

#include "Bench.h"

void BenchInstall(Report &report);
