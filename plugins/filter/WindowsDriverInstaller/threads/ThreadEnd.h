// Whether a thread has ended, also when it was killed.
#pragma once

#include <windows.h>
#include <wx/thread.h>

#include "common/Unique.h"

/// Longer than a thread needs whose body has returned, or that was killed.
constexpr DWORD kEndOfThreadMs = 5'000;

/// Tells whether a thread has ended. wxThread gives its handle up at a kill, whether or not the thread has ended then.
class ThreadEnd {
public:
    /// Kills the thread, also one that was made and could not be started, or that wxThread takes for paused.
    void Kill(wxThread &thread);
    /// Waits for so many milliseconds.
    /// @return whether the thread has ended, or was never made; false if nobody can tell.
    [[nodiscard]] bool HasCome(const wxThread &thread, DWORD waitMs) const;
    /// @return false if there is nothing to wait for: nobody will ever be able to tell.
    [[nodiscard]] bool CanBeAwaited(const wxThread &thread) const { return HandleOf(thread) != nullptr; }

private:
    [[nodiscard]] HANDLE HandleOf(const wxThread &thread) const {
        return killed ? killed.get() : thread.MSWGetHandle();
    }

    bool wasKilled = false;
    UniqueHandle killed;
};
