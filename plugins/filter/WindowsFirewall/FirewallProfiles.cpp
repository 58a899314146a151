#include "FirewallProfiles.h"

#include <array>

#include "FirewallTrace.h"
#include "WindowsFirewallInitialize.h"

namespace WindowsFirewall {

namespace {

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

}  // namespace

FirewallProfiles::FirewallProfiles(const TraceSite &site) : m_site(site) {}

bool FirewallProfiles::Open() {
    const HRESULT hr = WindowsFirewallInitialize(&m_profile, &m_policy);
    return SUCCEEDED(TraceIfFailed(hr, "WindowsFirewallInitialize failed: 0x%08lx", m_site));
}

std::optional<DWORD> FirewallProfiles::EnabledMask() {
    return m_policy ? EnabledOfPolicy() : EnabledOfCurrentProfile();
}

bool FirewallProfiles::Enable(DWORD mask) {
    return PutEnabled(mask, VARIANT_TRUE);
}

bool FirewallProfiles::Disable(DWORD mask) {
    return PutEnabled(mask, VARIANT_FALSE);
}

std::optional<DWORD> FirewallProfiles::EnabledOfCurrentProfile() {
    VARIANT_BOOL enabled = VARIANT_FALSE;
    const HRESULT hr = m_profile->get_FirewallEnabled(&enabled);
    if (FAILED(TraceIfFailed(hr, "get_FirewallEnabled failed: 0x%08lx", m_site)))
        return std::nullopt;
    Trace(m_site, "fwPolicy->get_FirewallEnabled returned %d", static_cast<int>(enabled));
    return enabled != VARIANT_FALSE ? 1 : 0;
}

std::optional<DWORD> FirewallProfiles::EnabledOfPolicy() {
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

bool FirewallProfiles::PutEnabled(DWORD mask, VARIANT_BOOL enabled) {
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

}  // namespace WindowsFirewall
