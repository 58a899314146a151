#include "FailOpen.h"

#include <algorithm>

#include "HealthState.h"
#include "common/Trace.h"

namespace {

constexpr std::uint64_t kMicrosecondsPerMinute = 60'000'000;

FailOpenResult StepDeactivated(HealthState &health, const FailOpenInput &input, const TraceSite &site) {
    const std::int32_t overCount = check_health_metric_thresholds(health.metrics, 1.0);
    if (overCount == 0)
        return {actionNormal, FailOpenState::Deactivated};
    health.activationTime = input.now;
    // compat 40: clears the wait here and starts it with the first call in Activated
    clearBackoffState(health.backoff, input.dom);
    Trace(site, "SysHealth transitioning to Fail-Open, metrics over threshold = %d", overCount);
    return {actionFailOpen, FailOpenState::Activated};
}

void StartBackoff(Backoff &backoff, const FailOpenInput &input, const TraceSite &site) {
    backoff.backoff_wait = input.min_dur;
    backoff.last_check = input.now;
    saveBackoffState(backoff, input.dom);
    Trace(site, "SysHealth initializing backoff, wait=%llu minutes", backoff.backoff_wait);
}

void GrowBackoff(Backoff &backoff, const FailOpenInput &input, std::int32_t overCount, const TraceSite &site) {
    backoff.backoff_wait = std::min(backoff.backoff_wait * 2, input.max_dur);
    backoff.last_check = input.now;
    saveBackoffState(backoff, input.dom);
    Trace(site, "SysHealth backoff increased, metrics over threshold = %d, next wait = %llu minutes", overCount,
          backoff.backoff_wait);
}

FailOpenResult CheckRecovery(HealthState &health, const FailOpenInput &input, FailOpenResult result,
                             const TraceSite &site) {
    // compat 47: a factor of 0, which a policy may set, makes every limit unreachable
    const SysHealthConfigEntry &recoverFactor = health.config[SYS_CONF_RECOVER_FACTOR];
    if (recoverFactor.is_set != 0)
        result.factor = recoverFactor.value * 0.01;
    const std::int32_t overCount = check_health_metric_thresholds(health.metrics, result.factor);
    if (overCount != 0) {
        GrowBackoff(health.backoff, input, overCount, site);
        result.next_chk = health.backoff.backoff_wait;
        return result;
    }
    health.activationTime = 0;
    clearBackoffState(health.backoff, input.dom);
    Trace(site, "SysHealth recovery successful, metrics over threshold = %d", overCount);
    result.action = actionNormal;
    result.state = FailOpenState::Deactivated;
    return result;
}

FailOpenResult StepActivated(HealthState &health, const FailOpenInput &input, const TraceSite &site) {
    FailOpenResult result{actionFailOpen, FailOpenState::Activated};
    result.act_dur = input.now - health.activationTime;
    const Backoff &backoff = health.backoff;
    if (backoff.backoff_wait == 0)
        StartBackoff(health.backoff, input, site);
    // compat 48: a clock that was set back makes this huge, so that recovery is checked at once
    const std::uint64_t elapsed = (input.now - backoff.last_check) / kMicrosecondsPerMinute;
    // compat 39: judges no metric before the wait is over
    if (elapsed >= backoff.backoff_wait)
        return CheckRecovery(health, input, result, site);
    result.next_chk = backoff.backoff_wait - elapsed;
    Trace(site, "SysHealth in backoff period, %llu minutes remaining", result.next_chk);
    return result;
}

}  // namespace

FailOpenResult RunFailOpen(HealthState &health, const FailOpenInput &input, const TraceSite &site) {
    return input.state == FailOpenState::Activated ? StepActivated(health, input, site)
                                                   : StepDeactivated(health, input, site);
}
