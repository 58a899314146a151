// The end of a driver thread's object. Compiled as a part of WindowsDriverInstaller.cpp.
#include "DestroyOnceEnded.h"

#include <windows.h>

namespace {

DWORD WINAPI DestroyEndedThread(void *object) {
    UniqueThread thread(static_cast<CDriverUninstallerThread *>(object));
    if (!thread->End().HasEnded(*thread, INFINITE))
        (void)thread.release();  // its end can't be detected
    return 0;
}

void DestroyOnceEnded(UniqueThread thread) {
    // A body that is still running may take long: don't wait for it here.
    if (thread->End().HasEnded(*thread, thread->isRunning() ? 0 : kEndOfThreadMs))
        return;
    if (thread->End().CanWait(*thread))
        (void)QueueUserWorkItem(&DestroyEndedThread, thread.get(), WT_EXECUTELONGFUNCTION);
    (void)thread.release();  // the work item owns it now; if none was queued, it is leaked
}

}  // namespace
