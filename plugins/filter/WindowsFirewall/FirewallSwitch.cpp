#include <array>
#include <optional>

#include <windows.h>

#include "FirewallProfiles.h"
#include "FirewallService.h"
#include "FirewallTrace.h"
#include "FirewallVersionRecord.h"
#include "WindowsFirewall.h"
#include "WindowsFirewallInitialize.h"
#include "common/Unique.h"

namespace WindowsFirewall {

namespace {

constexpr wchar_t kFlagKey[] = L"SOFTWARE\\Quillon\\Vantry Agent";
constexpr wchar_t kFlag[] = L"WindowsFirewallDisabledByInstaller";

std::array<wchar_t, 256> FirewallSwitchKeyName() {
    std::array<wchar_t, 256> name{};
    (void)lstrcpynW(name.data(), kFlagKey, static_cast<int>(name.size()));
    return name;
}

/// compat 133: a key that can't be made leaves neither record nor trace
void RememberSwitchedProfiles(DWORD mask, const TraceSite &site) {
    HKEY made = nullptr;
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE, FirewallSwitchKeyName().data(), &made) != ERROR_SUCCESS)
        return;
    const UniqueKey key(made);
    Trace(site, "Writing the registry key to flag that vantry turned off the windows firewall %d",
          static_cast<int>(mask));
    if (RegSetValueExW(key.get(), kFlag, 0, REG_DWORD, reinterpret_cast<const BYTE *>(&mask), sizeof(mask)) !=
        ERROR_SUCCESS)
        Trace(site, "Error writing registry key.");
}

void ForgetSwitchedProfiles(const UniqueKey &key, const TraceSite &site) {
    const LSTATUS error = RegDeleteValueW(key.get(), kFlag);
    if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND)
        Trace(site, "RegDeleteValue('WindowsFirewallDisabledByInstaller') failed: 0x%08lx",
              static_cast<unsigned long>(error));
}

/// compat 132: writes the flag only when all are off, so no restore brings back what went off before a failure
void SwitchProfilesOff(const TraceSite &site) {
    FirewallProfiles profiles(site);
    if (!profiles.Open())
        return;
    const std::optional<DWORD> mask = profiles.EnabledMask();
    if (!mask || *mask == 0)
        return;
    // compat 137: a new mask replaces the old one, whose profiles are forgotten
    Trace(site, "The windows firewall is enabled going to disable it");
    if (profiles.Disable(*mask))
        RememberSwitchedProfiles(*mask, site);
}

/// @param type  of the flag, and
/// @param mask  its data. compat 135: an odd flag restores nothing and is deleted
/// @return false when something could not be restored. compat 136: the flag then stays whole
bool SwitchProfilesBackOn(FirewallProfiles &profiles, DWORD type, DWORD mask, const TraceSite &site) {
    if (!profiles.Open())
        return false;
    if (type != REG_DWORD || mask == 0)
        return true;
    Trace(site, "Turning Windows Firewall back on, previous Setting was %d", static_cast<int>(mask));
    return profiles.Enable(mask);
}

}  // namespace

int DisableFirewall() {
    const TraceSite site(kFirewallTrace);
    Trace(site, "DisableFirewall()");
    FillFirewallVersionRecord();
    bool running = false;
    if (!IsFirewallServiceRunning(&running)) {
        Trace(site, "StartFirewallService returned false when disabling windows firewall");
    } else if (!running) {
        Trace(site, "Windows firewall(SharedService) is not enabled");
    } else if (InitializeFirewallCom(site)) {
        SwitchProfilesOff(site);
        CoUninitialize();
    }
    return 0;
}

int EnableFirewall() {
    const TraceSite site(kFirewallTrace);
    Trace(site, "EnableFirewall()");
    FillFirewallVersionRecord();
    HKEY opened = nullptr;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, FirewallSwitchKeyName().data(), &opened) != ERROR_SUCCESS)
        return 0;
    UniqueKey key(opened);
    DWORD type = 0;
    DWORD mask = 0;
    DWORD size = sizeof(mask);
    if (RegQueryValueExW(key.get(), kFlag, nullptr, &type, reinterpret_cast<BYTE *>(&mask), &size) != ERROR_SUCCESS) {
        ForgetSwitchedProfiles(key, site);
        return 0;
    }
    bool wasRunning = false;
    if (!EnsureFirewallServiceRuns(&wasRunning)) {
        Trace(site, "StartFirewallService returned false when enabling windows firewall");
        (void)key.release();  // compat 134: leaves the handle open
        return 0;
    }
    if (InitializeFirewallCom(site)) {
        {
            FirewallProfiles profiles(site);
            if (SwitchProfilesBackOn(profiles, type, mask, site))
                ForgetSwitchedProfiles(key, site);
            key.reset();
        }
        CoUninitialize();
    }
    key.reset();
    if (!wasRunning)
        StopFirewallService(&wasRunning);
    return 0;
}

}  // namespace WindowsFirewall
