// The driver threads. Their classes live in this file's unnamed namespace; each has private headers of its own, which
// no other file includes.

#include <initguid.h>

#include "DriverFilesRemoval.h"
#include "DriverRemoval.h"
#include "DriverThreadNetCfg.h"
#include "DriverThreadSteps.h"
#include "DriverThreads.h"
#include "DriverUninstallerThread.h"
#include "StackDump.h"

namespace {

using UniqueThread = std::unique_ptr<CDriverUninstallerThread>;

DWORD WINAPI DestroyEndedThread(void *object) {
    const UniqueThread thread(static_cast<CDriverUninstallerThread *>(object));
    (void)WaitForSingleObject(thread->MSWGetHandle(), INFINITE);
    return 0;
}

/// For an object whose thread still runs and would work on freed memory: destroys it as soon as the thread has ended.
void DestroyWhenEnded(UniqueThread thread) {
    (void)QueueUserWorkItem(&DestroyEndedThread, thread.get(), WT_EXECUTELONGFUNCTION);
    (void)thread.release();  // the work item's; if there is none, the object stays
}

/// A step has overrun. What the worker was in the midst of stays as it is.
void KillWorker(UniqueThread thread) {
    const wxString stack = CaptureThreadStack(thread.get());
    wxLogVerbose("Stack trace:\n%s", stack);
    if (thread->Kill() == wxTHREAD_MISC_ERROR)
        DestroyWhenEnded(std::move(thread));
}

/// @return false when a step has overrun; true when the worker has ended, or has nothing left to do but to end.
bool WatchSteps(CDriverUninstallerThread &thread) {
    while (thread.isRunning()) {
        if (!thread.WaitForStepToFinish())
            return thread.TopStep() == ThreadRunning;
    }
    return true;
}

}  // namespace

bool UninstallDriver(VtaCore::CDom &dom, const wxString &ndisDriverDir, const wxString &wfpDriverDir) {
    auto thread = std::make_unique<CDriverUninstallerThread>(&dom, ndisDriverDir, wfpDriverDir);
    (void)thread->start(50, true, 0);
    wxThread::Sleep(100);
    if (!WatchSteps(*thread)) {
        KillWorker(std::move(thread));
        return false;
    }
    const bool succeeded = thread->succeeded;
    if (thread->isRunning())
        DestroyWhenEnded(std::move(thread));
    return succeeded;
}
