// The driver threads. Their classes live in this file's unnamed namespace; each has private headers of its own, which
// no other file of the module includes; those that are named after a subject hold the bodies. Tests that need the
// classes include this file.

#include <initguid.h>

#include "AdapterBindings.h"
#include "AdapterRecords.h"
#include "DriverFilesRemoval.h"
#include "DriverInstallation.h"
#include "DriverInstallerThread.h"
#include "DriverInstallerWatchdog.h"
#include "DriverRemoval.h"
#include "DriverThreadEnd.h"
#include "DriverThreadNetCfg.h"
#include "DriverThreadSteps.h"
#include "DriverThreads.h"
#include "DriverUninstallerThread.h"
#include "DriverWatch.h"
#include "NetworkRecovery.h"
#include "StackDump.h"

namespace {

/// The watchdog has made no progress for an hour. compat 150: it is neither ended nor freed
void ReportStall(VtaCore::CDom &dom, InstallStatus &status) {
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
bool FollowInstallation(VtaCore::CDom &dom, InstallStatus &status) {
    constexpr std::uint32_t warnAfterMs = 60'000;
    constexpr std::uint32_t giveUpAfterMs = 3'600'000;
    std::uint32_t lastWarned = 0;
    while (!dom.ShouldExit(0, nullptr) && !status.done) {
        const std::uint32_t lastProgress = status.lastProgress;
        const std::uint32_t elapsed = VtaCore::SystemTickCount() - lastProgress;
        if (elapsed > giveUpAfterMs) {
            ReportStall(dom, status);
            return false;
        }
        // Once for each stall.
        if (elapsed > warnAfterMs && lastProgress != lastWarned) {
            lastWarned = lastProgress;
            wxLogWarning("Installer thread has not made any progress in the last %u seconds.", elapsed / 1000);
        }
        wxThread::Sleep(250);
    }
    return status.result;
}

}  // namespace

bool InstallOrUpdateDriver(VtaCore::CDom &dom, const wxString &ndisDriverDir, const wxString &wfpDriverDir) {
    PrepareStackDump();
    const auto status = std::make_shared<InstallStatus>();
    auto watchdog = std::make_unique<CDriverInstallerWatchdog>(&dom, status, ndisDriverDir, wfpDriverDir);
    RemoveHealthCheckFiles();
    if (!watchdog->start(50, true, 0)) {
        // Made, and never to run. Not by wxThread, whose kill of a detached thread may delete the object.
        (void)TerminateThread(watchdog->MSWGetHandle(), 0);
        return false;
    }
    (void)watchdog.release();  // it frees itself
    return FollowInstallation(dom, *status);
}

bool UninstallDriver(VtaCore::CDom &dom, const wxString &ndisDriverDir, const wxString &wfpDriverDir) {
    PrepareStackDump();
    auto thread = std::make_unique<CDriverUninstallerThread>(&dom, ndisDriverDir, wfpDriverDir);
    StartOrKill(*thread, true);
    wxThread::Sleep(100);
    const bool wasKilled = WatchAndKill(*thread, [] {}).has_value();
    const bool succeeded = !wasKilled && thread->succeeded;
    DestroyOnceEnded(std::move(thread));
    return succeeded;
}
