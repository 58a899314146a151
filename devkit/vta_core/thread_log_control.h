// What the host can learn about the agent's threads while they run: their log lines, as they are written. The log
// itself keeps those until the main thread shows them, or in a thread's own log.
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

/// Called on the thread concerned, unless another is named. Several calls may run at a time. It must not wait for
/// another thread: the thread that it is called on may be killed.
class ThreadListener {
public:
    virtual ~ThreadListener() = default;
    /// A CRunnable begins its body. @param name  its own.
    virtual void OnThreadBegin(DWORD thread, const char *name) = 0;
    virtual void OnThreadLine(const ThreadLine &line) = 0;
    /// It has ended its body, or is about to be killed, which the killing thread reports.
    virtual void OnThreadEnd(DWORD thread, bool killed) = 0;
};

/// For threads that begin from now on. @param listener  null for none; once set it must exist until the process ends.
VTA_CORE_API void SetThreadListener(ThreadListener *listener);

}  // namespace VtaCore::Control
