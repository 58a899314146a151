// The removal of miniport devices that were left behind. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include <string>

#include <windows.h>

#include "WindowsDriverInstaller/cleanup/OrphanScan.h"
#include "WindowsDriverInstaller/cleanup/RegistryTree.h"
#include "common/TakeOwnership.h"
#include "common/Unique.h"

namespace {

constexpr wchar_t kMiniportKey[] = L"SYSTEM\\CurrentControlSet\\Enum\\Root\\QBIMVTA_MP";

bool KeyExists(const wchar_t *path) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &opened) != ERROR_SUCCESS)
        return false;
    const UniqueKey key(opened);
    return true;
}

HRESULT CDriverUninstallerThread::CleanUpOrphans() {
    constexpr int maxAttempts = 4;
    StartStep(CleaningUpOrphans);
    int attempts = 0;
    HRESULT hr = S_OK;
    while (attempts < maxAttempts && !OrphanScanIsClean(*dom)) {
        DbgPrint(L"HrCleanupOrphans: Found an orphan");
        bool notInstalled = false;
        hr = UninstallComponent(kMiniport, &notInstalled);
        DbgPrint(L"HrCleanupOrphans: Uninstall orphan hr=0x%08lx", static_cast<unsigned long>(hr));
        if (hr == NETCFG_S_REBOOT) {
            rebootRequired = true;
        } else if (hr != S_OK) {
            NoteFailedStep();
            EndStep(CleaningUpOrphans);
            return hr;
        }
        ++attempts;
    }
    EndStep(CleaningUpOrphans);
    if (attempts < maxAttempts)
        return hr;

    // compat 114: under no limit of its own from here on, and a reboot request whatever comes of it
    if (!OrphanScanIsClean(*dom)) {
        DbgPrint(L"HrCleanupOrphans: registry cleanup");
        cleanup_registry();
    }
    DbgPrint(L"HrCleanupOrphans: orphan scan needs reboot (%d:%d)", maxAttempts, static_cast<int>(hr));
    rebootRequired = true;
    return NETCFG_S_REBOOT;
}

void CDriverUninstallerThread::cleanup_registry() {
    DbgPrint(L"cleanup_registry: Scanning for registry key %s", kMiniportKey);
    if (!KeyExists(kMiniportKey)) {
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
