#include "HealthConfig.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <cJSON.h>
#include <wx/log.h>

#include "FileHandle.h"
#include "HealthTrace.h"
#include "common/Trace.h"

namespace {

constexpr char kConfigFile[] = "C:\\ProgramData\\Quillon\\Vantry Agent\\filter\\vt_filter.conf";
constexpr int kLineBytes = 1024;
constexpr char kUnloadDriverSetting[] = "vtp.filter.FailOpenUnloadDriver";

constexpr std::int32_t kNoPort = -1;

/// Takes the value of one row from the line if it stands there.
/// @return whether it was accepted.
bool TakeConfigLine(HealthConfig &config, SysHealthConfigEntry &entry, const char *line) {
    const std::size_t keyLength = std::strlen(entry.file_key);
    if (std::strncmp(line, entry.file_key, keyLength) != 0)
        return false;
    // compat 16: reads single precision and ignores trailing text
    const double value = std::strtof(line + keyLength, nullptr);
    // compat 18: zero is never accepted, unlike from a policy
    if (value > 0.0 && value <= entry.max_value) {
        config.AcceptValue(entry, value);
        return true;
    }
    // compat 17: logs the stored value, not the rejected one
    wxLogError("value %f for  %s is out of range, max= %f", entry.value, entry.file_key, entry.max_value);
    return false;
}

/// @return the number of accepted lines. compat 19: counts a key on two lines twice
std::int32_t ReadConfigLines(HealthConfig &config, std::FILE *file) {
    std::int32_t count = 0;
    char line[kLineBytes] = {};
    while (std::fgets(line, sizeof(line), file) != nullptr)
        for (SysHealthConfigEntry &entry : config)
            if (TakeConfigLine(config, entry, line))
                ++count;
    return count;
}

}  // namespace

// compat 20: the limits of the two durations equal their defaults, so they can only be shortened
HealthConfig::HealthConfig()
    : m_rows{
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
      },
      m_port(kNoPort) {}

SysHealthConfigEntry &HealthConfig::operator[](ConfigRow row) {
    return m_rows[row];
}

const SysHealthConfigEntry &HealthConfig::operator[](ConfigRow row) const {
    return m_rows[row];
}

SysHealthConfigEntry *HealthConfig::begin() {
    return std::begin(m_rows);
}

SysHealthConfigEntry *HealthConfig::end() {
    return std::end(m_rows);
}

const SysHealthConfigEntry *HealthConfig::begin() const {
    return std::begin(m_rows);
}

const SysHealthConfigEntry *HealthConfig::end() const {
    return std::end(m_rows);
}

void HealthConfig::Reset() {
    m_port = kNoPort;
    for (SysHealthConfigEntry &entry : m_rows) {
        entry.is_set = 0;
        entry.value = 0.0;
    }
}

void HealthConfig::AcceptValue(SysHealthConfigEntry &entry, double value) {
    entry.value = value;
    entry.is_set = 1;
    if (&entry == &m_rows[SYS_CONF_CONN_REFUSAL_PORT])
        m_port = static_cast<std::int32_t>(value);
}

std::optional<std::uint16_t> HealthConfig::Port() const {
    const std::int32_t port = m_port;
    return port == kNoPort ? std::nullopt : std::optional(static_cast<std::uint16_t>(port));
}

void HealthConfig::DisableDriverMetrics() {
    m_rows[SYS_THR_CONN_REFUSAL_PCT].is_set = 0;
    m_rows[SYS_THR_CONN_EST_PER_CPU].is_set = 0;
    m_rows[SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU].is_set = 0;
}

std::int32_t HealthConfig::DisableMetricsWithoutPort() {
    struct NeedsPort {
        ConfigRow row;
        const char *message;
    };
    constexpr NeedsPort kNeedPort[] = {
        {SYS_THR_CONN_REFUSAL_PCT, "SysHealth - Conn Refusal enabled but monitoring port not configured"},
        {SYS_THR_CONN_EST_PER_CPU, "SysHealth - Conn Established enabled but monitoring port not configured"},
        {SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU, "SysHealth - Scan Mbytes enabled but monitoring port not configured"},
    };
    std::int32_t removed = 0;
    for (const NeedsPort &metric : kNeedPort) {
        if (m_rows[metric.row].is_set == 0 || m_rows[SYS_CONF_CONN_REFUSAL_PORT].is_set != 0)
            continue;
        wxLogError("%s", metric.message);
        m_rows[metric.row].is_set = 0;
        ++removed;
    }
    return removed;
}

// compat 44: whole minutes; less than one becomes 0, which makes every iteration in fail-open a recovery check
std::uint64_t HealthConfig::Minutes(ConfigRow row, double otherwise) const {
    return static_cast<std::uint64_t>(m_rows[row].is_set != 0 ? m_rows[row].value : otherwise);
}

void ApplyConfiguredUnloadDriver(const HealthConfig &config, VtaCore::CDom &dom, const TraceSite &site,
                                 const char *message) {
    const bool unload = config[SYS_CONF_UNLOAD_DRIVER].value == 1.0;
    dom.Set(kUnloadDriverSetting, unload);
    if (unload)
        Trace(site, "%s", message);
}

bool IsDisabledByHealthConfig(const HealthConfig &config, const TraceSite &site) {
    if (config[SYS_CONF_DISABLE_FAIL_OPEN].value != 1.0)
        return false;
    // compat 23: names an environment variable that nobody reads
    Trace(site, "VTA_SYSHEALTH_DISABLE_FAIL_OPEN  return 0");
    return true;
}

std::int32_t readSystemHealthConfig(HealthConfig &config, VtaCore::CDom &dom, std::int32_t activated) {
    std::int32_t count = 0;
    FileHandle file(std::fopen(kConfigFile, "r"));
    config.Reset();
    // compat 22: a missing file is no message, and leaves the agent's unload flag
    if (file) {
        // compat 21: does not check the first wait against the longest one, unlike a policy's
        count = ReadConfigLines(config, file.get());
        ApplyConfiguredUnloadDriver(config, dom, kConfigTrace, "Windows driver unload enabled for fail-open");
        file.reset();
        if (IsDisabledByHealthConfig(config, kConfigTrace))
            return 0;
    }
    // compat 24: turns the driver's metrics off in fail-open, but still counts them
    if (activated != 0)
        config.DisableDriverMetrics();
    if (count > 0)
        Trace(kConfigTrace, "readSystemHealthConfig returning %d", count);
    return count;
}

void invalidateConfig(HealthConfig &config, ConfigRow row, const wxString &reason) {
    Trace(kConfigTrace, "%s, invalidating to use default", reason);
    config[row].is_set = 0;
    config[row].value = 0.0;
}
