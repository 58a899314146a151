// Measures an iteration of the health subsystem.
#pragma once

#include "Bench.h"

void BenchHealth(Report &report);
