#include "ThreadEnd.h"

void ThreadEnd::Kill(wxThread &thread) {
    constexpr DWORD exitCode = static_cast<DWORD>(-1);  // the one that wxThread uses
    const HANDLE own = thread.MSWGetHandle();
    if (own == nullptr)
        return;  // never created, or killed already
    HANDLE duplicate = nullptr;
    if (DuplicateHandle(GetCurrentProcess(), own, GetCurrentProcess(), &duplicate, 0, FALSE, DUPLICATE_SAME_ACCESS) !=
        0)
        killed.reset(duplicate);
    wasKilled = true;
    if (thread.Kill() != wxTHREAD_NO_ERROR && HandleOf(thread) != nullptr)
        (void)TerminateThread(HandleOf(thread), exitCode);
}

bool ThreadEnd::HasCome(const wxThread &thread, DWORD waitMs) const {
    const HANDLE handle = HandleOf(thread);
    if (handle == nullptr)
        return !wasKilled;
    return WaitForSingleObject(handle, waitMs) == WAIT_OBJECT_0;
}

bool ThreadEnd::CanBeAwaited(const wxThread &thread) const {
    return HandleOf(thread) != nullptr;
}

HANDLE ThreadEnd::HandleOf(const wxThread &thread) const {
    return killed ? killed.get() : thread.MSWGetHandle();
}
