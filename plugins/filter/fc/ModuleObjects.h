// The module-wide objects. They are constructed when the library is loaded, in the order in which
// ModuleObjects.cpp defines them, and destroyed when it is unloaded. common/SharedObjects.h
// declares those that other folders use.
#pragma once

#include <cstdint>

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
/// The driver-interface library's own print function. Nothing reads it; it keeps its place.
extern PrintFunction *libraryPrint;

/// Guards the one-time call of `vti_set_profiler`.
extern wxCriticalSection moduleInitLock;

/// 1 once the profiler's words were handed to the driver-interface library.
extern std::uint8_t profilerInstalled;
