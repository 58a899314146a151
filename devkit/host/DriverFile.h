// Files of drivers that tell a version.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>

using FileVersion = std::array<std::uint16_t, 4>;

/// Writes a program file whose version resource tells that version.
/// @throws std::runtime_error  if it can't be written, or if the system's own library, whose copy it is, has no
///                             version.
void WriteDriverFile(const std::filesystem::path &path, const FileVersion &version);
