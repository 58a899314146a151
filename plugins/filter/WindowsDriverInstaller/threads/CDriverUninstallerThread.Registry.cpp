// The removal of the key of a miniport device that nothing else could remove. Compiled as a part of
// WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include <string>

#include <windows.h>

#include "WindowsDriverInstaller/cleanup/RegistryTree.h"
#include "common/TakeOwnership.h"
#include "common/Unique.h"

namespace {

constexpr wchar_t kMiniportKey[] = L"SYSTEM\\CurrentControlSet\\Enum\\Root\\QBIMVTA_MP";

bool RegistryKeyExists(const wchar_t *path) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &opened) != ERROR_SUCCESS)
        return false;
    const UniqueKey key(opened);
    return true;
}

void CDriverUninstallerThread::cleanup_registry() {
    DbgPrint(L"cleanup_registry: Scanning for registry key %s", kMiniportKey);
    if (!RegistryKeyExists(kMiniportKey)) {
        DbgPrint(L"    cleanup_registry: no matches found");
        return;
    }
    DbgPrint(L"cleanup_registry: Found %s key", kMiniportKey);
    std::wstring path = std::wstring(L"MACHINE\\") + kMiniportKey;
    TakeOwnership([this](const wxString &line) { DbgPrint(L"%s", Wide(line)); }, path.data());
    path = kMiniportKey;
    if (DeleteRegistryTree(path) == 0)                           // compat 124: even without ownership
        DbgPrint(L"    cleanup_registry: successfuly deleted");  // compat 123: misspelt
    else
        DbgPrint(L"    cleanup_registry: failed to delete");
}

}  // namespace
