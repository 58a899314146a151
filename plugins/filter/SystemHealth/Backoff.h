// How long fail-open lasts before a recovery is tried: kept as settings of the agent, so that the current
// wait survives a restart.
#pragma once

#include <cstdint>

#include "vta_core.h"

struct FailOpenInput;

struct Backoff {
    std::uint64_t backoff_wait = 0;  ///< The current wait in minutes; 0 when the backoff has not started.
    std::uint64_t last_check = 0;    ///< When the wait began, in microseconds since 1601.
};

/// Takes over both settings. One that is empty or no number leaves its variable as it was.
void loadBackoffState(Backoff &backoff, const VtaCore::CDom &dom);
void saveBackoffState(const Backoff &backoff, VtaCore::CDom &dom);
/// Both are 0 afterwards, and the settings say so.
void clearBackoffState(Backoff &backoff, VtaCore::CDom &dom);

// Both begin a wait and save it.

/// The shortest wait, with which fail-open begins.
void StartBackoff(Backoff &backoff, const FailOpenInput &input);
/// Twice the last wait, up to the longest.
/// @param overCount  metrics that are past their limit.
void GrowBackoff(Backoff &backoff, const FailOpenInput &input, std::int32_t overCount);
