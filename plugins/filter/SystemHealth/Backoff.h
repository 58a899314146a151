// How long fail-open lasts before a recovery is tried: kept as settings of the agent, so that a restart goes on with
// the wait that had been reached.
#pragma once

#include <cstdint>

#include "vta_core.h"

struct FailOpenInput;
struct TraceSite;

struct Backoff {
    std::uint64_t backoff_wait = 0;  ///< The current wait in minutes; 0 when the backoff has not started.
    std::uint64_t last_check = 0;    ///< When the wait began, in microseconds since 1601.
};

/// Takes over both settings. One that is empty or no number leaves its variable as it was.
void loadBackoffState(Backoff &backoff, const VtaCore::CDom &dom);
void saveBackoffState(const Backoff &backoff, VtaCore::CDom &dom);
/// Both are 0 afterwards, and the settings say so.
void clearBackoffState(Backoff &backoff, VtaCore::CDom &dom);

// Both begin a wait and save it. `site` is that of the iteration, in whose name they are traced.

/// The shortest wait, with which fail-open begins.
void StartBackoff(Backoff &backoff, const FailOpenInput &input, const TraceSite &site);
/// Twice the last wait, up to the longest.
/// @param overCount  metrics that are past their limit.
void GrowBackoff(Backoff &backoff, const FailOpenInput &input, std::int32_t overCount, const TraceSite &site);
