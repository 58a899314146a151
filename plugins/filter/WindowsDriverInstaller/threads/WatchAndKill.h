// A driver thread is watched, and killed if a step overruns.
//
// Locks. Of this module's only these are held together, the one on the left first:
//   watchdogLock of an InstallStatus, by the script's thread for a stalled watchdog  >  the lock of the stack walks
//   stepLock of a worker, by the worker that logs a step out of order  >  the lock of its grabbed log
// Nobody takes stepLock or watchdogLock while holding another lock. A worker is killed with its stepLock held, so that
// it does not hold that itself; whatever else it holds stays locked. Under stepLock the watcher also logs, and under
// all of them wxThread takes its own lock: neither calls back into this module.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "CDriverUninstallerThread.h"

namespace {

/// Kills a driver thread that was made and could not be started.
void KillUnstartedThread(CDriverUninstallerThread &thread);

/// Follows the worker from step to step, and kills it if one overruns.
/// @param heartbeat  called before each wait for a step.
/// @return the step in which it was killed. None if it has ended, or is left alone: it is between steps then, or hangs
///         there, and runs on.
std::optional<std::uint32_t> WatchAndKill(CDriverUninstallerThread &thread, const std::function<void()> &heartbeat);

}  // namespace
