#include "FailOpen.h"

#include <algorithm>

#include "Backoff.h"
#include "HealthConfig.h"
#include "HealthMetrics.h"
#include "fc/fc.h"

namespace {

constexpr std::uint64_t kMicrosecondsPerMinute = 60'000'000;

/// Time of the last transition to fail-open; 0 after a recovery and after a restart. Only the log reads it.
std::uint64_t activationTime = 0;

FailOpenResult StepDeactivated(const FailOpenInput &input, const TraceSite &site) {
    const std::int32_t overCount = check_health_metric_thresholds(1.0);
    if (overCount == 0)
        return {actionNormal, FailOpenState::Deactivated};
    activationTime = input.now;
    // compat 40: clears the wait here and starts it with the first call in Activated
    clearBackoffState(input.dom);
    Trace(site, "SysHealth transitioning to Fail-Open, metrics over threshold = %d", overCount);
    return {actionFailOpen, FailOpenState::Activated};
}

void StartBackoff(const FailOpenInput &input, const TraceSite &site) {
    backoff_wait = input.min_dur;
    last_check = input.now;
    saveBackoffState(input.dom);
    Trace(site, "SysHealth initializing backoff, wait=%llu minutes", backoff_wait);
}

void GrowBackoff(const FailOpenInput &input, std::int32_t overCount, const TraceSite &site) {
    backoff_wait = std::min(backoff_wait * 2, input.max_dur);
    last_check = input.now;
    saveBackoffState(input.dom);
    Trace(site, "SysHealth backoff increased, metrics over threshold = %d, next wait = %llu minutes", overCount,
          backoff_wait);
}

FailOpenResult CheckRecovery(const FailOpenInput &input, FailOpenResult result, const TraceSite &site) {
    // compat 47: a factor of 0, which a policy may set, makes every limit unreachable
    const SysHealthConfigEntry &recoverFactor = sysHealthConfig[SYS_CONF_RECOVER_FACTOR];
    if (recoverFactor.is_set != 0)
        result.factor = recoverFactor.value * 0.01;
    const std::int32_t overCount = check_health_metric_thresholds(result.factor);
    if (overCount != 0) {
        GrowBackoff(input, overCount, site);
        result.next_chk = backoff_wait;
        return result;
    }
    activationTime = 0;
    clearBackoffState(input.dom);
    Trace(site, "SysHealth recovery successful, metrics over threshold = %d", overCount);
    result.action = actionNormal;
    result.state = FailOpenState::Deactivated;
    return result;
}

FailOpenResult StepActivated(const FailOpenInput &input, const TraceSite &site) {
    FailOpenResult result{actionFailOpen, FailOpenState::Activated};
    result.act_dur = input.now - activationTime;
    if (backoff_wait == 0)
        StartBackoff(input, site);
    // compat 48: a clock that was set back makes this huge, so that recovery is checked at once
    const std::uint64_t elapsed = (input.now - last_check) / kMicrosecondsPerMinute;
    // compat 39: judges no metric before the wait is over
    if (elapsed >= backoff_wait)
        return CheckRecovery(input, result, site);
    result.next_chk = backoff_wait - elapsed;
    Trace(site, "SysHealth in backoff period, %llu minutes remaining", result.next_chk);
    return result;
}

}  // namespace

FailOpenResult RunFailOpen(const FailOpenInput &input, const TraceSite &site) {
    return input.state == FailOpenState::Activated ? StepActivated(input, site) : StepDeactivated(input, site);
}
