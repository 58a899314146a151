// The page that --report writes.
#pragma once

#include <optional>
#include <string>

#include "DriverRun.h"
#include "HealthHistory.h"

/// The script that has run, in UTF-8.
struct ReportedScript {
    std::string name;
    std::string error{};  ///< That has ended it; empty: none.
    int status = 0;       ///< With which it has ended.
};

/// A HTML page that needs nothing beside itself.
/// @param error  says which part of the page the program lacks, when nothing is returned.
std::optional<std::string> MakeReportPage(const HealthHistory &history, const std::vector<DriverRun> &runs,
                                          const ReportedScript &script, std::string &error);
