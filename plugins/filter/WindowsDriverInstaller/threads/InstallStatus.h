// How far an installation has come.
#pragma once

#include <atomic>
#include <cstdint>

#include <wx/thread.h>

namespace {

class CDriverInstallerWatchdog;

/// How the thread that called from Lua follows an installation. Both threads hold it: the caller may go first.
struct InstallStatus {
    std::atomic<bool> done{false};  ///< Set after the result.
    std::atomic<bool> result{false};
    std::atomic<std::uint32_t> lastProgress{0};  ///< Milliseconds of VtaCore::SystemTickCount at the last heartbeat.

    /// The watchdog while it lives, for its stack. Nothing else needs the lock.
    wxCriticalSection watchdogLock;
    CDriverInstallerWatchdog *watchdog = nullptr;
};

}  // namespace
