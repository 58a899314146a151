// What became of an installation or a removal: for the console, the report and scripts.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "DriverRun.h"

struct DriverOutcome {
    enum class What { Installed, Upgraded, Pending, Removed, Nothing, Failed, Unfinished };
    What what = What::Unfinished;
    std::string step{};                      ///< In which it failed; empty: not known.
    std::optional<DriverFailure> cause{};    ///< The failed call to which it is due.
    std::optional<double> killedAfter{};     ///< Seconds that the step had taken when its worker was killed.
    std::optional<double> notKilledAfter{};  ///< The same for a worker that could not be killed, and still ran.
    bool needsReboot = false;
    bool isCalloutLeft = false;  ///< Of a removal.
    bool isFilterLeft = false;   ///< Of a removal.

    bool HasFailed() const { return what == What::Failed; }
};

DriverOutcome OutcomeOf(const DriverRun &run);

/// installed, upgraded, pending, removed, nothing, failed or unfinished.
const char *OutcomeName(DriverOutcome::What what);

/// Of many runs.
struct DriverTotals {
    std::size_t installations = 0;
    std::size_t removals = 0;
    std::size_t failed = 0;  ///< Those without an end included.
    std::size_t killed = 0;  ///< Whose worker was killed.

    void Count(const DriverRun &run);
};

/// In words, such as "upgraded from 2.0.0.0 to 2.1.0.0; a reboot is needed".
std::string OutcomeText(const DriverRun &run);
