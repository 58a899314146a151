// One sample of host and driver.
#pragma once

#include <cstdint>
#include <optional>

#include "FailOpen.h"
#include "vti.h"

struct HealthState;
struct TraceSite;

/// The host and the driver at one moment.
struct HealthSample {
    Action failure = actionNormal;  ///< Otherwise the iteration's action; the other fields are then unset.
    double rqlen = 0.0;
    std::uint32_t numCpus = 0;
    std::optional<ScanMetricsRecord> scan{};
};

/// Measures both; the memory's figures go into the state. Holds the caller as long as the run queue is measured.
/// @param site  of the iteration, in whose name it is traced.
HealthSample TakeHealthSample(HealthState &health, const TraceSite &site);
