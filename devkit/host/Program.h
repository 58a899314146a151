// The program's own place, and the libraries that it needs beside itself.
#pragma once

#include <string>

/// With a backslash at its end.
std::wstring ProgramFolder();

/// Looks for the libraries that are loaded only when they are first used.
/// @param error  says which one is missing and where it was looked for, when the result is false.
bool FindLibraries(std::wstring &error);
