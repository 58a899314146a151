// Measures the seven functions of the driver flags.
#pragma once

#include "Bench.h"

void BenchDriverFlags(Report &report);
