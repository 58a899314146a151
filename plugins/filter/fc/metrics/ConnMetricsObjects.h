// The module-wide objects of the connection metrics. ModuleObjects.cpp defines them.
#pragma once

#include <cstdint>

#include <wx/thread.h>

#include "ConnMetricsMap.h"
#include "StagingMetrics.h"

/// Guards `mergedMetrics` and the writing of `lastMetricsUpdate`; the test whether a fold is due reads it
/// without.
extern wxCriticalSection connMetricsLock;
/// Receives every AddToConnMetrics. No lock guards it: its users keep to one thread at a time.
extern StagingMetrics stagingMetrics;
/// The fold of past staging rounds, drained by GetConnMetrics.
extern ConnMetricsMap mergedMetrics;
/// Time of the last fold, in seconds of `_time64`; at first the time of loading.
extern std::int64_t lastMetricsUpdate;
