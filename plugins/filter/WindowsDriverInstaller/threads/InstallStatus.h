// Progress of an installation.
#pragma once

#include <atomic>
#include <cstdint>

#include <wx/thread.h>

namespace {

class CDriverInstallerWatchdog;

/// What the calling thread sees of an installation. Both threads share it: the caller may return first.
struct InstallStatus {
    std::atomic<bool> done{false};  ///< Set after the result.
    std::atomic<bool> result{false};
    std::atomic<std::uint32_t> lastProgress{0};  ///< Milliseconds of VtaCore::SystemTickCount at the last heartbeat.

    /// The watchdog while it exists, for its stack. Nothing else needs the lock.
    wxCriticalSection watchdogLock;
    CDriverInstallerWatchdog *watchdog = nullptr;
};

}  // namespace
