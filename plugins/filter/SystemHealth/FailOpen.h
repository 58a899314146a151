// The fail-open state machine: when the filter is to move to fail-open, and when it may come back.
#pragma once

#include <cstdint>
#include <optional>

#include "common/Trace.h"
#include "vta_core.h"

struct HealthState;

/// What an iteration tells its caller. The numbers are part of the Lua interface; 3 and 4 are not in use.
enum Action : std::int32_t {
    actionNormal = 0,         ///< The iteration ended in Deactivated.
    actionFailOpen = 1,       ///< The iteration ended in Activated.
    actionDisabled = 2,       ///< Nothing usable is configured.
    actionCollectFailed = 5,  ///< The run queue or the number of processors could not be read.
    actionBadArgument = 6,
    actionMemoryFailed = 7,
};

enum class FailOpenState { Deactivated, Activated };

/// The state of that name, as scripts give it; nothing for another text, which is logged as an error.
std::optional<FailOpenState> FailOpenStateFromText(const char *text);

/// Input of the state machine.
struct FailOpenInput {
    VtaCore::CDom &dom;
    FailOpenState state;
    std::uint64_t now;      ///< Microseconds since 1601.
    std::uint64_t min_dur;  ///< First wait, minutes.
    std::uint64_t max_dur;  ///< Upper limit for growth, minutes.
    TraceSite site;         ///< Of the iteration, in whose name it is traced.
};

/// Its result.
struct FailOpenResult {
    Action action;
    FailOpenState state;
    double factor = 1.0;         ///< Applied to the limits.
    std::uint64_t act_dur = 0;   ///< Microseconds in fail-open.
    std::uint64_t next_chk = 0;  ///< Minutes until the next recovery check.
};

/// One step from the state that the caller says to be in, by the metrics of this iteration. Under the
/// state's lock.
FailOpenResult RunFailOpen(HealthState &health, const FailOpenInput &input);
