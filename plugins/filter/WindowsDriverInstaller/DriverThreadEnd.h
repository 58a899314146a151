// How a driver thread comes to its end: it is watched, killed if a step overruns, and its object is destroyed. Only
// WindowsDriverInstaller.cpp includes this.
//
// Locks. Of this module's only these are held together, the one on the left first:
//   watchdogLock of an InstallStatus, by the script's thread for a stalled watchdog  >  the lock of the stack walks
//   stepLock of a worker, by the worker that logs a step out of order  >  the lock of its grabbed log
// Nobody takes stepLock or watchdogLock while holding another lock. A worker is killed with its stepLock held, so that
// it does not hold that itself; whatever else it holds stays locked. Under stepLock the watcher also logs, and under
// all of them wxThread takes its own lock: neither calls back into this module.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include <windows.h>
#include <wx/log.h>

#include "DriverUninstallerThread.h"
#include "StackDump.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

using UniqueThread = std::unique_ptr<CDriverUninstallerThread>;

/// Longer than a thread needs whose body has returned, or that was killed.
constexpr DWORD kEndOfThreadMs = 5'000;

DWORD WINAPI DestroyEndedThread(void *object) {
    UniqueThread thread(static_cast<CDriverUninstallerThread *>(object));
    if (!thread->End().HasCome(*thread, INFINITE))
        (void)thread.release();  // nobody can tell
    return 0;
}

/// Destroys the object as soon as its thread has ended: one that still runs would work on freed memory. Where nobody
/// can tell the object stays.
void DestroyOnceEnded(UniqueThread thread) {
    // A body that is still at work may take long; it is not waited for here.
    if (thread->End().HasCome(*thread, thread->isRunning() ? 0 : kEndOfThreadMs))
        return;
    if (thread->End().CanBeAwaited(*thread))
        (void)QueueUserWorkItem(&DestroyEndedThread, thread.get(), WT_EXECUTELONGFUNCTION);
    (void)thread.release();  // the work item's; without one it stays
}

/// Starts a driver thread; one that was made but could not be started is killed.
/// @param create  whether the thread has to be made, too.
void StartOrKill(CDriverUninstallerThread &thread, bool create) {
    if (thread.start(50, create, 0))
        return;
    thread.End().Kill(thread);
    (void)thread.End().HasCome(thread, kEndOfThreadMs);
}

/// What becomes of a worker whose step could not be waited for any longer.
enum class Verdict { GoesOn, IsLeftAlone, IsKilled };

/// The step on top of the stack, if it can't be waited for any longer.
std::optional<std::uint32_t> OverrunStep(CDriverUninstallerThread &thread) {
    const wxCriticalSectionLocker lock(thread.StepLock());
    return thread.CannotBeWaitedFor() ? std::optional(thread.TopStep()) : std::nullopt;
}

/// Kills the worker after its stack was logged, unless it went on or is in no inner step. compat 93: what it was in
/// the midst of stays as it is: nothing releases what it held.
/// @param step  receives the step in which it was killed.
Verdict JudgeOverrun(CDriverUninstallerThread &thread, std::uint32_t &step) {
    const std::optional<std::uint32_t> overrun = OverrunStep(thread);
    if (!overrun)
        return Verdict::GoesOn;
    // compat 92: an overrun of the whole is no reason to kill
    if (*overrun == ThreadRunning)
        return Verdict::IsLeftAlone;
    const wxString stack = CaptureThreadStack(&thread);
    {
        // Held for the kill alone: a thread that is killed while it waits for a lock may harm those that wait with it.
        const wxCriticalSectionLocker lock(thread.StepLock());
        if (OverrunStep(thread) != overrun)
            return Verdict::GoesOn;
        wxLogVerbose("Stack trace:\n%s", stack);
        thread.End().Kill(thread);
    }
    (void)thread.End().HasCome(thread, kEndOfThreadMs);
    step = *overrun;
    return Verdict::IsKilled;
}

/// Follows the worker from step to step, and kills it if one overruns.
/// @param heartbeat  called before each wait for a step.
/// @return the step in which it was killed. None if it has ended, or is left alone: it is between steps then, or hangs
///         there, and runs on.
std::optional<std::uint32_t> WatchAndKill(CDriverUninstallerThread &thread, const std::function<void()> &heartbeat) {
    while (thread.isRunning()) {
        heartbeat();
        std::uint32_t step = NoStep;
        const Verdict verdict = thread.WaitForStepToFinish() ? Verdict::GoesOn : JudgeOverrun(thread, step);
        if (verdict == Verdict::IsKilled)
            return step;
        if (verdict == Verdict::IsLeftAlone)
            break;
    }
    return std::nullopt;
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
