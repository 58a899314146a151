// The Windows version.
#pragma once

#include <windows.h>

/// Queries the version of the running system. A program without a manifest for Windows 8.1 or later gets 6.2 there.
/// @param size  of what is to be filled in: of this record, or of the smaller OSVERSIONINFOW that it begins with.
/// @return false with the last error; the record then holds the size alone.
inline bool QueryWindowsVersion(OSVERSIONINFOEXW &record, DWORD size = sizeof(OSVERSIONINFOEXW)) {
    static_assert(sizeof(OSVERSIONINFOEXW) == 284 && sizeof(OSVERSIONINFOW) == 276);
    record.dwOSVersionInfoSize = size;
    return GetVersionExW(reinterpret_cast<OSVERSIONINFOW *>(&record)) != 0;
}
