// Installations and removals of the drivers in the report.
#pragma once

#include <string>
#include <vector>

#include "DriverRun.h"

/// The latest hundred, as items of a JSON array.
/// @param start  times are counted from it.
std::string DriverRunsAsJson(const std::vector<DriverRun> &runs, double start);
