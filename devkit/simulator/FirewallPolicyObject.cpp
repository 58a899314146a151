#include "FirewallPolicyObject.h"

#include <utility>

namespace Simulator {

namespace {

/// @return null for an invalid profile.
VARIANT_BOOL *SwitchOf(FirewallState &state, NET_FW_PROFILE_TYPE2 profile) {
    switch (profile) {
        case NET_FW_PROFILE2_DOMAIN:
            return &state.domainProfile;
        case NET_FW_PROFILE2_PRIVATE:
            return &state.privateProfile;
        case NET_FW_PROFILE2_PUBLIC:
            return &state.publicProfile;
        default:
            return nullptr;
    }
}

}  // namespace

FirewallPolicyObject::FirewallPolicyObject(const std::shared_ptr<Core> &core, std::shared_ptr<Firewall> firewall)
    : AutomationObject(core, "INetFwPolicy2", {"INetFwPolicy2::AddRef", "INetFwPolicy2::QueryInterface"}),
      m_firewall(std::move(firewall)) {}

HRESULT FirewallPolicyObject::get_FirewallEnabled(NET_FW_PROFILE_TYPE2 profileType, VARIANT_BOOL *enabled) {
    return Call(
        "INetFwPolicy2::get_FirewallEnabled",
        [&] {
            return m_firewall->Use([&](FirewallState &state) -> HRESULT {
                if (enabled == nullptr)
                    return E_POINTER;
                const VARIANT_BOOL *profile = SwitchOf(state, profileType);
                if (profile == nullptr)
                    return E_INVALIDARG;
                *enabled = *profile;
                return S_OK;
            });
        },
        profileType, enabled);
}

HRESULT FirewallPolicyObject::put_FirewallEnabled(NET_FW_PROFILE_TYPE2 profileType, VARIANT_BOOL enabled) {
    return Call(
        "INetFwPolicy2::put_FirewallEnabled",
        [&] {
            return m_firewall->Use([&](FirewallState &state) -> HRESULT {
                VARIANT_BOOL *profile = SwitchOf(state, profileType);
                if (profile == nullptr)
                    return E_INVALIDARG;
                *profile = enabled;
                return S_OK;
            });
        },
        profileType, enabled);
}

}  // namespace Simulator
