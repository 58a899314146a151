// Files of drivers that tell a version.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>

using FileVersion = std::array<std::uint16_t, 4>;

/// As in "2.0.0.0"; nothing for another text.
std::optional<FileVersion> ParseFileVersion(std::string_view text);

/// Writes a program file whose version resource tells that version.
/// @throws std::runtime_error  if it can't be written, or if the system's own library, whose copy it is, has no
///                             version.
void WriteDriverFile(const std::filesystem::path &path, const FileVersion &version);
