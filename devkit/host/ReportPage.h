// The page that --report writes.
#pragma once

#include <string>

#include "HealthHistory.h"

/// A HTML page that needs nothing beside itself.
/// @param script  the name of the script that has run, UTF-8.
std::string MakeReportPage(const HealthHistory &history, const std::string &script);
