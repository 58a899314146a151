// The program's own folder, and the libraries that it needs there.
#pragma once

#include <string>

/// With a trailing backslash.
std::wstring ProgramFolder();

/// Searches for the libraries that are loaded on first use.
/// @param error  says which one is missing and where it was searched, if the result is false.
bool FindLibraries(std::wstring &error);
