// How long fail-open lasts before a recovery is tried: kept as settings of the agent, so that a restart goes on with
// the wait that had been reached. Under sysHealthLock, but where the subsystem turns out to be switched off.
#pragma once

#include <cstdint>

#include "vta_core.h"

/// The current wait in minutes; 0 when the backoff has not started.
extern std::uint64_t backoff_wait;
/// When the wait began, in microseconds since 1601.
extern std::uint64_t last_check;

/// Takes over both settings. One that is empty or no number leaves its variable as it was.
void loadBackoffState(const VtaCore::CDom &dom);
void saveBackoffState(VtaCore::CDom &dom);
/// Both are 0 afterwards, and the settings say so.
void clearBackoffState(VtaCore::CDom &dom);
