// Checks of the text of a driver thread's stack dump.
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

/// The unnamed frames whose address lies in a module beside the test program: all of those except the compiler's
/// runtime were built with symbols.
[[nodiscard]] std::vector<std::string> NamelessFramesOfOurs(const std::string &stack);

/// Whether a frame has that qualified name, and an offset.
[[nodiscard]] bool HasFrame(const std::string &stack, std::string_view name);
