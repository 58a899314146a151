// The removal of miniport devices that were left behind. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include "WindowsDriverInstaller/cleanup/OrphanScan.h"

namespace {

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

}  // namespace
