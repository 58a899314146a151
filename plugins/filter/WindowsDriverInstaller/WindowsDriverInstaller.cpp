// The driver threads. Their classes live in this file's unnamed namespace; each has private headers of its own, which
// no other file of the module includes; those that are named after a subject hold the bodies. Tests that need the
// classes include this file.

#include <initguid.h>

#include "DriverFilesRemoval.h"
#include "DriverRemoval.h"
#include "DriverThreadEnd.h"
#include "DriverThreadNetCfg.h"
#include "DriverThreadSteps.h"
#include "DriverThreads.h"
#include "DriverUninstallerThread.h"
#include "StackDump.h"

namespace {

/// @return false when a step has overrun or could not be waited for. True when the worker has ended, and when no step
///         is to blame: it is between steps then, or hangs there, and runs on.
bool WatchSteps(CDriverUninstallerThread &thread) {
    while (thread.isRunning()) {
        if (!thread.WaitForStepToFinish())
            return thread.TopStep() == ThreadRunning;
    }
    return true;
}

}  // namespace

bool UninstallDriver(VtaCore::CDom &dom, const wxString &ndisDriverDir, const wxString &wfpDriverDir) {
    PrepareStackDump();
    auto thread = std::make_unique<CDriverUninstallerThread>(&dom, ndisDriverDir, wfpDriverDir);
    (void)thread->start(50, true, 0);  // a thread that can't start isn't running
    wxThread::Sleep(100);
    if (!WatchSteps(*thread)) {
        const wxString stack = CaptureThreadStack(thread.get());
        wxLogVerbose("Stack trace:\n%s", stack);
        if (!KillThread(*thread))
            DestroyWhenEnded(std::move(thread));
        return false;  // also if the worker got through meanwhile
    }
    const bool succeeded = thread->succeeded;
    if (thread->isRunning())
        DestroyWhenEnded(std::move(thread));
    return succeeded;
}
