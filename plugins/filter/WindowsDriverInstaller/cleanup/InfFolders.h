// The system's folders of INF files and of their catalogues.
#pragma once

#include <string>

#include <windows.h>

/// Each ends in a backslash.
struct InfFolders {
    std::wstring inf;
    std::wstring catalogs;
};

/// compat 118: only the second look-up decides the result
HRESULT FindInfFolders(InfFolders &folders);
