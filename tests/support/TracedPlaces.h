// The function, the file and the line that traces name.
#pragma once

#include <string>
#include <vector>

#include "LogCollector.h"

/// Where a message is traced.
struct TracedPlace {
    std::string message;   ///< Its beginning.
    std::string function;  ///< The whole name.
    std::string file;      ///< Of the module.
    /// A part of the statement on the traced line; empty if that is the message's beginning.
    std::string source{};
};

/// Expects that each message was traced at its place, at each of its places if it has several, and nowhere else.
void ExpectTraced(const std::vector<TracedLine> &lines, const std::vector<TracedPlace> &places);
/// The same, and that no other message was traced.
void ExpectOnlyTraced(const std::vector<TracedLine> &lines, const std::vector<TracedPlace> &places);
