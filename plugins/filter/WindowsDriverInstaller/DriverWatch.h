// The work of the installer's watchdog but for the network. Only WindowsDriverInstaller.cpp includes this.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

#include <windows.h>
#include <shlobj.h>
#include <wx/log.h>

#include "AdapterBindings.h"
#include "DriverInstallation.h"
#include "DriverInstallerWatchdog.h"
#include "DriverThreadEnd.h"
#include "InstallerLog.h"
#include "InterruptWorkaround.h"
#include "StackDump.h"
#include "fc/fc.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

// Agent events of an installation.
constexpr int kInstallFailedEvent = 1004;
constexpr int kUpgradeEvent = 1005;
constexpr int kRebootRequiredEvent = 1006;
constexpr int kInstalledEvent = 1007;

constexpr int kPathWithSeparator = wxPATH_GET_VOLUME | wxPATH_GET_SEPARATOR;

CDriverInstallerWatchdog::CDriverInstallerWatchdog(VtaCore::CDom *toDom, std::shared_ptr<InstallStatus> status,
                                                   const wxString &ndisDriverDir, const wxString &wfpDriverDir)
    : CRunnable(false, -1, true),
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
std::int64_t Packed(const DriverVersion &version) {
    auto packed = std::uint64_t{0};
    for (const unsigned short component : {version.major, version.minor, version.build, version.revision})
        packed = (packed << 16) | static_cast<std::uint64_t>(std::int64_t{static_cast<std::int16_t>(component)});
    return static_cast<std::int64_t>(packed);
}

bool CDriverInstallerWatchdog::InstallOrUpdateDriver() {
    bool isLoadTest = false;
    if (dom->Get("vta.mode.loadtest", isLoadTest); isLoadTest)
        return true;
    Heartbeat();
    if (!GetBundledDriverVersion())
        return true;  // nothing to install
    if (GetInstalledDriverVersion())
        DecideByVersions(kNdisTrace);
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
    return InstallWithWorker(kNdisTrace);
}

void CDriverInstallerWatchdog::DecideByVersions(const TraceSite &site) {
    Trace(site, "Installed driver is %d.%d.%d.%d, our copy is %d.%d.%d.%d", installedVersion.major,
          installedVersion.minor, installedVersion.build, installedVersion.revision, ourVersion.major, ourVersion.minor,
          ourVersion.build, ourVersion.revision);
    const std::int64_t installed = Packed(installedVersion);
    const std::int64_t ours = Packed(ourVersion);
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

bool CDriverInstallerWatchdog::InstallWithWorker(const TraceSite &site) {
    auto log = std::make_unique<GrabbedLog>();
    if (!CreateWorker(log->Target()))
        return false;
    if (SetNetworkInterruptWorkaround())
        installerThread->rebootRequired = true;
    unsigned failedStep = NoStep;
    const bool succeeded = AttemptInstallation(&failedStep);
    if (installerThread->End().HasCome(*installerThread, installerThread->isRunning() ? 0 : kEndOfThreadMs)) {
        installLog = log->WholeText();
    } else {
        installLog = log->TextSoFar();
        installerThread->Keep(std::move(log));
    }
    log.reset();
    installLog += extraLog;
    Heartbeat();
    const bool notified = installerThread->rebootRequired;
    if (notified) {
        dom->AgentEventWrite(kRebootRequiredEvent, "1");
        VtaCore::ShowRebootNotification(RebootReasonFilterDriver);
    }
    ReportOutcome(succeeded, failedStep);
    Heartbeat();
    // compat 157: this reboot request has no event 1006
    if (!IsNetworkAsBefore(site) && !notified)
        VtaCore::ShowRebootNotification(RebootReasonFilterDriver);
    Heartbeat();
    return true;
}

bool CDriverInstallerWatchdog::CreateWorker(wxLog *logTarget) {
    installerThread.reset(new (std::nothrow) CDriverInstallerThread(dom, ndisDriverFile.GetPath(kPathWithSeparator),
                                                                    wfpDriverFile.GetPath(kPathWithSeparator),
                                                                    installNeeded, upgradeNeeded, logTarget));
    return installerThread && installerThread->Create(0) == wxTHREAD_NO_ERROR;
}

void CDriverInstallerWatchdog::ReportOutcome(bool succeeded, unsigned failedStep) {
    if (!succeeded) {
        dom->DoAgentEventWriteAndLog(kInstallFailedEvent, kInstallFailedEvent, L"%s|%s", StepName(failedStep),
                                     Wide(installLog));
        return;
    }
    dom->DoAgentEventWrite(kInstalledEvent, L"%d.%d.%d.%d|%d.%d.%d.%d|%s", installedVersion.major,
                           installedVersion.minor, installedVersion.build, installedVersion.revision, ourVersion.major,
                           ourVersion.minor, ourVersion.build, ourVersion.revision, Wide(installLog));
}

bool CDriverInstallerWatchdog::IsNetworkAsBefore(const TraceSite &site) {
    const bool someOnline = std::any_of(adaptersBefore.begin(), adaptersBefore.end(), [](const TcpAdapter &adapter) {
        return adapter.mediaConnectStatus == kMediaConnected;
    });
    if (!someOnline) {
        Trace(site,
              "All of the adapters were offline before we started the install/upgrade. There's no point in checking "
              "the network status.");
        return true;
    }
    wxThread::Sleep(2'000);
    return CheckNetworkHealth(upgradeNeeded);
}

bool CDriverInstallerWatchdog::AttemptInstallation(unsigned *failedStep) {
    installerThread->GetTcpAdapters(adaptersBefore);
    StartOrKill(*installerThread, false);
    wxThread::Sleep(100);
    Heartbeat();
    const bool succeeded = WatchWorker(failedStep);
    if (upgradeNeeded) {
        // compat 72: a failed upgrade leaves the bindings as they are
        if (!succeeded)
            return false;
        installerThread->DbgPrint(L"Restoring network bindings.");
        Heartbeat();
        (void)installerThread->SetFilterBindings(false, &adaptersBefore, false);
    } else {
        Heartbeat();
        installerThread->UnbindUnsuitableAdapters();  // compat 73: also after a failure
        if (!succeeded)
            return false;
    }
    RebindIfStale();
    return true;
}

/// @return the worker's result; false if it was killed.
bool CDriverInstallerWatchdog::WatchWorker(unsigned *failedStep) {
    const std::optional<std::uint32_t> killedIn = WatchAndKill(*installerThread, [this] { Heartbeat(); });
    const bool succeeded = !killedIn && installerThread->succeeded;
    if (!succeeded)
        *failedStep = killedIn.value_or(installerThread->failedStep);
    return succeeded;
}

/// An old driver that is still loaded may go when nothing is bound to it.
void CDriverInstallerWatchdog::RebindIfStale() {
    DriverVersion running;
    if (!GetDriverVersion(*dom, running) || running == ourVersion)
        return;
    Heartbeat();
    installerThread->DbgPrint(
        L"Installation succeeded but the wrong driver version is still loaded. Trying an "
        L"unbind/bind to see if that fixes it.");
    TcpAdapterList adapters;
    installerThread->GetTcpAdapters(adapters);
    (void)installerThread->SetFilterBindings(false, nullptr, false);
    wxThread::Sleep(1'000);
    Heartbeat();
    (void)installerThread->SetFilterBindings(true, &adapters, false);
    wxThread::Sleep(1'000);
    Heartbeat();
    // compat 71: any answer counts as stale, whatever version it has
    if (!GetDriverVersion(*dom, running) && running == ourVersion)
        return;
    Heartbeat();
    installerThread->DbgPrint(
        L"Rebinding didn't help - driver %d.%d.%d.%d is still loaded. Setting the "
        L"reboot-required flag.",
        running.major, running.minor, running.build, running.revision);
    installerThread->rebootRequired = true;
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
