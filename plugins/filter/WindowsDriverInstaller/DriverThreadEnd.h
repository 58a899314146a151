// What becomes of a driver thread's object whose thread still runs. Only WindowsDriverInstaller.cpp includes this.
#pragma once

#include <memory>
#include <utility>

#include <windows.h>

#include "DriverUninstallerThread.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

using UniqueThread = std::unique_ptr<CDriverUninstallerThread>;

/// Whether the thread itself is there yet, whatever has become of its body.
bool StillRuns(const wxThread &thread) {
    const HANDLE handle = thread.MSWGetHandle();
    return handle != nullptr && WaitForSingleObject(handle, 0) == WAIT_TIMEOUT;
}

/// Whether the thread itself has ended, or does within some seconds.
bool EndsSoon(HANDLE thread) {
    constexpr DWORD waitMs = 5'000;
    return thread == nullptr || WaitForSingleObject(thread, waitMs) != WAIT_TIMEOUT;
}

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

/// Kills a driver thread. What it was in the midst of stays as it is: nothing releases what it held, and locks of this
/// process that it held stay locked.
/// @return false if it could not be killed and runs on.
bool KillThread(wxThread &thread) {
    // A killed thread may run on for a moment, and wxThread gives up its handle at once.
    HANDLE handle = nullptr;
    if (DuplicateHandle(GetCurrentProcess(), thread.MSWGetHandle(), GetCurrentProcess(), &handle, SYNCHRONIZE, FALSE,
                        0) == 0)
        handle = nullptr;
    const bool killed = thread.Kill() == wxTHREAD_NO_ERROR;
    const bool ended = EndsSoon(handle);
    if (handle != nullptr)
        (void)CloseHandle(handle);
    return killed || ended;
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
