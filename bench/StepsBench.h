// Measures what a step costs a driver thread.
#pragma once

#include "Bench.h"

void BenchSteps(Report &report);
