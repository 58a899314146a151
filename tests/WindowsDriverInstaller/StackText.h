// What the dump of a driver thread's stack says.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "CallPlaces.h"

/// For each step in which a worker can be killed, the function that makes the step's calls.
[[nodiscard]] const std::map<std::string, std::string> &FunctionsOfSteps();
[[nodiscard]] std::set<std::string> StepsWithin(const StepLimits &limits);

/// The frames without a name whose address lies in a module beside the test program: of those all but the compiler's
/// runtime were built with symbols.
[[nodiscard]] std::vector<std::string> NamelessFramesOfOurs(const std::string &stack);

/// Whether a frame has that name, classes and all, and an offset.
[[nodiscard]] bool HasFrame(const std::string &stack, std::string_view name);
