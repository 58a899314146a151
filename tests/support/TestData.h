// Files beside the program.
#pragma once

#include <filesystem>

/// The folder of the test program, where the build puts fc-host.exe and all libraries.
std::filesystem::path BinaryFolder();

/// A file that a test reads, in the folder test-data beside the program.
/// @param name  as in the sources, such as "docs/host.md".
std::filesystem::path TestData(const std::filesystem::path &name);
