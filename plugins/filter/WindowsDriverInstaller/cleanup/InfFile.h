// Whose INF file a copy of the system's is: such a copy has lost its own name.
#pragma once

#include <string>

/// Reads the file by a mapping.
/// @return the driver that the content names often enough: L"qbimvta", L"qbimwfp", or null; null also for a file that
///         can't be read. Logs nothing.
const wchar_t *DriverOfInfFile(const std::wstring &path);
