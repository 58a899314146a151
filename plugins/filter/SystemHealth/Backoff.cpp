#include "Backoff.h"

#include <algorithm>

#include "FailOpen.h"
#include "HealthTrace.h"
#include "common/Trace.h"

namespace {

constexpr wchar_t kWaitSetting[] = L"vtp.filter.SysHealthBackoffWait";
constexpr wchar_t kCheckSetting[] = L"vtp.filter.SysHealthLastRecoveryCheck";
constexpr int kDecimal = 10;

}  // namespace

void loadBackoffState(Backoff &backoff, const VtaCore::CDom &dom) {
    const wxString waitText = dom.SettingRetrieve(kWaitSetting);
    const wxString checkText = dom.SettingRetrieve(kCheckSetting);
    // compat 50: parses the wait in 32 bits and the check in 64
    unsigned long wait = 0;
    // compat 51: a setting that is no number leaves the last value
    if (!waitText.empty() && waitText.ToULong(&wait, kDecimal))
        backoff.backoff_wait = wait;  // compat 52: also above the longest wait, which caps growth alone
    wxULongLong_t check = 0;
    if (!checkText.empty() && checkText.ToULongLong(&check, kDecimal))
        backoff.last_check = check;
    Trace(kEngineTrace, "loadBackoffState() backoff_wait=%llu last_check=%llu", backoff.backoff_wait,
          backoff.last_check);
}

void saveBackoffState(const Backoff &backoff, VtaCore::CDom &dom) {
    dom.SettingStore(kWaitSetting, wxString::Format("%llu", backoff.backoff_wait));
    dom.SettingStore(kCheckSetting, wxString::Format("%llu", backoff.last_check));
    Trace(kEngineTrace, "saveBackoffState() backoff_wait=%llu last_check=%llu", backoff.backoff_wait,
          backoff.last_check);
}

void clearBackoffState(Backoff &backoff, VtaCore::CDom &dom) {
    backoff = {};
    dom.SettingStore(kWaitSetting, "0");
    dom.SettingStore(kCheckSetting, "0");
    Trace(kEngineTrace, "clearBackoffState() cleared backoff state");
}

void StartBackoff(Backoff &backoff, const FailOpenInput &input) {
    backoff.backoff_wait = input.min_dur;
    backoff.last_check = input.now;
    saveBackoffState(backoff, input.dom);
    Trace(input.site, "SysHealth initializing backoff, wait=%llu minutes", backoff.backoff_wait);
}

void GrowBackoff(Backoff &backoff, const FailOpenInput &input, std::int32_t overCount) {
    backoff.backoff_wait = std::min(backoff.backoff_wait * 2, input.max_dur);
    backoff.last_check = input.now;
    saveBackoffState(backoff, input.dom);
    Trace(input.site, "SysHealth backoff increased, metrics over threshold = %d, next wait = %llu minutes", overCount,
          backoff.backoff_wait);
}
