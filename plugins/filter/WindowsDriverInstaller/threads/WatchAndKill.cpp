// A driver thread is watched, and killed if a step overruns. Compiled as a part of WindowsDriverInstaller.cpp.
#include "WatchAndKill.h"

#include <windows.h>
#include <wx/log.h>

#include "WindowsDriverInstaller/reports/StackDump.h"

namespace {

void KillUnstartedThread(CDriverUninstallerThread &thread) {
    thread.End().Kill(thread);
    (void)thread.End().HasEnded(thread, kEndOfThreadMs);
}

/// What happens to a worker whose step has overrun.
enum class OverrunOutcome { GoesOn, IsLeftAlone, IsKilled };
struct Overrun {
    OverrunOutcome outcome = OverrunOutcome::GoesOn;
    std::uint32_t step = NoStep;  ///< The step in which it was killed.
};

/// @return the top step if it has overrun or can't be watched any longer.
std::optional<std::uint32_t> WatchedOverrun(CDriverUninstallerThread &thread) {
    const wxCriticalSectionLocker lock(thread.StepLock());
    return thread.CannotWaitForStep() ? std::optional(thread.TopStep()) : std::nullopt;
}

/// Kills the worker after its stack was logged, unless it went on or is in no inner step. compat 93: unfinished
/// work stays as it is: nothing releases what it held.
Overrun KillIfOverrun(CDriverUninstallerThread &thread) {
    const std::optional<std::uint32_t> overrun = WatchedOverrun(thread);
    if (!overrun)
        return {};
    // compat 92: an overrun of the whole is no reason to kill
    if (*overrun == ThreadRunning)
        return {.outcome = OverrunOutcome::IsLeftAlone};
    const wxString stack = CaptureThreadStack(&thread);
    {
        // Held only for the kill: killing a thread that waits for a lock may harm the others that wait for it.
        const wxCriticalSectionLocker lock(thread.StepLock());
        if (WatchedOverrun(thread) != overrun)
            return {};
        wxLogVerbose("Stack trace:\n%s", stack);
        thread.End().Kill(thread);
    }
    // not reached: clang counts nothing after a block with a return
    (void)thread.End().HasEnded(thread, kEndOfThreadMs);
    return {.outcome = OverrunOutcome::IsKilled, .step = *overrun};
}

std::optional<std::uint32_t> WatchAndKill(CDriverUninstallerThread &thread, const std::function<void()> &heartbeat) {
    while (thread.isRunning()) {
        heartbeat();
        if (thread.WaitForStepToFinish())
            continue;
        const Overrun overrun = KillIfOverrun(thread);
        if (overrun.outcome == OverrunOutcome::IsKilled)
            return overrun.step;
        if (overrun.outcome == OverrunOutcome::IsLeftAlone)
            break;
    }
    return std::nullopt;
}

}  // namespace
