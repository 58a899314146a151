// All that the health subsystem knows: one object.
#pragma once

#include <cstdint>

#include <wx/thread.h>

#include "Backoff.h"
#include "HealthConfig.h"
#include "HealthMetrics.h"
#include "HostMemory.h"
#include "ScanMetrics.h"

struct HealthState {
    // Read and written by iterations alone, of which there is one at a time. They take no lock for it.
    HealthConfig config;  ///< Rebuilt from nothing by each. Any thread may ask for its port.
    HostMemory memory;
    std::uint64_t lastIterationTime = 0;  ///< compat 49: `now` of the previous one, even of a failed one

    /// Guards what follows. Where an iteration finds the subsystem switched off it clears the backoff without.
    wxCriticalSection lock;
    ScanRates scan;
    HealthMetrics metrics;
    Backoff backoff;
    /// Time of the last transition to fail-open; 0 after a recovery and after a restart. Only the log reads it.
    std::uint64_t activationTime = 0;
    /// 1 once an iteration has ended otherwise than with actionDisabled.
    std::int32_t sysHealthEnabled = 0;
};

/// fc/ModuleObjects.cpp defines it, since the order of the definitions there is the order of construction.
extern HealthState healthState;
