// A driver thread's stack of steps, and how another thread watches it. Compiled as a part of
// WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include <algorithm>
#include <utility>

#include <wx/log.h>

namespace {

void CDriverUninstallerThread::StartStep(InstallerStep step) {
    StartStep(step, StepLimitSeconds(step));
}

void CDriverUninstallerThread::StartStep(std::uint32_t step, std::uint32_t limitSeconds) {
    if (!IsSilentStep(step))
        DbgPrint(L">%s. %ds max", StepName(step), static_cast<int>(limitSeconds));
    auto record = std::make_unique<StepRecord>(StepRecord{limitSeconds, step, VtaCore::SystemTickCount()});
    const wxCriticalSectionLocker lock(stepLock);
    stepStack.push_back(std::move(record));
}

void CDriverUninstallerThread::EndStep(std::uint32_t step) {
    {
        const wxCriticalSectionLocker lock(stepLock);
        if (!stepStack.empty()) {
            const std::uint32_t top = stepStack.back()->step;
            if (top != step)  // compat 88: warns with the lock held, and still pops the top step
                wxLogWarning("Consistency check - we just completed %s but %s was on top of the step stack.",
                             StepName(step), StepName(top));
            stepStack.pop_back();
        }
    }
    // Outside the lock, so the watcher may have moved on when this is logged.
    if (!IsSilentStep(step))
        DbgPrint(L"<%s", StepName(step));
    (void)SetEvent(stepFinished.get());
}

std::uint32_t CDriverUninstallerThread::TopStep() {
    const wxCriticalSectionLocker lock(stepLock);
    return stepStack.empty() ? NoStep : stepStack.back()->step;
}

void CDriverUninstallerThread::NoteFailedStep() {
    std::uint32_t none = NoStep;
    (void)failedStep.compare_exchange_strong(none, TopStep());
}

bool CDriverUninstallerThread::WaitForStepToFinish() {
    // A new step signals nothing, so the watcher must poll.
    constexpr DWORD pollMs = 1'000;
    constexpr unsigned long emptyStackPauseMs = 100;
    waitFailed = false;
    const StepRecord *watched = nullptr;
    for (;;) {
        DWORD timeout = pollMs;
        {
            const wxCriticalSectionLocker lock(stepLock);
            if (stepStack.empty()) {
                wxThread::Sleep(emptyStackPauseMs);  // compat 89: with the lock held; the worker's next step waits
                return true;
            }
            const StepRecord *const top = stepStack.back().get();
            if (watched != nullptr && top != watched)
                return true;
            watched = top;
            timeout = std::min(timeout, RestOfTopStep());
        }
        // A step that ends between the poll and the wait leaves the event set. Two ends may cause one wake-up.
        switch (WaitForSingleObject(stepFinished.get(), timeout)) {  // not reached: clang counts nothing after a return
            case WAIT_OBJECT_0:
            case WAIT_ABANDONED:  // not reached: only a mutex is abandoned, and this is an event
                return true;
            case WAIT_TIMEOUT:
                if (HasTopStepOverrun())
                    return false;
                break;
            default:
                wxLogSysError("CDriverUninstallerThread::WaitForStepToFinish() - WaitForSingleObject() failed:");
                waitFailed = true;
                return false;
        }
    }
}

/// Only the top step is watched, but the clocks of the others keep running.
DWORD CDriverUninstallerThread::RestOfTopStep() const {
    const StepRecord &top = *stepStack.back();
    const std::uint32_t limit = top.limitSeconds * 1000;
    const std::uint32_t waited = VtaCore::SystemTickCount() - top.startTick;
    return waited > limit ? 0 : limit - waited;
}

bool CDriverUninstallerThread::HasTopStepOverrun() {
    const wxCriticalSectionLocker lock(stepLock);
    return !stepStack.empty() && RestOfTopStep() == 0;
}

bool CDriverUninstallerThread::CannotWaitForStep() {
    return waitFailed || HasTopStepOverrun();
}

wxCriticalSection &CDriverUninstallerThread::StepLock() {
    return stepLock;
}

}  // namespace
