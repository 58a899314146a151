// Whether an installation is needed: the watchdog compares the versions of the driver. Compiled as a part of
// WindowsDriverInstaller.cpp.
#include "CDriverInstallerWatchdog.h"

#include <cstdint>

#include <windows.h>
#include <shlobj.h>

#include "WindowsDriverInstaller/NdisTrace.h"
#include "WindowsDriverInstaller/reports/AgentEventLog.h"
#include "WindowsDriverInstaller/reports/InstallEvents.h"
#include "common/Trace.h"

namespace {

void CDriverInstallerWatchdog::DecideByVersions(const TraceSite &site) {
    Trace(site, "Installed driver is %d.%d.%d.%d, our copy is %d.%d.%d.%d", installedVersion.major,
          installedVersion.minor, installedVersion.build, installedVersion.revision, ourVersion.major, ourVersion.minor,
          ourVersion.build, ourVersion.revision);
    const std::int64_t installed = PackDriverVersion(installedVersion);
    const std::int64_t ours = PackDriverVersion(ourVersion);
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
