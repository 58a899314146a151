// Whether an installation is needed: the watchdog compares the versions of the driver. Compiled as a part of
// WindowsDriverInstaller.cpp.
#include "CDriverInstallerWatchdog.h"

#include <cstdint>
#include <optional>
#include <utility>

#include <windows.h>
#include <shlobj.h>

#include "DestroyOnceEnded.h"
#include "StartThread.h"
#include "WindowsDriverInstaller/NdisTrace.h"
#include "WindowsDriverInstaller/reports/FailureReport.h"
#include "WindowsDriverInstaller/reports/InstallEvents.h"
#include "common/Trace.h"

namespace {

CDriverInstallerWatchdog::CDriverInstallerWatchdog(VtaCore::CDom *toDom, std::shared_ptr<InstallStatus> status,
                                                   const wxString &ndisDriverDir, const wxString &wfpDriverDir)
    : CRunnable(/*suspended=*/false, kAnyProcessor, /*detached=*/true),
      installerStatus(std::move(status)),
      ndisDriverFile(ndisDriverDir, "qbimvta", "sys"),
      wfpDriverFile(wfpDriverDir, "qbimwfp", "sys"),
      dom(toDom) {
    installerStatus->watchdog = this;
    Heartbeat();
}

CDriverInstallerWatchdog::~CDriverInstallerWatchdog() {
    {
        const wxCriticalSectionLocker lock(installerStatus->watchdogLock);
        installerStatus->watchdog = nullptr;
    }
    if (installerThread)
        DestroyOnceEnded(std::move(installerThread));
}

void CDriverInstallerWatchdog::Run() {
    installerStatus->result = InstallOrUpdateDriver();
    installerStatus->done = true;
}

/// One number for comparisons. compat 67: a component of 0x8000 or more fills the bits above it with ones
std::int64_t PackVersion(const DriverVersion &version) {
    auto packed = std::uint64_t{0};
    for (const unsigned short component : {version.major, version.minor, version.build, version.revision})
        packed = (packed << 16) | static_cast<std::uint64_t>(std::int64_t{static_cast<std::int16_t>(component)});
    return static_cast<std::int64_t>(packed);
}

bool CDriverInstallerWatchdog::InstallOrUpdateDriver() {
    const TraceSite site(kNdisTrace);
    bool isLoadTest = false;
    if (dom->Get("vta.mode.loadtest", isLoadTest); isLoadTest)
        return true;
    Heartbeat();
    if (!GetBundledDriverVersion())
        return true;  // nothing to install
    if (GetInstalledDriverVersion())
        DecideByVersions(site);
    else
        installNeeded = true;
    if (!installNeeded && !upgradeNeeded) {
        bool isForced = false;
        (void)dom->Get("vtp.filter.ForceDriverInstall", isForced);
        installNeeded = upgradeNeeded = isForced;
    }
    if (!installNeeded && !upgradeNeeded)
        return true;
    Heartbeat();
    const std::optional<bool> notified = InstallWithWorker();
    if (!notified)
        return false;
    // compat 157: this reboot request has no event 1006
    if (!IsNetworkAsBefore(site) && !*notified)
        VtaCore::ShowRebootNotification(RebootReasonFilterDriver);
    Heartbeat();
    return true;
}

void CDriverInstallerWatchdog::DecideByVersions(const TraceSite &site) {
    Trace(site, "Installed driver is %d.%d.%d.%d, our copy is %d.%d.%d.%d", installedVersion.major,
          installedVersion.minor, installedVersion.build, installedVersion.revision, ourVersion.major, ourVersion.minor,
          ourVersion.build, ourVersion.revision);
    const std::int64_t installed = PackVersion(installedVersion);
    const std::int64_t ours = PackVersion(ourVersion);
    if (installed < ours) {
        installNeeded = upgradeNeeded = true;
        dom->DoAgentEventWrite(kUpgradeEvent, L"%d.%d.%d.%d|%d.%d.%d.%d", installedVersion.major,
                               installedVersion.minor, installedVersion.build, installedVersion.revision,
                               ourVersion.major, ourVersion.minor, ourVersion.build, ourVersion.revision);
    } else if (installed > ours) {
        Trace(site, "Installed driver is newer than our version - leaving it in place, but there could be problems.");
    } else if (driverRunning) {
        Trace(site, "Running driver is the correct version.");
    } else {
        installNeeded = true;
        Trace(site, "Driver is not running - probably a result of a partial install that required a reboot.");
    }
}

bool CDriverInstallerWatchdog::GetBundledDriverVersion() {
    const wxString path = ndisDriverFile.GetFullPath();
    Trace(kNdisTrace, "Checking version of %.256s", path);
    if (!ndisDriverFile.FileExists()) {
        Trace(kNdisTrace, "Driver binary doesn't exist - skipping driver install/upgrade.");
        return false;
    }
    if (!GetFileVersion(path, ourVersion)) {
        Trace(kNdisTrace, "Unable to get version information from '%.256s'. Unable to install or upgrade the driver.",
              path);
        return false;
    }
    return true;
}

/// The running driver's version takes precedence over any file.
bool CDriverInstallerWatchdog::GetInstalledDriverVersion() {
    driverRunning = GetDriverVersion(*dom, installedVersion);
    return driverRunning || GetVersionOfSystemFile(kNdisTrace);
}

bool CDriverInstallerWatchdog::GetVersionOfSystemFile(const TraceSite &site) {
    wchar_t system[MAX_PATH] = L"";
    const HRESULT hr = SHGetFolderPathW(nullptr, CSIDL_SYSTEM, nullptr, SHGFP_TYPE_CURRENT, system);
    if (FAILED(hr)) {
        AgentEventLog_(*dom, static_cast<unsigned long>(hr), kSystemFailureEvent, L"SHGetFolderPath(CSIDL_SYSTEM)");
        return false;
    }
    const wxFileName file(wxString(system) + "\\drivers", "qbimvta", "sys");
    const wxString path = file.GetFullPath();
    Trace(site, "Checking version of %.256s", path);
    if (!file.FileExists()) {
        Trace(site, "No installed driver - installing current driver version.");
        return false;
    }
    if (!GetFileVersion(path, installedVersion)) {
        installedVersion.major = 0;
        Trace(site, "Unable to get version information from '%.256s'.", path);
        return false;
    }
    return true;
}

}  // namespace
