// The thirteen values that can be tuned, and the local file that tunes them.
#pragma once

#include <cstdint>
#include <optional>

#include <wx/string.h>

#include "common/Trace.h"
#include "vta_core.h"

/// One value.
struct SysHealthConfigEntry {
    const char *const file_key;    ///< Prefix of a line in the file, with its "=".
    const char *const policy_key;  ///< Key in the policy.
    const double max_value;        ///< Largest accepted value, inclusive.
    double value;                  ///< Accepted in the current pass, 0.0 if none.
    std::int32_t is_set;           ///< 1 when `value` was accepted in the current pass.
    const std::int32_t json_type;  ///< cJSON_Number, or cJSON_Object for an object that holds a number.
};

/// Rows of the table, named after their keys in the policy.
enum ConfigRow : std::int32_t {
    SYS_CONF_CONN_REFUSAL_PORT,
    SYS_CONF_CONN_REFUSAL_OUTBOUND,
    SYS_CONF_RECOVER_FACTOR,
    SYS_CONF_MIN_ACT_DURATION,
    SYS_CONF_MAX_ACT_DURATION,
    SYS_THR_CONN_REFUSAL_PCT,
    SYS_THR_RUNQ,
    SYS_THR_CONN_EST_PER_CPU,
    SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU,
    SYS_THR_FREE_MEM,
    SYS_THR_MAX_ITERATION_INVL,
    SYS_CONF_UNLOAD_DRIVER,
    SYS_CONF_DISABLE_FAIL_OPEN,
    kConfigRows,
};

/// Rebuilt from nothing by each iteration, outside sysHealthLock.
extern SysHealthConfigEntry sysHealthConfig[kConfigRows];

/// Forgets all values.
void ResetSystemHealthConfig();
/// Stores a value of a row of the table.
void AcceptValue(SysHealthConfigEntry &entry, double value);
/// The port that is monitored; none while the table is being rebuilt. Any thread.
std::optional<std::uint16_t> ConfiguredPort();
/// Takes the values of the three metrics that need the driver out of this pass; they stay readable, and count.
void DisableDriverMetrics();
// The two switches, when all values are read.

/// Tells the agent whether fail-open is to unload the driver: only the value 1 asks for it.
/// @param site     of the reader, and
/// @param message  traced there if so.
void ApplyUnloadDriver(VtaCore::CDom &dom, const TraceSite &site, const char *message);
/// Whether the whole subsystem is switched off, which is traced at `site`: only the value 1 does so.
bool IsSystemHealthDisabled(const TraceSite &site);

/// Fills the table from the local file.
/// @param activated  non-zero in fail-open, where the driver's metrics are not judged.
/// @return the number of accepted lines; 0 also when the file can't be read or switches the subsystem off.
std::int32_t readSystemHealthConfig(VtaCore::CDom &dom, std::int32_t activated);

/// Takes back an accepted value, so that its default applies.
/// @param count   accepted values, one less afterwards.
/// @param reason  for the trace.
void invalidateConfig(std::int32_t index, std::int32_t &count, const wxString &reason);
