#include "FailOpen.h"

#include <cstring>

#include <wx/log.h>

#include "HealthState.h"
#include "common/MessageText.h"

namespace {

constexpr std::uint64_t kMicrosecondsPerMinute = 60'000'000;

bool BeginsWithFailOpenState(const char *text, const char *beginning) {
    return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

FailOpenResult RunFailOpenDeactivated(HealthState &health, const FailOpenInput &input) {
    const std::int32_t overCount = check_health_metric_thresholds(health.metrics, 1.0);
    if (overCount == 0)
        return {actionNormal, FailOpenState::Deactivated};
    health.activationTime = input.now;
    // compat 40: clears the wait here and starts it with the first call in Activated
    clearBackoffState(health.backoff, input.dom);
    Trace(input.site, "SysHealth transitioning to Fail-Open, metrics over threshold = %d", overCount);
    return {actionFailOpen, FailOpenState::Activated};
}

FailOpenResult CheckFailOpenRecovery(HealthState &health, const FailOpenInput &input, FailOpenResult result) {
    // compat 47: a factor of 0, which a policy may set, makes every limit unreachable
    const SysHealthConfigEntry &recoverFactor = health.config[SYS_CONF_RECOVER_FACTOR];
    if (recoverFactor.is_set != 0)
        result.factor = recoverFactor.value * 0.01;
    const std::int32_t overCount = check_health_metric_thresholds(health.metrics, result.factor);
    if (overCount != 0) {
        GrowBackoff(health.backoff, input, overCount);
        result.next_chk = health.backoff.backoff_wait;
        return result;
    }
    health.activationTime = 0;
    clearBackoffState(health.backoff, input.dom);
    Trace(input.site, "SysHealth recovery successful, metrics over threshold = %d", overCount);
    result.action = actionNormal;
    result.state = FailOpenState::Deactivated;
    return result;
}

FailOpenResult RunFailOpenActivated(HealthState &health, const FailOpenInput &input) {
    FailOpenResult result{actionFailOpen, FailOpenState::Activated};
    result.act_dur = input.now - health.activationTime;
    const Backoff &backoff = health.backoff;
    if (backoff.backoff_wait == 0)
        StartBackoff(health.backoff, input);
    // compat 48: a clock that was set back makes this huge, so that recovery is checked at once
    const std::uint64_t elapsed = (input.now - backoff.last_check) / kMicrosecondsPerMinute;
    // compat 39: checks no metric before the wait is over
    if (elapsed >= backoff.backoff_wait)
        return CheckFailOpenRecovery(health, input, result);
    result.next_chk = backoff.backoff_wait - elapsed;
    Trace(input.site, "SysHealth in backoff period, %llu minutes remaining", result.next_chk);
    return result;
}

}  // namespace

// compat 41: accepts any text that begins with a state's name
std::optional<FailOpenState> FailOpenStateFromText(const char *text) {
    if (BeginsWithFailOpenState(text, "Activated"))
        return FailOpenState::Activated;
    if (BeginsWithFailOpenState(text, "Deactivated"))
        return FailOpenState::Deactivated;
    wxLogError("incorrect state value %s for state string", TextForMessage(text));
    return std::nullopt;
}

FailOpenResult RunFailOpen(HealthState &health, const FailOpenInput &input) {
    return input.state == FailOpenState::Activated ? RunFailOpenActivated(health, input)
                                                   : RunFailOpenDeactivated(health, input);
}
