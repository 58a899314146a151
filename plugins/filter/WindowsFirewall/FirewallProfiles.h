// The firewall of each profile: whether it is on, and turning it on and off.
#pragma once

#include <optional>

#include <windows.h>
#include <netfw.h>
#include <wrl/client.h>

#include "common/Trace.h"

namespace WindowsFirewall {

using Microsoft::WRL::ComPtr;

/// The profiles of the policy where there is one, else the current profile alone.
class FirewallProfiles {
public:
    /// @param site  of the switch, in whose name failures are traced.
    explicit FirewallProfiles(const TraceSite &site);

    /// @return false after a failure, which is traced, as with the others.
    bool Open();

    /// @return the mask of what is on.
    std::optional<DWORD> EnabledMask();

    /// @param mask  not zero. compat 154: ignores bits of no profile, except before Vista
    bool Enable(DWORD mask);
    bool Disable(DWORD mask);

private:
    std::optional<DWORD> EnabledOfCurrentProfile();
    std::optional<DWORD> EnabledOfPolicy();
    bool PutEnabled(DWORD mask, VARIANT_BOOL enabled);

    TraceSite m_site;
    ComPtr<INetFwPolicy2> m_policy;
    ComPtr<INetFwProfile> m_profile;  ///< Released first.
};

}  // namespace WindowsFirewall
