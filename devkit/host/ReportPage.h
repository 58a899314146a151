// The page that --report writes.
#pragma once

#include <optional>
#include <string>

#include "DriverRuns.h"
#include "HealthHistory.h"

/// A self-contained HTML page.
/// @param script  the name of the script that ran, UTF-8.
/// @param error   says which part of the page the program lacks, if nothing is returned.
std::optional<std::string> MakeReportPage(const HealthHistory &history, const std::vector<DriverRun> &runs,
                                          const std::string &script, std::string &error);
