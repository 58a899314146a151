// The life of the watchdog: it finds out what there is to do, and does it. Compiled as a part of
// WindowsDriverInstaller.cpp.
#include "CDriverInstallerWatchdog.h"

#include <optional>
#include <utility>

#include "DestroyOnceEnded.h"
#include "StartThread.h"
#include "WindowsDriverInstaller/NdisTrace.h"
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

const char *CDriverInstallerWatchdog::Name() const {
    return "CDriverInstallerWatchdog";
}

void CDriverInstallerWatchdog::Heartbeat() {
    installerStatus->lastProgress = VtaCore::SystemTickCount();
}

void CDriverInstallerWatchdog::Run() {
    installerStatus->result = InstallOrUpdateDriver();
    installerStatus->done = true;
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

}  // namespace
