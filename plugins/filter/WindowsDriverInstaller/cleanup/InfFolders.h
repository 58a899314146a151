// The system's folders of INF files and of their catalogues.
#pragma once

#include <string>

#include <windows.h>

/// Each with a backslash behind it.
struct InfFolders {
    std::wstring inf;
    std::wstring catalogs;
};

/// @return whether the second was found; the first doesn't count.
HRESULT FindInfFolders(InfFolders &folders);
