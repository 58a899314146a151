// What the module's log lines and events tell of its work on the drivers.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "DriverRun.h"

/// The content of a step's line in the log: ">Name. 600s max" and "<Name", after spaces.
struct StepLine {
    bool begins = false;
    std::string name;
    unsigned limit = 0;
};
std::optional<StepLine> ParseStepLine(std::string_view line);

/// The text of event 3005: "CALL|REASON (CODE)". The step is empty, unless it is one that leaves no line in the log.
std::optional<DriverFailure> ParseFailure(std::string_view text);

/// The part of the text before the mark; both are removed from it.
std::string_view TakeUntil(std::string_view &text, char mark);
