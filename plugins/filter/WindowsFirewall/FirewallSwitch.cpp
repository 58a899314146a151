#include <array>
#include <optional>

#include <windows.h>

#include "FirewallTrace.h"
#include "FirewallObjects.h"
#include "FirewallService.h"
#include "WindowsFirewall.h"
#include "common/Unique.h"

namespace WindowsFirewall {

namespace {

constexpr wchar_t kFlagKey[] = L"SOFTWARE\\Quillon\\Vantry Agent";
constexpr wchar_t kFlag[] = L"WindowsFirewallDisabledByInstaller";

/// A profile's number is its bit in the mask.
struct Profile {
    NET_FW_PROFILE_TYPE2 number;
    const char *readFailed;
    const char *read;
    const char *turningOff;
    const char *turningOn;
    const char *writeFailed;
};
constexpr std::array<Profile, 3> kProfiles{{
    {NET_FW_PROFILE2_DOMAIN, "get_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) failed: 0x%08lx",
     "fwPolicy2->get_FirewallEnabled NET_FW_PROFILE2_DOMAIN returned %d",
     "put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) false", "put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) true",
     "put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) failed: 0x%08lx"},
    {NET_FW_PROFILE2_PRIVATE, "get_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) failed: 0x%08lx",
     "fwPolicy2->get_FirewallEnabled NET_FW_PROFILE2_PRIVATE returned %d",
     "put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) false", "put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) true",
     "put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) failed: 0x%08lx"},
    {NET_FW_PROFILE2_PUBLIC, "get_FirewallEnabled(NET_FW_PROFILE2_PUBLIC) failed: 0x%08lx",
     "fwPolicy2->get_FirewallEnabled NET_FW_PROFILE2_PUBLIC returned %d",
     "put_FirewallEnabled(NET_FW_PROFILE2_PUBLIC) false", "put_FirewallEnabled(NET_FW_PROFILE2_PUBLIC) true",
     "put_FirewallEnabled(NET_FW_PROFILE2_PUBLIC) failed: 0x%08lx"},
}};

/// The profiles of the policy where there is one, else the current profile alone.
class FirewallProfiles {
public:
    explicit FirewallProfiles(const TraceSite &site) : m_site(site) {}

    /// @return false after a failure, which is traced, as with the others.
    bool Open() {
        const HRESULT hr = WindowsFirewallInitialize(&m_profile, &m_policy);
        return SUCCEEDED(TraceIfFailed(hr, "WindowsFirewallInitialize failed: 0x%08lx", m_site));
    }

    /// @return the mask of what is on.
    std::optional<DWORD> EnabledMask() { return m_policy ? EnabledOfPolicy() : EnabledOfCurrentProfile(); }

    /// @param mask  not zero. compat 154: ignores bits of no profile, except before Vista
    bool Enable(DWORD mask) { return PutEnabled(mask, VARIANT_TRUE); }
    bool Disable(DWORD mask) { return PutEnabled(mask, VARIANT_FALSE); }

private:
    std::optional<DWORD> EnabledOfCurrentProfile() {
        VARIANT_BOOL enabled = VARIANT_FALSE;
        const HRESULT hr = m_profile->get_FirewallEnabled(&enabled);
        if (FAILED(TraceIfFailed(hr, "get_FirewallEnabled failed: 0x%08lx", m_site)))
            return std::nullopt;
        Trace(m_site, "fwPolicy->get_FirewallEnabled returned %d", static_cast<int>(enabled));
        return enabled != VARIANT_FALSE ? 1 : 0;
    }

    std::optional<DWORD> EnabledOfPolicy() {
        DWORD mask = 0;
        for (const Profile &profile : kProfiles) {
            VARIANT_BOOL enabled = VARIANT_FALSE;
            const HRESULT hr = m_policy->get_FirewallEnabled(profile.number, &enabled);
            if (FAILED(TraceIfFailed(hr, profile.readFailed, m_site)))
                return std::nullopt;
            Trace(m_site, profile.read, static_cast<int>(enabled));
            mask |= enabled != VARIANT_FALSE ? static_cast<DWORD>(profile.number) : 0;
        }
        return mask;
    }

    bool PutEnabled(DWORD mask, VARIANT_BOOL enabled) {
        const bool on = enabled != VARIANT_FALSE;
        if (!m_policy) {
            Trace(m_site, on ? "put_FirewallEnabled true" : "put_FirewallEnabled false");
            const HRESULT hr = m_profile->put_FirewallEnabled(enabled);
            return SUCCEEDED(TraceIfFailed(hr, "put_FirewallEnabled failed: 0x%08lx", m_site));
        }
        for (const Profile &profile : kProfiles) {
            if ((mask & static_cast<DWORD>(profile.number)) == 0)
                continue;
            Trace(m_site, on ? profile.turningOn : profile.turningOff);
            const HRESULT hr = m_policy->put_FirewallEnabled(profile.number, enabled);
            if (FAILED(TraceIfFailed(hr, profile.writeFailed, m_site)))
                return false;
        }
        return true;
    }

    TraceSite m_site;
    ComPtr<INetFwPolicy2> m_policy;
    ComPtr<INetFwProfile> m_profile;  ///< Released first.
};

std::array<wchar_t, 256> FlagKeyName() {
    std::array<wchar_t, 256> name{};
    (void)lstrcpynW(name.data(), kFlagKey, static_cast<int>(name.size()));
    return name;
}

/// compat 133: a key that can't be made leaves neither record nor trace
void RememberDisabledProfiles(DWORD mask, const TraceSite &site) {
    HKEY made = nullptr;
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE, FlagKeyName().data(), &made) != ERROR_SUCCESS)
        return;
    const UniqueKey key(made);
    Trace(site, "Writing the registry key to flag that vantry turned off the windows firewall %d",
          static_cast<int>(mask));
    if (RegSetValueExW(key.get(), kFlag, 0, REG_DWORD, reinterpret_cast<const BYTE *>(&mask), sizeof(mask)) !=
        ERROR_SUCCESS)
        Trace(site, "Error writing registry key.");
}

void ForgetDisabledProfiles(const UniqueKey &key, const TraceSite &site) {
    const LSTATUS error = RegDeleteValueW(key.get(), kFlag);
    if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND)
        Trace(site, "RegDeleteValue('WindowsFirewallDisabledByInstaller') failed: 0x%08lx",
              static_cast<unsigned long>(error));
}

/// compat 132: writes the flag only when all are off, so no restore brings back what went off before a failure
void TurnProfilesOff(const TraceSite &site) {
    FirewallProfiles profiles(site);
    if (!profiles.Open())
        return;
    const std::optional<DWORD> mask = profiles.EnabledMask();
    if (!mask || *mask == 0)
        return;
    // compat 137: a new mask replaces the old one, whose profiles are forgotten
    Trace(site, "The windows firewall is enabled going to disable it");
    if (profiles.Disable(*mask))
        RememberDisabledProfiles(*mask, site);
}

/// @param type  of the flag, and
/// @param mask  its data. compat 135: an odd flag restores nothing and is deleted
/// @return false when something could not be restored. compat 136: the flag then stays whole
bool TurnProfilesBackOn(FirewallProfiles &profiles, DWORD type, DWORD mask, const TraceSite &site) {
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
    FillOsVersionRecord();
    bool running = false;
    if (!IsFirewallServiceRunning(&running)) {
        Trace(site, "StartFirewallService returned false when disabling windows firewall");
    } else if (!running) {
        Trace(site, "Windows firewall(SharedService) is not enabled");
    } else if (StartCom(site)) {
        TurnProfilesOff(site);
        CoUninitialize();
    }
    return 0;
}

int EnableFirewall() {
    const TraceSite site(kFirewallTrace);
    Trace(site, "EnableFirewall()");
    FillOsVersionRecord();
    HKEY opened = nullptr;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, FlagKeyName().data(), &opened) != ERROR_SUCCESS)
        return 0;
    UniqueKey key(opened);
    DWORD type = 0;
    DWORD mask = 0;
    DWORD size = sizeof(mask);
    if (RegQueryValueExW(key.get(), kFlag, nullptr, &type, reinterpret_cast<BYTE *>(&mask), &size) != ERROR_SUCCESS) {
        ForgetDisabledProfiles(key, site);
        return 0;
    }
    bool wasRunning = false;
    if (!EnsureFirewallServiceRuns(&wasRunning)) {
        Trace(site, "StartFirewallService returned false when enabling windows firewall");
        (void)key.release();  // compat 134: leaves the handle open
        return 0;
    }
    if (StartCom(site)) {
        {
            FirewallProfiles profiles(site);
            if (TurnProfilesBackOn(profiles, type, mask, site))
                ForgetDisabledProfiles(key, site);
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
