// The page that --report writes.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "DriverOutcome.h"
#include "HealthHistory.h"

/// The script that ran, in UTF-8.
struct ReportedScript {
    std::string name;
    std::string error{};  ///< The error that ended it; empty: none.
    int status = 0;       ///< Its exit status.
};

struct ReportedRuns {
    std::vector<DriverRun> kept{};
    DriverTotals forgotten{};  ///< Of those that came before.
};

/// A self-contained HTML page.
/// @param error  says which part of the page the program lacks, if nothing is returned.
std::optional<std::string> MakeReportPage(const HealthHistory &history, const ReportedRuns &runs,
                                          const ReportedScript &script, std::string &error);
