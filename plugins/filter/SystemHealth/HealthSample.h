// What an iteration goes by.
#pragma once

#include <cstdint>
#include <optional>

#include "FailOpen.h"
#include "vti.h"

struct HealthState;
struct TraceSite;

/// The host and the driver at one moment.
struct HealthSample {
    Action failure = actionNormal;  ///< Another one is what the iteration is to end with; the rest says nothing then.
    double rqlen = 0.0;
    std::uint32_t numCpus = 0;
    std::optional<ScanMetricsRecord> scan{};
};

/// Measures both; the memory's figures go into the state. Holds the caller as long as the run queue is measured.
/// @param site  of the iteration, in whose name it is traced.
HealthSample TakeHealthSample(HealthState &health, const TraceSite &site);
