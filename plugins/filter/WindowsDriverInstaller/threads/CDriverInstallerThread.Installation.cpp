// The installation of the drivers. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverInstallerThread.h"

#include <array>
#include <utility>

#include <wx/log.h>
#include <wx/msw/registry.h>

#include "WindowsDriverInstaller/drivers/ServiceControl.h"

namespace {

constexpr char kFilterServiceKey[] = "System\\CurrentControlSet\\Services\\qbimvta";

CDriverInstallerThread::~CDriverInstallerThread() {
    if (!stepFinished)
        return;
    (void)SetEvent(stepFinished.get());
    stepFinished.reset();
}

void CDriverInstallerThread::Run() {
    wxLog *const oldTarget = wxLog::SetThreadActiveTarget(logTarget);
    // On every installation, also when no driver is there.
    succeeded = UninstallDriver();
    if (upgradeNeeded) {
        succeeded = UninstallDriver();
        if (succeeded && !rebootRequired)
            WaitForDriverToUnload();
    }
    // With a reboot request the new driver is left to the installation after the reboot; the removal's result stands.
    if (installNeeded && succeeded && !rebootRequired) {
        succeeded = InstallDriver();
        WriteServiceValues();
    }
    (void)wxLog::SetThreadActiveTarget(oldTarget);
}

/// For half a minute at most. Nothing follows from a driver that is still there then.
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

/// What the filter driver reads at its start. Whether it works doesn't change the result.
void CDriverInstallerThread::WriteServiceValues() {
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
    // The filter driver is installed also without a callout that works.
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
