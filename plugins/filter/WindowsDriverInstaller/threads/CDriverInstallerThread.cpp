// The installation of the drivers. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverInstallerThread.h"

#include <array>
#include <utility>

#include <wx/log.h>
#include <wx/msw/registry.h>

#include "WindowsDriverInstaller/drivers/ServiceControl.h"

namespace {

constexpr char kFilterServiceKey[] = "System\\CurrentControlSet\\Services\\qbimvta";

CDriverInstallerThread::CDriverInstallerThread(VtaCore::CDom *toDom, const wxString &toNdisDriverDir,
                                               const wxString &toWfpDriverDir, bool toInstallNeeded,
                                               bool toUpgradeNeeded, wxLog *toLogTarget)
    : CDriverUninstallerThread(toDom, toNdisDriverDir, toWfpDriverDir),
      installNeeded(toInstallNeeded),
      upgradeNeeded(toUpgradeNeeded),
      logTarget(toLogTarget) {}

CDriverInstallerThread::~CDriverInstallerThread() {
    if (!stepFinished)
        return;
    (void)SetEvent(stepFinished.get());
    stepFinished.reset();
}

const char *CDriverInstallerThread::Name() const {
    return "CDriverInstallerThread";
}

void CDriverInstallerThread::KeepLog(std::unique_ptr<GrabbedLog> log) {
    keptLog = std::move(log);
}

void CDriverInstallerThread::Run() {
    wxLog *const oldTarget = wxLog::SetThreadActiveTarget(logTarget);
    // compat 75: removes in every installation, twice for an upgrade; the second result counts
    succeeded = UninstallDriver();
    if (upgradeNeeded) {
        succeeded = UninstallDriver();
        if (succeeded && !rebootRequired)
            WaitForDriverToUnload();
    }
    // compat 76: a reboot request skips the installation; the removal's result stands
    if (installNeeded && succeeded && !rebootRequired) {
        succeeded = InstallDriver();
        WriteDriverServiceValues();
    }
    (void)wxLog::SetThreadActiveTarget(oldTarget);
}

/// compat 77: waits half a minute at most; nothing follows from a driver that is still loaded then
void CDriverInstallerThread::WaitForDriverToUnload() {
    StartStep(EnsuringDriverUnloaded);
    constexpr int maxPolls = 60;
    constexpr unsigned long pollMs = 500;
    for (int poll = 0; poll < maxPolls; ++poll) {
        wxThread::Sleep(pollMs);
        DriverVersion version;
        if (!GetDriverVersion(*dom, version))
            break;
        DbgPrint(L"Driver version %d.%d.%d.%d is still loaded", version.major, version.minor, version.build,
                 version.revision);
    }
    EndStep(EnsuringDriverUnloaded);
}

/// What the filter driver reads at its start. compat 78: written after a failure, too; its own failure is no result
void CDriverInstallerThread::WriteDriverServiceValues() {
    wxRegKey key(wxRegKey::HKLM, kFilterServiceKey);
    if (!key.Exists())
        return;
    const std::array<std::pair<wxString, wxString>, 2> values{
        {{"ConfigBinary", dom->GetPluginFileWx("filter", "config.bin")},
         {"EndpointRoot", dom->GetWxString("app.path.bin")}}};
    for (const auto &[name, value] : values) {
        if (!key.Open(wxRegKey::Write) || !key.SetValue(name, value))
            DbgPrint(L"Unable to write HKLM\\%s\\%s",
                     static_cast<const wchar_t *>(wxString(kFilterServiceKey).wc_str()),
                     static_cast<const wchar_t *>(name.wc_str()));
    }
}

bool CDriverInstallerThread::InstallDriver() {
    // compat 79: installs the filter driver even if the callout fails
    if (!InstallWFPCallout())
        wxLogError("InstallWFPCallout() failed.");
    else if (!StartWFPCallout(/*wait=*/true))
        wxLogError("StartWFPCallout() failed.");
    DbgPrint(L"Checking if %ls is installed.", kFilterComponent);
    if (IsFilterComponentPresent() == S_FALSE) {
        DbgPrint(L"Checking for orphaned QBIMVTA_MP bindings");
        (void)CleanUpOrphans();
    }
    const HRESULT hr = InstallFromInf(ndisDriverDir.wc_str());
    if (hr == NETCFG_S_REBOOT)
        rebootRequired = true;
    return hr == S_OK || hr == NETCFG_S_REBOOT;
}

}  // namespace
