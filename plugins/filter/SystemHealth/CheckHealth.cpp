// One iteration of the health subsystem, as scripts call it.
#include <optional>

#include <windows.h>
#include <wx/log.h>

#include "CloudConfig.h"
#include "FailOpen.h"
#include "HealthPolicy.h"
#include "HealthSample.h"
#include "HealthState.h"
#include "HealthTrace.h"
#include "SystemHealth.h"
#include "common/Trace.h"
#include "common/UserdataArguments.h"

namespace {

constexpr std::uint64_t kMicrosecondsPerSecond = 1'000'000;
constexpr double kDefaultMinMinutes = 30;
constexpr double kDefaultMaxMinutes = 240;

/// Microseconds since 1601. By the wall clock: one that is set back makes differences wrap.
std::uint64_t CheckHealthTime() {
    constexpr std::uint64_t intervalsPerMicrosecond = 10;
    FILETIME time = {};
    GetSystemTimeAsFileTime(&time);
    return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime) / intervalsPerMicrosecond;
}

struct CheckArguments {
    VtaCore::CDom *dom;
    FailOpenState state;
    const char *cloudConfig;
    std::size_t cloudConfigLength;
};

/// The string at the index, without a conversion of other types; null where there is none.
const char *CheckHealthTextArg(lua_State *L, int index, std::size_t *length, const TraceLine &line) {
    if (lua_type(L, index) == LUA_TSTRING)
        return lua_tolstring(L, index, length);
    // compat 43: the same text for both strings; only the traced line differs
    Trace(line, "incorrect type %d for state string", lua_type(L, index));
    return nullptr;
}

std::optional<CheckArguments> ReadCheckHealthArguments(lua_State *L, const TraceSite &site) {
    VtaCore::CDom *const dom = GetDomArg(L);
    if (dom == nullptr)
        return std::nullopt;  // compat 42: a wrong agent object is no message
    const char *const stateText = CheckHealthTextArg(L, 2, nullptr, site);
    if (stateText == nullptr)
        return std::nullopt;
    const std::optional<FailOpenState> state = FailOpenStateFromText(stateText);
    if (!state)
        return std::nullopt;
    std::size_t length = 0;
    const char *const cloudConfig = CheckHealthTextArg(L, 3, &length, site);
    if (cloudConfig == nullptr)
        return std::nullopt;
    return CheckArguments{dom, *state, cloudConfig, length};
}

/// From the policy that the caller hands over, else from the local file.
/// @return accepted values; below 1 if nothing usable is configured.
std::int32_t ReadCheckHealthConfiguration(HealthConfig &config, const CheckArguments &arguments,
                                          const TraceSite &site) {
    Trace(site, "cloud_config size[%d]:%s ", static_cast<int>(arguments.cloudConfigLength),
          OutsideText{arguments.cloudConfig});
    const std::int32_t activated = arguments.state == FailOpenState::Activated ? 1 : 0;
    const std::int32_t count = arguments.cloudConfigLength == 0
                                   ? readSystemHealthConfig(config, *arguments.dom, activated)
                                   : readSystemHealthPolicy(config, *arguments.dom, activated, arguments.cloudConfig);
    if (!outputCloudConfig(config))
        wxLogError("Failed to output cloud config");
    return count;
}

/// An iteration's times.
struct IterationTime {
    std::uint64_t now;  ///< Microseconds since 1601.
    double delta_t;     ///< Seconds since the previous call; 0 in the first.
};

/// The long line: all inputs and results of an iteration.
void LogCheckHealth(const HealthState &health, const IterationTime &time, const FailOpenInput &input,
                    const FailOpenResult &result) {
    const auto name = [](FailOpenState state) { return state == FailOpenState::Activated ? "Act" : "Deact"; };
    const auto limit = [&result](const SysHealthMetric &metric) { return metric.Limit(result.factor); };
    const auto &[rq, refusal, established, scan, memory, interval] = health.metrics.sysHealthMetrics;
    // compat 45: the low 32 bits of the seconds, and the minimum in seconds
    const std::uint64_t seconds = static_cast<std::uint32_t>(time.now / kMicrosecondsPerSecond);
    const std::uint64_t minimumSeconds = input.min_dur * 60;
    wxLogVerbose(
        "SysHealth: rc=%d tval=%10llu.%06llu delta_t=%4.3f startSt=%s endSt=%s min_dur=%llu act_dur=%llu "
        "backoff=%llu next_chk=%llu port=%d %s=%.3f(%.3f) %s=%.3f(%.3f) %s=%.3f(%.3f) %s=%.3f(%.3f) "
        "%s=%.3f(%.3f) %s=%.3f(%.3f)",
        static_cast<int>(result.action), seconds, time.now % kMicrosecondsPerSecond, time.delta_t, name(input.state),
        name(result.state), minimumSeconds, result.act_dur / kMicrosecondsPerSecond, health.backoff.backoff_wait,
        result.next_chk, health.scan.scanPort, rq.short_name, rq.value, limit(rq), refusal.short_name, refusal.value,
        limit(refusal), established.short_name, established.value, limit(established), scan.short_name, scan.value,
        limit(scan), memory.short_name, memory.value, limit(memory), interval.short_name, interval.value,
        limit(interval));
}

FailOpenResult CheckHealthOfSample(HealthState &health, const HealthSample &sample, const IterationTime &time,
                                   const FailOpenInput &input) {
    const wxCriticalSectionLocker lock(health.lock);
    if (sample.scan)
        RunScanRatePass(health.scan, *sample.scan, time.delta_t);
    ArmHealthMetrics(health.metrics, health.config);
    loadBackoffState(health.backoff, input.dom);
    calculateHealthMetrics(health.metrics, {sample.rqlen, sample.numCpus, time.delta_t, health.memory, health.scan});
    return RunFailOpen(health, input);
}

Action RunCheckHealth(HealthState &health, lua_State *L, const IterationTime &time, const TraceSite &site) {
    const std::optional<CheckArguments> arguments = ReadCheckHealthArguments(L, site);
    if (!arguments)
        return actionBadArgument;
    HealthConfig &config = health.config;
    const std::int32_t accepted = ReadCheckHealthConfiguration(config, *arguments, site);
    const std::int32_t removed = config.DisableMetricsWithoutPort();
    if (removed != 0 || accepted <= 0) {
        // compat 38: clears the wait in fail-open, too
        clearBackoffState(health.backoff, *arguments->dom);
        return actionDisabled;
    }
    const HealthSample sample = TakeHealthSample(health, site);
    if (sample.failure != actionNormal)
        return sample.failure;
    const FailOpenInput input{*arguments->dom,
                              arguments->state,
                              time.now,
                              config.Minutes(SYS_CONF_MIN_ACT_DURATION, kDefaultMinMinutes),
                              config.Minutes(SYS_CONF_MAX_ACT_DURATION, kDefaultMaxMinutes),
                              site};
    const FailOpenResult result = CheckHealthOfSample(health, sample, time, input);
    LogCheckHealth(health, time, input, result);
    return result.action;
}

Action CheckHealth(HealthState &health, lua_State *L, const TraceSite &site) {
    const std::uint64_t now = CheckHealthTime();
    const double delta_t = health.lastIterationTime == 0 ? 0.0
                                                         : static_cast<double>(now - health.lastIterationTime) /
                                                               static_cast<double>(kMicrosecondsPerSecond);
    const Action action = RunCheckHealth(health, L, {now, delta_t}, site);
    health.lastIterationTime = now;
    const bool isDisabled = action == actionDisabled;
    Trace(site, "Setting status: %s", isDisabled ? "disabled" : "enabled");
    const wxCriticalSectionLocker lock(health.lock);
    // compat 46: an iteration that failed counts as enabled
    health.sysHealthEnabled = isDisabled ? 0 : 1;
    return action;
}

}  // namespace

int CheckSystemHealthMetrics(lua_State *L) {
    const Action action = CheckHealth(healthState, L, kEngineTrace);
    lua_createtable(L, 0, 1);
    lua_pushnumber(L, action);
    lua_setfield(L, -2, "action");
    return 1;
}
