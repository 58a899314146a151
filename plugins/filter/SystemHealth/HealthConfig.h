// The thirteen values that can be tuned, and the local file that tunes them.
#pragma once

#include <atomic>
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

/// The table.
class HealthConfig {
public:
    /// Without values.
    HealthConfig();

    SysHealthConfigEntry &operator[](ConfigRow row);
    const SysHealthConfigEntry &operator[](ConfigRow row) const;
    SysHealthConfigEntry *begin();
    SysHealthConfigEntry *end();
    [[nodiscard]] const SysHealthConfigEntry *begin() const;
    [[nodiscard]] const SysHealthConfigEntry *end() const;

    /// Forgets all values.
    void Reset();
    /// Stores a value of a row of the table.
    void AcceptValue(SysHealthConfigEntry &entry, double value);
    /// The port that is monitored; none while the table is being rebuilt. Any thread.
    [[nodiscard]] std::optional<std::uint16_t> Port() const;
    /// Takes the values of the three metrics that need the driver out of this pass; they stay readable, and count.
    void DisableDriverMetrics();
    /// Takes out the metrics that need a port when there is none. Each is logged as an error.
    /// @return how many. compat 37: one of them switches the whole subsystem off for this iteration
    std::int32_t DisableMetricsWithoutPort();
    /// A duration in minutes; `otherwise` where none is set.
    [[nodiscard]] std::uint64_t Minutes(ConfigRow row, double otherwise) const;

private:
    SysHealthConfigEntry m_rows[kConfigRows];
    /// The port for the read-outs, which run while the table is written: its two fields can't be read at once.
    std::atomic<std::int32_t> m_port;
};

// The two switches, when all values are read.

/// Tells the agent whether fail-open is to unload the driver: only the value 1 asks for it.
/// @param site     of the reader, and
/// @param message  traced there if so.
void ApplyConfiguredUnloadDriver(const HealthConfig &config, VtaCore::CDom &dom, const TraceSite &site,
                                 const char *message);
/// Whether the whole subsystem is switched off, which is traced at `site`: only the value 1 does so.
bool IsDisabledByHealthConfig(const HealthConfig &config, const TraceSite &site);

/// Fills the table from the local file.
/// @param activated  non-zero in fail-open, where the driver's metrics are not judged.
/// @return the number of accepted lines; 0 also when the file can't be read or switches the subsystem off.
std::int32_t readSystemHealthConfig(HealthConfig &config, VtaCore::CDom &dom, std::int32_t activated);

/// Takes back an accepted value, so that its default applies.
/// @param reason  for the trace.
void invalidateConfig(HealthConfig &config, ConfigRow row, const wxString &reason);
