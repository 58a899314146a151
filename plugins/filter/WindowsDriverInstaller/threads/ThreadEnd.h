// Whether a thread has ended, also when it was killed.
#pragma once

#include <windows.h>
#include <wx/thread.h>

#include "common/Unique.h"

/// Longer than a thread needs to end after its body has returned, or after a kill.
constexpr DWORD kEndOfThreadMs = 5'000;

/// Tells whether a thread has ended. wxThread drops its handle at a kill, whether or not the thread has ended yet.
class ThreadEnd {
public:
    /// Kills the thread, even if it was created but not started, or if wxThread takes it for paused.
    void Kill(wxThread &thread);
    /// @param waitMs  how long to wait at most.
    /// @return whether the thread has ended or was never created; false if that is unknown.
    [[nodiscard]] bool HasCome(const wxThread &thread, DWORD waitMs) const;
    /// @return false if there is no handle to wait for: the end will never be known.
    [[nodiscard]] bool CanBeAwaited(const wxThread &thread) const;

private:
    [[nodiscard]] HANDLE HandleOf(const wxThread &thread) const;

    bool wasKilled = false;
    UniqueHandle killed;
};
