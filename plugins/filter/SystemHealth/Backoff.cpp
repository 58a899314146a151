#include "Backoff.h"

#include "HealthLog.h"
#include "fc/fc.h"

std::uint64_t backoff_wait = 0;
std::uint64_t last_check = 0;

namespace {

constexpr wchar_t kWaitSetting[] = L"vtp.filter.SysHealthBackoffWait";
constexpr wchar_t kCheckSetting[] = L"vtp.filter.SysHealthLastRecoveryCheck";
constexpr int kDecimal = 10;

}  // namespace

void loadBackoffState(const VtaCore::CDom &dom) {
    const wxString waitText = dom.SettingRetrieve(kWaitSetting);
    const wxString checkText = dom.SettingRetrieve(kCheckSetting);
    // compat 50: parses the wait in 32 bits and the check in 64
    unsigned long wait = 0;
    // compat 51: a setting that is no number leaves the last value
    if (!waitText.empty() && waitText.ToULong(&wait, kDecimal))
        backoff_wait = wait;  // compat 52: also above the longest wait, which caps growth alone
    wxULongLong_t check = 0;
    if (!checkText.empty() && checkText.ToULongLong(&check, kDecimal))
        last_check = check;
    Trace(kEngineTrace, "loadBackoffState() backoff_wait=%llu last_check=%llu", backoff_wait, last_check);
}

void saveBackoffState(VtaCore::CDom &dom) {
    dom.SettingStore(kWaitSetting, wxString::Format("%llu", backoff_wait));
    dom.SettingStore(kCheckSetting, wxString::Format("%llu", last_check));
    Trace(kEngineTrace, "saveBackoffState() backoff_wait=%llu last_check=%llu", backoff_wait, last_check);
}

void clearBackoffState(VtaCore::CDom &dom) {
    backoff_wait = 0;
    last_check = 0;
    dom.SettingStore(kWaitSetting, "0");
    dom.SettingStore(kCheckSetting, "0");
    Trace(kEngineTrace, "clearBackoffState() cleared backoff state");
}
