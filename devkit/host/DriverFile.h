// Driver files with a version.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>

using FileVersion = std::array<std::uint16_t, 4>;

/// Writes a program file with that version in its version resource.
/// @throws std::runtime_error  if it can't be written, or if the system's own library, which it is copied from, has no
///   version.
void WriteDriverFile(const std::filesystem::path &path, const FileVersion &version);
