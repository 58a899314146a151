#include "HealthConfig.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <cJSON.h>
#include <wx/log.h>

#include "HealthLog.h"
#include "FileHandle.h"

namespace {

constexpr char kConfigFile[] = "C:\\ProgramData\\Quillon\\Vantry Agent\\filter\\vt_filter.conf";
constexpr int kLineBytes = 1024;
constexpr char kUnloadDriverSetting[] = "vtp.filter.FailOpenUnloadDriver";

constexpr std::int32_t kNoPort = -1;
/// The table's port for the read-outs, which run while the table is written: its two fields can't be read at once.
std::atomic<std::int32_t> configuredPort{kNoPort};

/// Takes the value of one row from the line if it stands there.
/// @return whether it was accepted.
bool TakeLine(const char *line, SysHealthConfigEntry &entry) {
    const std::size_t keyLength = std::strlen(entry.file_key);
    if (std::strncmp(line, entry.file_key, keyLength) != 0)
        return false;
    // compat 16: reads single precision and ignores trailing text
    const double value = std::strtof(line + keyLength, nullptr);
    // compat 18: zero is never accepted, unlike from a policy
    if (value > 0.0 && value <= entry.max_value) {
        AcceptValue(entry, value);
        return true;
    }
    // compat 17: logs the stored value, not the rejected one
    wxLogError("value %f for  %s is out of range, max= %f", entry.value, entry.file_key, entry.max_value);
    return false;
}

/// @return the number of accepted lines. compat 19: counts a key on two lines twice
std::int32_t ReadLines(std::FILE *file) {
    std::int32_t count = 0;
    char line[kLineBytes] = {};
    while (std::fgets(line, sizeof(line), file) != nullptr)
        for (SysHealthConfigEntry &entry : sysHealthConfig)
            if (TakeLine(line, entry))
                ++count;
    return count;
}

}  // namespace

// compat 20: the limits of the two durations equal their defaults, so they can only be shortened
SysHealthConfigEntry sysHealthConfig[kConfigRows] = {
    {"SYSTEM_CONNECTION_REFUSAL_PORT=", "SYS_CONF_CONN_REFUSAL_PORT", 65535.0, 0, 0, cJSON_Number},
    {"SYSTEM_CONNECTION_REFUSAL_OUTBOUND=", "SYS_CONF_CONN_REFUSAL_OUTBOUND", 1.0, 0, 0, cJSON_Number},
    {"SYSTEM_RECOVERY_FACTOR=", "SYS_CONF_RECOVER_FACTOR", 100.0, 0, 0, cJSON_Number},
    {"SYSTEM_MIN_ACT_DURATION=", "SYS_CONF_MIN_ACT_DURATION", 30.0, 0, 0, cJSON_Number},
    {"SYSTEM_MAX_ACT_DURATION=", "SYS_CONF_MAX_ACT_DURATION", 240.0, 0, 0, cJSON_Number},
    {"SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=", "SYS_THR_CONN_REFUSAL_PCT", 100.0, 0, 0, cJSON_Object},
    {"SYSTEM_RUNQ_PCT_THRESHOLD=", "SYS_THR_RUNQ", 200.0, 0, 0, cJSON_Object},
    {"SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=", "SYS_THR_CONN_EST_PER_CPU", 10000000.0, 0, 0, cJSON_Object},
    {"SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=", "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU", 100000.0, 0, 0, cJSON_Object},
    {"SYSTEM_MIN_FREE_MEM_PCT=", "SYS_THR_FREE_MEM", 25.0, 0, 0, cJSON_Object},
    {"SYSTEM_MAX_ITERATION_INTERVAL=", "SYS_THR_MAX_ITERATION_INVL", 60.0, 0, 0, cJSON_Object},
    {"SYSTEM_UNLOAD_DRIVER=", "SYS_CONF_UNLOAD_DRIVER", 1.0, 0, 0, cJSON_Number},
    {"SYSTEM_DISABLE_FAIL_OPEN=", "SYS_CONF_DISABLE_FAIL_OPEN", 1.0, 0, 0, cJSON_Number},
};

void ResetSystemHealthConfig() {
    configuredPort = kNoPort;
    for (SysHealthConfigEntry &entry : sysHealthConfig) {
        entry.is_set = 0;
        entry.value = 0.0;
    }
}

void AcceptValue(SysHealthConfigEntry &entry, double value) {
    entry.value = value;
    entry.is_set = 1;
    if (&entry == &sysHealthConfig[SYS_CONF_CONN_REFUSAL_PORT])
        configuredPort = static_cast<std::int32_t>(value);
}

std::optional<std::uint16_t> ConfiguredPort() {
    const std::int32_t port = configuredPort;
    return port == kNoPort ? std::nullopt : std::optional(static_cast<std::uint16_t>(port));
}

void DisableDriverMetrics() {
    sysHealthConfig[SYS_THR_CONN_REFUSAL_PCT].is_set = 0;
    sysHealthConfig[SYS_THR_CONN_EST_PER_CPU].is_set = 0;
    sysHealthConfig[SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU].is_set = 0;
}

void ApplyUnloadDriver(VtaCore::CDom &dom, const TraceSite &site, const char *message) {
    const bool unload = sysHealthConfig[SYS_CONF_UNLOAD_DRIVER].value == 1.0;
    dom.Set(kUnloadDriverSetting, unload);
    if (unload)
        Trace(site, "%s", message);
}

bool IsSystemHealthDisabled(const TraceSite &site) {
    if (sysHealthConfig[SYS_CONF_DISABLE_FAIL_OPEN].value != 1.0)
        return false;
    // compat 23: names an environment variable that nobody reads
    Trace(site, "VTA_SYSHEALTH_DISABLE_FAIL_OPEN  return 0");
    return true;
}

std::int32_t readSystemHealthConfig(VtaCore::CDom &dom, std::int32_t activated) {
    std::int32_t count = 0;
    FileHandle file(std::fopen(kConfigFile, "r"));
    ResetSystemHealthConfig();
    // compat 22: a missing file is no message, and leaves the agent's unload flag
    if (file) {
        // compat 21: does not check the first wait against the longest one, unlike a policy's
        count = ReadLines(file.get());
        ApplyUnloadDriver(dom, kConfigTrace, "Windows driver unload enabled for fail-open");
        file.reset();
        if (IsSystemHealthDisabled(kConfigTrace))
            return 0;
    }
    // compat 24: turns the driver's metrics off in fail-open, but still counts them
    if (activated != 0)
        DisableDriverMetrics();
    if (count > 0)
        Trace(kConfigTrace, "readSystemHealthConfig returning %d", count);
    return count;
}

void invalidateConfig(std::int32_t index, std::int32_t &count, const wxString &reason) {
    Trace(kConfigTrace, "%s, invalidating to use default", reason);
    sysHealthConfig[index].is_set = 0;
    sysHealthConfig[index].value = 0.0;
    --count;
}
