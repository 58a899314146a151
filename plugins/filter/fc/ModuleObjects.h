// The module-wide objects. They are constructed when the library is loaded, in the order in which
// ModuleObjects.cpp defines them, and destroyed when it is unloaded.
#pragma once

#include <cstdint>

#include <windows.h>
#include <wx/string.h>
#include <wx/thread.h>

#include "ConnMetricsMap.h"

class StagingMetrics;

/// Guards `mergedMetrics` and the writing of `lastMetricsUpdate`; the test whether a fold is due reads it
/// without.
extern wxCriticalSection connMetricsLock;
/// Receives every AddToConnMetrics. No lock guards it: its users keep to one thread at a time.
extern StagingMetrics stagingMetrics;
/// The fold of past staging rounds, drained by GetConnMetrics.
extern ConnMetricsMap mergedMetrics;
/// Time of the last fold, in seconds of `_time64`; at first the time of loading.
extern std::int64_t lastMetricsUpdate;

using PrintFunction = int(void *, const char *, ...);
/// compat 2: the driver-interface library's own print function; nothing reads it
extern PrintFunction *libraryPrint;

/// The comment of the files in a diagnostic package: none.
extern const wxString emptyText;

/// Guards the one-time call of `vti_set_profiler`.
extern wxCriticalSection moduleInitLock;
/// Guards the metrics, rates, backoff and switch of the health subsystem.
extern wxCriticalSection sysHealthLock;

/// 1 once the profiler's words were handed to the driver-interface library.
extern std::uint8_t profilerInstalled;
/// This library, for the look-up of its messages.
extern HINSTANCE moduleInstance;
