// The removal of the drivers. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include "StartThread.h"
#include "WindowsDriverInstaller/cleanup/HealthCheckFiles.h"
#include "WindowsDriverInstaller/cleanup/SetupLibrary.h"
#include "WindowsDriverInstaller/drivers/ServiceControl.h"

namespace {

constexpr wchar_t kLegacyComponent[] = L"rxwim";

CDriverUninstallerThread::CDriverUninstallerThread(VtaCore::CDom *toDom, const wxString &toNdisDriverDir,
                                                   const wxString &toWfpDriverDir)
    : CRunnable(/*suspended=*/false, kAnyProcessor, /*detached=*/false),
      dom(toDom),
      stepFinished(CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      ndisDriverDir(toNdisDriverDir.Clone()),
      wfpDriverDir(toWfpDriverDir.Clone()) {
    StartStep(ThreadRunning);
}

CDriverUninstallerThread::~CDriverUninstallerThread() {
    (void)stepFinished.release();
}

const char *CDriverUninstallerThread::Name() const {
    return "CDriverUninstallerThread";
}

ThreadEnd &CDriverUninstallerThread::End() {
    return end;
}

void CDriverUninstallerThread::OnExit() {
    EndStep(ThreadRunning);
    CRunnable::OnExit();
}

void CDriverUninstallerThread::Run() {
    succeeded = UninstallDriver();
}

bool CDriverUninstallerThread::UninstallDriver() {
    DbgPrint(L"UninstallDriver running.");
    const SetupLibrary setup;
    UninstallOemInf uninstallOemInf = nullptr;
    setup.FindFunction("SetupUninstallOEMInfW", uninstallOemInf);
    DbgPrint(L"SetupUninstallOEMInfW() is at address 0x%p", reinterpret_cast<void *>(uninstallOemInf));
    RemoveHealthCheckFiles();
    if (IsWfpServiceInstalled())
        RemoveWfpCallout();

    bool notInstalled = false;
    HRESULT hr = UninstallComponent(kFilterComponent, &notInstalled);
    if (notInstalled)
        hr = UninstallComponent(kLegacyComponent, &notInstalled);
    // compat 111: loses a reboot request
    if (SUCCEEDED(hr))
        hr = RemoveOemInfFiles(uninstallOemInf);
    DbgPrint(L"Checking if %ls is still installed", kFilterComponent);
    if (IsFilterComponentPresent() == S_FALSE) {
        // compat 112: with the component gone only the orphans decide, whatever failed before
        DbgPrint(L"Checking for orphaned QBIMVTA_MP bindings");
        hr = CleanUpOrphans();
    }
    if (hr == NETCFG_S_REBOOT)
        rebootRequired = true;
    // compat 115: a script does not learn of the reboot request
    return hr == S_OK || hr == NETCFG_S_REBOOT;
}

}  // namespace
