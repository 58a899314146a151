// Whole files, by their names in UTF-16.
#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Replaces the file; missing folders above it are made.
/// @param error  says which file and why, when the result is false.
bool WriteWholeFile(const std::wstring &path, std::string_view content, std::string &error);

/// @param error  says which file and why, when nothing is returned.
std::optional<std::string> ReadWholeFile(const std::wstring &path, std::string &error);
