// The functions that run the driver threads, as Lua calls them. The threads' classes live in this file's unnamed
// namespace, so their bodies are compiled here, too. A test that needs the classes includes this file.
#include "WindowsDriverInstaller.h"

#include <cstdint>
#include <memory>
#include <utility>

#include <windows.h>
#include <wx/log.h>
#include <wx/string.h>
#include <wx/thread.h>

#include "WindowsDriverInstaller/cleanup/HealthCheckFiles.h"
#include "WindowsDriverInstaller/reports/InstallEvents.h"
#include "WindowsDriverInstaller/reports/StackDump.h"
#include "WindowsDriverInstaller/threads/StartThread.h"
#include "WindowsDriverInstaller/threads/CDriverInstallerThread.Adapters.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerThread.Bindings.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerThread.Callout.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerThread.FilterComponent.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerThread.InfFiles.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerThread.UnsuitableAdapters.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerThread.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerWatchdog.AdapterRestart.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerWatchdog.ArpAndTraffic.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerWatchdog.Installation.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerWatchdog.NetworkRecovery.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerWatchdog.Versions.cpp"
#include "WindowsDriverInstaller/threads/CDriverInstallerWatchdog.cpp"
#include "WindowsDriverInstaller/threads/CDriverUninstallerThread.Callout.cpp"
#include "WindowsDriverInstaller/threads/CDriverUninstallerThread.FilterComponent.cpp"
#include "WindowsDriverInstaller/threads/CDriverUninstallerThread.InfFiles.cpp"
#include "WindowsDriverInstaller/threads/CDriverUninstallerThread.Log.cpp"
#include "WindowsDriverInstaller/threads/CDriverUninstallerThread.NetCfg.cpp"
#include "WindowsDriverInstaller/threads/CDriverUninstallerThread.Orphans.cpp"
#include "WindowsDriverInstaller/threads/CDriverUninstallerThread.Registry.cpp"
#include "WindowsDriverInstaller/threads/CDriverUninstallerThread.Steps.cpp"
#include "WindowsDriverInstaller/threads/CDriverUninstallerThread.cpp"
#include "WindowsDriverInstaller/threads/DestroyOnceEnded.cpp"
#include "WindowsDriverInstaller/threads/WatchAndKill.cpp"

namespace {

/// The watchdog has made no progress for an hour. compat 150: it is neither ended nor freed
void ReportInstallOrUpdateStall(VtaCore::CDom &dom, InstallStatus &status) {
    VtaCore::ShowRebootNotification(RebootReasonFilterDriver);
    wxString stack;
    {
        const wxCriticalSectionLocker lock(status.watchdogLock);
        if (status.watchdog != nullptr)
            stack = CaptureThreadStack(status.watchdog);
    }
    dom.DoAgentEventWriteAndLog(kInstallFailedEvent, kInstallFailedEvent, L"OverallInstall|%s", Wide(stack));
}

/// @return false when there was no progress for an hour; otherwise what the watchdog made of it so far.
bool FollowInstallOrUpdate(VtaCore::CDom &dom, InstallStatus &status) {
    constexpr std::uint32_t warnAfterMs = 60'000;
    constexpr std::uint32_t giveUpAfterMs = 3'600'000;
    constexpr unsigned long pollMs = 250;
    std::uint32_t lastWarned = 0;
    while (!dom.ShouldExit(0, nullptr) && !status.done) {
        const std::uint32_t lastProgress = status.lastProgress;
        const std::uint32_t elapsed = VtaCore::SystemTickCount() - lastProgress;
        if (elapsed > giveUpAfterMs) {
            ReportInstallOrUpdateStall(dom, status);
            return false;
        }
        // Once per stall.
        if (elapsed > warnAfterMs && lastProgress != lastWarned) {
            lastWarned = lastProgress;
            wxLogWarning("Installer thread has not made any progress in the last %u seconds.", elapsed / 1000);
        }
        wxThread::Sleep(pollMs);
    }
    return status.result;
}

}  // namespace

bool InstallOrUpdateDriver(VtaCore::CDom &dom, const wxString &ndisDriverDir, const wxString &wfpDriverDir) {
    PrepareStackDump();
    const auto status = std::make_shared<InstallStatus>();
    auto watchdog = std::make_unique<CDriverInstallerWatchdog>(&dom, status, ndisDriverDir, wfpDriverDir);
    RemoveHealthCheckFiles();
    if (!MakeAndStartThread(*watchdog)) {
        // The thread was created and must never run. wxThread's own kill may delete a detached object, so it is not
        // used.
        (void)TerminateThread(watchdog->MSWGetHandle(), 0);
        return false;
    }
    (void)watchdog.release();  // it deletes itself
    return FollowInstallOrUpdate(dom, *status);
}

bool UninstallDriver(VtaCore::CDom &dom, const wxString &ndisDriverDir, const wxString &wfpDriverDir) {
    PrepareStackDump();
    auto thread = std::make_unique<CDriverUninstallerThread>(&dom, ndisDriverDir, wfpDriverDir);
    if (!MakeAndStartThread(*thread))
        KillUnstartedThread(*thread);
    wxThread::Sleep(kThreadStartMs);
    const bool wasKilled = WatchAndKill(*thread, [] {}).has_value();
    const bool succeeded = !wasKilled && thread->succeeded;
    DestroyOnceEnded(std::move(thread));
    return succeeded;
}
