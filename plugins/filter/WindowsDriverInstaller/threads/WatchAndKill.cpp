// A driver thread is watched, and killed if a step overruns. Compiled as a part of WindowsDriverInstaller.cpp.
#include "WatchAndKill.h"

#include <windows.h>
#include <wx/log.h>

#include "WindowsDriverInstaller/reports/StackDump.h"

namespace {

void KillUnstarted(CDriverUninstallerThread &thread) {
    thread.End().Kill(thread);
    (void)thread.End().HasCome(thread, kEndOfThreadMs);
}

/// What becomes of a worker whose step could not be waited for any longer.
enum class OverrunOutcome { GoesOn, IsLeftAlone, IsKilled };

/// The step on top of the stack, if it can't be waited for any longer.
std::optional<std::uint32_t> OverrunStep(CDriverUninstallerThread &thread) {
    const wxCriticalSectionLocker lock(thread.StepLock());
    return thread.CannotBeWaitedFor() ? std::optional(thread.TopStep()) : std::nullopt;
}

/// Kills the worker after its stack was logged, unless it has gone on meanwhile, or is in no inner step. What it was in
/// the midst of stays as it is: nothing releases what it held.
/// @param step  receives the step in which it was killed.
OverrunOutcome KillIfOverrun(CDriverUninstallerThread &thread, std::uint32_t &step) {
    const std::optional<std::uint32_t> overrun = OverrunStep(thread);
    if (!overrun)
        return OverrunOutcome::GoesOn;
    if (*overrun == ThreadRunning)
        return OverrunOutcome::IsLeftAlone;
    const wxString stack = CaptureThreadStack(&thread);
    {
        // Held for the kill alone: a thread that is killed while it waits for a lock may harm those that wait with it.
        const wxCriticalSectionLocker lock(thread.StepLock());
        if (OverrunStep(thread) != overrun)
            return OverrunOutcome::GoesOn;
        wxLogVerbose("Stack trace:\n%s", stack);
        thread.End().Kill(thread);
    }
    (void)thread.End().HasCome(thread, kEndOfThreadMs);
    step = *overrun;
    return OverrunOutcome::IsKilled;
}

std::optional<std::uint32_t> WatchAndKill(CDriverUninstallerThread &thread, const std::function<void()> &heartbeat) {
    while (thread.isRunning()) {
        heartbeat();
        std::uint32_t step = NoStep;
        const OverrunOutcome outcome =
            thread.WaitForStepToFinish() ? OverrunOutcome::GoesOn : KillIfOverrun(thread, step);
        if (outcome == OverrunOutcome::IsKilled)
            return step;
        if (outcome == OverrunOutcome::IsLeftAlone)
            break;
    }
    return std::nullopt;
}

}  // namespace
