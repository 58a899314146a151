// How a driver thread's steps are watched from another thread. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include <algorithm>

#include <wx/log.h>

namespace {

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
        switch (WaitForSingleObject(stepFinished.get(), timeout)) {
            case WAIT_OBJECT_0:
            case WAIT_ABANDONED:
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

bool CDriverUninstallerThread::CannotBeWaitedFor() {
    return waitFailed || HasTopStepOverrun();
}

}  // namespace
