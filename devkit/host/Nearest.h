// Which of the known names somebody may have meant by one that is not known.
#pragma once

#include <string>
#include <string_view>
#include <vector>

/// At most three, the nearest first; none for a name that is like none of them. Letters match in any case. The part of
/// a name before "::" may be left out.
std::vector<std::string> NearestNames(std::string_view name, const std::vector<std::string> &known);

/// "; did you mean A, B or C?", or nothing.
std::string Suggestion(std::string_view name, const std::vector<std::string> &known);
