// What the host can hear of the agent's threads while they run: their log lines, as they are written. The log itself
// keeps those until the main thread shows them, or in a log of the thread's own.
#pragma once

#include <windows.h>

#include "vta_core.h"

namespace VtaCore::Control {

/// A log line of one of the agent's threads.
struct ThreadLine {
    DWORD thread;  ///< Its id.
    wxLogLevel level;
    double time;  ///< Seconds since 1970, UTC.
    wxString text;
};

/// Is told on the thread where it happens, unless another is named. Several calls may be under way at a time. It must
/// not wait for another thread: the thread that it is called on may be killed.
class ThreadListener {
public:
    virtual ~ThreadListener() = default;
    /// A CRunnable begins its body. @param name  its own.
    virtual void OnThreadBegin(DWORD thread, const char *name) = 0;
    virtual void OnThreadLine(const ThreadLine &line) = 0;
    /// It has ended its body, or is about to be killed, of which the killing thread tells.
    virtual void OnThreadEnd(DWORD thread, bool killed) = 0;
};

/// Of threads that begin from now on.
/// @param listener  null for none; one that was set must stay until the process ends.
VTA_CORE_API void SetThreadListener(ThreadListener *listener);

}  // namespace VtaCore::Control
