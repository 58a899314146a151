// An installation as the watchdog runs it: its worker, the bindings afterwards, and its outcome. Compiled as a part
// of WindowsDriverInstaller.cpp.
#include "CDriverInstallerWatchdog.h"

#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "StartThread.h"
#include "WatchAndKill.h"
#include "WindowsDriverInstaller/drivers/InterruptWorkaround.h"
#include "WindowsDriverInstaller/reports/GrabbedLog.h"
#include "WindowsDriverInstaller/reports/InstallEvents.h"

namespace {

constexpr int kPathWithSeparator = wxPATH_GET_VOLUME | wxPATH_GET_SEPARATOR;

std::optional<bool> CDriverInstallerWatchdog::InstallWithWorker() {
    auto log = std::make_unique<GrabbedLog>();
    if (!CreateInstallationWorker(log->Target()))
        return std::nullopt;
    if (SetNetworkInterruptWorkaround())
        installerThread->rebootRequired = true;
    unsigned failedStep = NoStep;
    const bool succeeded = AttemptInstallation(&failedStep);
    if (installerThread->End().HasCome(*installerThread, installerThread->isRunning() ? 0 : kEndOfThreadMs)) {
        installLog = log->WholeText();
    } else {
        installLog = log->TextSoFar();
        installerThread->KeepLog(std::move(log));
    }
    log.reset();
    installLog += extraLog;
    Heartbeat();
    const bool notified = installerThread->rebootRequired;
    if (notified) {
        dom->AgentEventWrite(kRebootRequiredEvent, "1");
        VtaCore::ShowRebootNotification(RebootReasonFilterDriver);
    }
    ReportInstallationOutcome(succeeded, failedStep);
    Heartbeat();
    return notified;
}

bool CDriverInstallerWatchdog::CreateInstallationWorker(wxLog *logTarget) {
    installerThread.reset(new (std::nothrow) CDriverInstallerThread(dom, ndisDriverFile.GetPath(kPathWithSeparator),
                                                                    wfpDriverFile.GetPath(kPathWithSeparator),
                                                                    installNeeded, upgradeNeeded, logTarget));
    return installerThread && installerThread->Create(0) == wxTHREAD_NO_ERROR;
}

void CDriverInstallerWatchdog::ReportInstallationOutcome(bool succeeded, unsigned failedStep) {
    if (!succeeded) {
        dom->DoAgentEventWriteAndLog(kInstallFailedEvent, kInstallFailedEvent, L"%s|%s", StepName(failedStep),
                                     Wide(installLog));
        return;
    }
    dom->DoAgentEventWrite(kInstalledEvent, L"%d.%d.%d.%d|%d.%d.%d.%d|%s", installedVersion.major,
                           installedVersion.minor, installedVersion.build, installedVersion.revision, ourVersion.major,
                           ourVersion.minor, ourVersion.build, ourVersion.revision, Wide(installLog));
}

bool CDriverInstallerWatchdog::AttemptInstallation(unsigned *failedStep) {
    installerThread->GetTcpAdapters(adaptersBefore);
    if (!StartMadeThread(*installerThread))
        KillUnstartedThread(*installerThread);
    wxThread::Sleep(kThreadStartMs);
    Heartbeat();
    const bool succeeded = WatchInstallation(failedStep);
    if (upgradeNeeded) {
        // compat 72: a failed upgrade leaves the bindings as they are
        if (!succeeded)
            return false;
        installerThread->DbgPrint(L"Restoring network bindings.");
        Heartbeat();
        (void)installerThread->RestoreBindings(adaptersBefore);
    } else {
        Heartbeat();
        installerThread->UnbindUnsuitableAdapters();  // compat 73: also after a failure
        if (!succeeded)
            return false;
    }
    RebindAfterInstallation();
    return true;
}

/// @return the worker's result; false if it was killed.
bool CDriverInstallerWatchdog::WatchInstallation(unsigned *failedStep) {
    const std::optional<std::uint32_t> killedIn = WatchAndKill(*installerThread, [this] { Heartbeat(); });
    const bool succeeded = !killedIn && installerThread->succeeded;
    if (!succeeded)
        *failedStep = killedIn.value_or(installerThread->failedStep);
    return succeeded;
}

/// An old driver that is still loaded may be unloaded when nothing is bound to it.
void CDriverInstallerWatchdog::RebindAfterInstallation() {
    DriverVersion running;
    if (!GetDriverVersion(*dom, running) || running == ourVersion)
        return;
    Heartbeat();
    installerThread->DbgPrint(
        L"Installation succeeded but the wrong driver version is still loaded. Trying an "
        L"unbind/bind to see if that fixes it.");
    TcpAdapterList adapters;
    installerThread->GetTcpAdapters(adapters);
    (void)installerThread->UnbindAll();
    wxThread::Sleep(kRebindPauseMs);
    Heartbeat();
    (void)installerThread->RestoreBindings(adapters);
    wxThread::Sleep(kRebindPauseMs);
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
