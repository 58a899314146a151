// Finds out which driver an INF file in the system's folder belongs to. Windows has renamed it.
#pragma once

#include <string>

/// Maps the file into memory.
/// @return the driver that the content names often enough: L"qbimvta", L"qbimwfp", or null; null also for a file that
///         can't be read. Logs nothing.
const wchar_t *DriverOfInfFile(const std::wstring &path);
