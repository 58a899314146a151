// What the functions of the platform are made to fail with.
#pragma once

#include <string>
#include <vector>

#include <windows.h>

/// Access denied as the function tells it, and then how it is the most likely to fail, or what else it may answer.
/// @throws std::out_of_range  if nothing is known of the function.
[[nodiscard]] std::vector<DWORD> FaultCodesOf(const std::string &function);
/// Whether the function returns nothing that says of a failure.
[[nodiscard]] bool NeverFails(const std::string &function);
/// The time and the waits are asked for at any time, and wxWidgets frees local memory for each text of the system's.
[[nodiscard]] bool HasNoOrder(const std::string &function);
