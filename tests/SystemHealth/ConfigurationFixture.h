// Iterations that show the effect of a configuration.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "HealthFixture.h"

/// One setting, by its two names.
struct SettingNames {
    std::string line;  ///< The start of its line in the file.
    std::string key;   ///< In a policy, and in the written file.
    double max;
    bool isThreshold;  ///< An object that holds the number, in JSON.
};

/// All settings in their order.
inline const std::array<SettingNames, 13> kSettings{{
    {"SYSTEM_CONNECTION_REFUSAL_PORT=", "SYS_CONF_CONN_REFUSAL_PORT", 65535, false},
    {"SYSTEM_CONNECTION_REFUSAL_OUTBOUND=", "SYS_CONF_CONN_REFUSAL_OUTBOUND", 1, false},
    {"SYSTEM_RECOVERY_FACTOR=", "SYS_CONF_RECOVER_FACTOR", 100, false},
    {"SYSTEM_MIN_ACT_DURATION=", "SYS_CONF_MIN_ACT_DURATION", 30, false},
    {"SYSTEM_MAX_ACT_DURATION=", "SYS_CONF_MAX_ACT_DURATION", 240, false},
    {"SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=", "SYS_THR_CONN_REFUSAL_PCT", 100, true},
    {"SYSTEM_RUNQ_PCT_THRESHOLD=", "SYS_THR_RUNQ", 200, true},
    {"SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=", "SYS_THR_CONN_EST_PER_CPU", 10000000, true},
    {"SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=", "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU", 100000, true},
    {"SYSTEM_MIN_FREE_MEM_PCT=", "SYS_THR_FREE_MEM", 25, true},
    {"SYSTEM_MAX_ITERATION_INTERVAL=", "SYS_THR_MAX_ITERATION_INVL", 60, true},
    {"SYSTEM_UNLOAD_DRIVER=", "SYS_CONF_UNLOAD_DRIVER", 1, false},
    {"SYSTEM_DISABLE_FAIL_OPEN=", "SYS_CONF_DISABLE_FAIL_OPEN", 1, false},
}};

inline constexpr char kUnloadFlag[] = "vtp.filter.FailOpenUnloadDriver";
inline constexpr char kNothingWritten[] = "{\r\n}\r\n";

/// What one iteration traced and logged.
struct Heard {
    int action = -1;
    std::optional<int> count;                ///< The count that the reader traced, if any.
    std::vector<std::string> configuration;  ///< Traced on SysHealth.conf, without the count.
    std::vector<std::string> engine;         ///< Traced on SysHealth.eng.
    std::vector<std::string> errors;         ///< The error log.
    std::vector<TracedLine> traces;          ///< All that was traced.

    /// The messages of the engine that begin with the text.
    [[nodiscard]] std::vector<std::string> EngineLines(const std::string &beginning) const;
    /// Settings that were out of range, according to the error log.
    [[nodiscard]] std::vector<std::string> RangeErrors() const;
};

/// An idle host; no metric exceeds its limit.
class ConfigurationFixture : public HealthFixture {
protected:
    ConfigurationFixture();

    Heard Iterate(const std::string &state, const std::string &policy);
    /// An iteration with that configuration file.
    Heard ReadFile(const std::string &text, const std::string &state = "Deactivated");
    /// An iteration with that policy.
    Heard ReadPolicy(const std::string &policy, const std::string &state = "Deactivated");

    /// A setting as the iteration wrote it, if it did.
    [[nodiscard]] std::optional<double> Written(const std::string &key);
    /// The written keys, in order.
    [[nodiscard]] std::vector<std::string> WrittenKeys();
};

/// "SYS_THR_RUNQ": {"value": 50}
std::string Member(const SettingNames &setting, const std::string &number);
/// {"SYS_THR_RUNQ": {"value": 50}}
std::string PolicyOf(const SettingNames &setting, const std::string &number);
/// As %f prints it.
std::string Fixed(double number);
/// The line of the error log for a number that is out of range.
std::string OutOfRange(const SettingNames &setting, double stored);
/// The setting of that key.
const SettingNames &SettingOf(const std::string &key);
