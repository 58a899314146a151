// One iteration of the health subsystem, as scripts call it.
#include <cstring>
#include <optional>

#include <windows.h>
#include <wx/log.h>

#include "Backoff.h"
#include "FailOpen.h"
#include "HealthConfig.h"
#include "HealthLog.h"
#include "HealthMetrics.h"
#include "HealthPolicy.h"
#include "HealthSwitch.h"
#include "HostSample.h"
#include "ScanMetrics.h"
#include "SystemHealth.h"
#include "fc/fc.h"

std::int32_t sysHealthEnabled = 0;

namespace {

constexpr std::uint64_t kMicrosecondsPerSecond = 1'000'000;
constexpr double kDefaultMinMinutes = 30;
constexpr double kDefaultMaxMinutes = 240;

/// compat 49: `now` of the previous call, even of a failed one
std::uint64_t lastIterationTime = 0;

/// Microseconds since 1601. By the wall clock: one that is set back makes differences wrap.
std::uint64_t SystemMicroseconds() {
    constexpr std::uint64_t intervalsPerMicrosecond = 10;
    FILETIME time = {};
    GetSystemTimeAsFileTime(&time);
    return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime) / intervalsPerMicrosecond;
}

struct Arguments {
    VtaCore::CDom *dom;
    FailOpenState state;
    const char *cloudConfig;
    std::size_t cloudConfigLength;
};

bool BeginsWith(const char *text, const char *beginning) {
    return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

/// compat 41: accepts any text that begins with a state's name
std::optional<FailOpenState> StateFromText(const char *text) {
    if (BeginsWith(text, "Activated"))
        return FailOpenState::Activated;
    if (BeginsWith(text, "Deactivated"))
        return FailOpenState::Deactivated;
    wxLogError("incorrect state value %s for state string", TextForMessage(text));
    return std::nullopt;
}

/// The string at the index, without a conversion of other types; null where there is none.
const char *StringArg(lua_State *L, int index, std::size_t *length, const TraceLine &line) {
    if (lua_type(L, index) == LUA_TSTRING)
        return lua_tolstring(L, index, length);
    // compat 43: the same text for both strings; only the traced line differs
    Trace(line, "incorrect type %d for state string", lua_type(L, index));
    return nullptr;
}

std::optional<Arguments> ReadArguments(lua_State *L, const TraceSite &site) {
    VtaCore::CDom *const dom = GetDomArg(L);
    if (dom == nullptr)
        return std::nullopt;  // compat 42: a wrong agent object is no message
    const char *const stateText = StringArg(L, 2, nullptr, site);
    if (stateText == nullptr)
        return std::nullopt;
    const std::optional<FailOpenState> state = StateFromText(stateText);
    if (!state)
        return std::nullopt;
    std::size_t length = 0;
    const char *const cloudConfig = StringArg(L, 3, &length, site);
    if (cloudConfig == nullptr)
        return std::nullopt;
    return Arguments{dom, *state, cloudConfig, length};
}

/// @return accepted values, less than one for nothing to go by.
std::int32_t ReadConfiguration(const Arguments &arguments, const TraceSite &site) {
    Trace(site, "cloud_config size[%d]:%s ", static_cast<int>(arguments.cloudConfigLength),
          OutsideText{arguments.cloudConfig});
    const std::int32_t activated = arguments.state == FailOpenState::Activated ? 1 : 0;
    const std::int32_t count = arguments.cloudConfigLength == 0
                                   ? readSystemHealthConfig(*arguments.dom, activated)
                                   : readSystemHealthPolicy(*arguments.dom, activated, arguments.cloudConfig);
    if (!outputCloudConfig())
        wxLogError("Failed to output cloud config");
    return count;
}

/// Takes out the metrics that need a port when there is none.
/// @return false if there was one. compat 37: one of them switches the whole subsystem off for this iteration
bool GuardPort(std::int32_t &count) {
    struct NeedsPort {
        ConfigRow row;
        const char *message;
    };
    constexpr NeedsPort kNeedPort[] = {
        {SYS_THR_CONN_REFUSAL_PCT, "SysHealth - Conn Refusal enabled but monitoring port not configured"},
        {SYS_THR_CONN_EST_PER_CPU, "SysHealth - Conn Established enabled but monitoring port not configured"},
        {SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU, "SysHealth - Scan Mbytes enabled but monitoring port not configured"},
    };
    bool usable = true;
    for (const NeedsPort &metric : kNeedPort) {
        if (sysHealthConfig[metric.row].is_set == 0 || sysHealthConfig[SYS_CONF_CONN_REFUSAL_PORT].is_set != 0)
            continue;
        wxLogError("%s", metric.message);
        sysHealthConfig[metric.row].is_set = 0;
        --count;
        usable = false;
    }
    return usable;
}

/// The host and the driver at one moment.
struct Sample {
    double rqlen = 0.0;
    std::uint32_t numCpus = 0;
    ScanMetricsRecord scan = {};
    bool hasScan = false;
};

/// @return actionNormal, or what the iteration is to end with.
Action TakeSample(Sample &sample, const TraceSite &site) {
    if (queryRunQueueLength(sample.rqlen) != 0) {
        Trace(site, "failed to collect rqLen, exiting");
        return actionCollectFailed;
    }
    SYSTEM_INFO system = {};
    GetSystemInfo(&system);
    sample.numCpus = system.dwNumberOfProcessors;
    if (sample.numCpus == 0) {
        Trace(site, "failed to collect numCpus, exiting");
        return actionCollectFailed;
    }
    if (!getMemoryMetrics()) {
        Trace(site, "failed to collect memory metrics, exiting");
        return actionMemoryFailed;
    }
    if (sysHealthConfig[SYS_CONF_CONN_REFUSAL_PORT].is_set != 0)
        sample.hasScan = RunDriverPass(sample.scan, site);
    return actionNormal;
}

/// compat 44: whole minutes; less than one becomes 0, which makes every iteration in fail-open a recovery check
std::uint64_t ConfiguredMinutes(ConfigRow row, double otherwise) {
    return static_cast<std::uint64_t>(sysHealthConfig[row].is_set != 0 ? sysHealthConfig[row].value : otherwise);
}

/// An iteration's times.
struct IterationTime {
    std::uint64_t now;  ///< Microseconds since 1601.
    double delta_t;     ///< Seconds since the previous call; 0 in the first.
};

/// The long line: all that an iteration went by.
void LogIteration(const IterationTime &time, const FailOpenInput &input, const FailOpenResult &result) {
    const auto name = [](FailOpenState state) { return state == FailOpenState::Activated ? "Act" : "Deact"; };
    const auto limit = [&result](const SysHealthMetric &metric) { return metric.Limit(result.factor); };
    const auto &[rq, refusal, established, scan, memory, interval] = sysHealthMetrics;
    // compat 45: the low 32 bits of the seconds, and the minimum in seconds
    const std::uint64_t seconds = static_cast<std::uint32_t>(time.now / kMicrosecondsPerSecond);
    const std::uint64_t minimumSeconds = input.min_dur * 60;
    wxLogVerbose(
        "SysHealth: rc=%d tval=%10llu.%06llu delta_t=%4.3f startSt=%s endSt=%s min_dur=%llu act_dur=%llu "
        "backoff=%llu next_chk=%llu port=%d %s=%.3f(%.3f) %s=%.3f(%.3f) %s=%.3f(%.3f) %s=%.3f(%.3f) "
        "%s=%.3f(%.3f) %s=%.3f(%.3f)",
        static_cast<int>(result.action), seconds, time.now % kMicrosecondsPerSecond, time.delta_t, name(input.state),
        name(result.state), minimumSeconds, result.act_dur / kMicrosecondsPerSecond, backoff_wait, result.next_chk,
        scanPort, rq.short_name, rq.value, limit(rq), refusal.short_name, refusal.value, limit(refusal),
        established.short_name, established.value, limit(established), scan.short_name, scan.value, limit(scan),
        memory.short_name, memory.value, limit(memory), interval.short_name, interval.value, limit(interval));
}

FailOpenResult Evaluate(const FailOpenInput &input, const IterationTime &time, const Sample &sample,
                        const TraceSite &site) {
    const wxCriticalSectionLocker lock(sysHealthLock);
    if (sample.hasScan)
        RunRatePass(sample.scan, time.delta_t);
    ArmHealthMetrics();
    loadBackoffState(input.dom);
    calculateHealthMetrics(sample.rqlen, sample.numCpus, time.delta_t);
    return RunFailOpen(input, site);
}

Action RunIteration(lua_State *L, const IterationTime &time, const TraceSite &site) {
    const std::optional<Arguments> arguments = ReadArguments(L, site);
    if (!arguments)
        return actionBadArgument;
    std::int32_t count = ReadConfiguration(*arguments, site);
    if (!GuardPort(count) || count <= 0) {
        // compat 38: clears the wait in fail-open, too
        clearBackoffState(*arguments->dom);
        return actionDisabled;
    }
    Sample sample;
    const Action failure = TakeSample(sample, site);
    if (failure != actionNormal)
        return failure;
    const FailOpenInput input{*arguments->dom, arguments->state, time.now,
                              ConfiguredMinutes(SYS_CONF_MIN_ACT_DURATION, kDefaultMinMinutes),
                              ConfiguredMinutes(SYS_CONF_MAX_ACT_DURATION, kDefaultMaxMinutes)};
    const FailOpenResult result = Evaluate(input, time, sample, site);
    LogIteration(time, input, result);
    return result.action;
}

Action CheckHealth(lua_State *L, const TraceSite &site) {
    const std::uint64_t now = SystemMicroseconds();
    const double delta_t = lastIterationTime == 0 ? 0.0
                                                  : static_cast<double>(now - lastIterationTime) /
                                                        static_cast<double>(kMicrosecondsPerSecond);
    const Action action = RunIteration(L, {now, delta_t}, site);
    lastIterationTime = now;
    const bool isDisabled = action == actionDisabled;
    Trace(site, "Setting status: %s", isDisabled ? "disabled" : "enabled");
    const wxCriticalSectionLocker lock(sysHealthLock);
    // compat 46: an iteration that failed counts as enabled
    sysHealthEnabled = isDisabled ? 0 : 1;
    return action;
}

}  // namespace

int CheckSystemHealthMetrics(lua_State *L) {
    const Action action = CheckHealth(L, kEngineTrace);
    lua_createtable(L, 0, 1);
    lua_pushnumber(L, action);
    lua_setfield(L, -2, "action");
    return 1;
}
