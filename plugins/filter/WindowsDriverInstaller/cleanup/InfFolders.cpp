#include "InfFolders.h"

#include <shlobj.h>

namespace {

/// @param subfolder  appended to the shell's folder.
/// @param fallback   the whole path if the shell has none.
/// @return the shell's result.
HRESULT FindInfFolder(int id, const wchar_t *subfolder, const wchar_t *fallback, std::wstring &folder) {
    wchar_t path[MAX_PATH] = L"";
    const HRESULT hr = SHGetFolderPathW(nullptr, id, nullptr, SHGFP_TYPE_CURRENT, path);
    folder = SUCCEEDED(hr) ? std::wstring(path) + subfolder : fallback;
    return hr;
}

}  // namespace

HRESULT FindInfFolders(InfFolders &folders) {
    (void)FindInfFolder(CSIDL_WINDOWS, L"\\inf\\", L"c:\\winnt\\inf\\", folders.inf);
    return FindInfFolder(CSIDL_SYSTEM, L"\\CatRoot\\{F750E6C3-38EE-11D1-85E5-00C04FC295EE}\\",
                         L"c:\\winnt\\system32\\CatRoot\\{F750E6C3-38EE-11D1-85E5-00C04FC295EE}\\", folders.catalogs);
}
