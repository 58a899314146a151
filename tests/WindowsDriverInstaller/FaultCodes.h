// The codes with which the functions of the platform are made to fail.
#pragma once

#include <string>
#include <vector>

#include <windows.h>

/// Access denied as the function reports it, then its most likely failure, or another answer that it may give.
/// @throws std::out_of_range  if the function is not in the table.
[[nodiscard]] std::vector<DWORD> FaultCodesOf(const std::string &function);
/// Whether the function has no result that reports a failure.
[[nodiscard]] bool NeverFails(const std::string &function);
/// The time is queried and waits happen all the time, and wxWidgets frees local memory for each of the system's texts.
[[nodiscard]] bool HasNoOrder(const std::string &function);
