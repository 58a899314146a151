// Driver files with a version, and the version resource of any program file.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace Simulator {

using FileVersion = std::array<std::uint16_t, 4>;

/// The version in a program file's version resource, read byte by byte; empty if there is none.
std::optional<FileVersion> VersionIn(const std::string &program);

/// Changes the version in the version resource. @throws std::runtime_error  if there is none.
void SetVersion(std::string &program, const FileVersion &version);

/// Writes a program file with that version in its version resource.
/// @throws std::runtime_error  if it can't be written, or if the system's own library, which it is copied from, has no
///   version.
void WriteDriverFile(const std::filesystem::path &path, const FileVersion &version);

}  // namespace Simulator
