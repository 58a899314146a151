#include "FirewallProfileObjects.h"

#include <utility>

#include "FirewallApplicationObjects.h"

namespace Simulator {

FirewallManagerObject::FirewallManagerObject(const std::shared_ptr<Core> &core, std::shared_ptr<Firewall> firewall)
    : AutomationObject(core, "INetFwMgr", {"INetFwMgr::AddRef", "INetFwMgr::QueryInterface"}),
      m_firewall(std::move(firewall)) {}

HRESULT FirewallManagerObject::get_LocalPolicy(INetFwPolicy **localPolicy) {
    static constexpr char name[] = "INetFwMgr::get_LocalPolicy";
    ClearResult(localPolicy);
    return Call(
        name,
        [&] {
            if (localPolicy == nullptr)
                return E_POINTER;
            *localPolicy = std::make_shared<FirewallLocalPolicyObject>(TheCore(), m_firewall)->Give(name);
            return S_OK;
        },
        localPolicy);
}

FirewallLocalPolicyObject::FirewallLocalPolicyObject(const std::shared_ptr<Core> &core,
                                                     std::shared_ptr<Firewall> firewall)
    : AutomationObject(core, "INetFwPolicy", {"INetFwPolicy::AddRef", "INetFwPolicy::QueryInterface"}),
      m_firewall(std::move(firewall)) {}

HRESULT FirewallLocalPolicyObject::get_CurrentProfile(INetFwProfile **profile) {
    static constexpr char name[] = "INetFwPolicy::get_CurrentProfile";
    ClearResult(profile);
    return Call(
        name,
        [&] {
            if (profile == nullptr)
                return E_POINTER;
            *profile = std::make_shared<FirewallProfileObject>(TheCore(), m_firewall)->Give(name);
            return S_OK;
        },
        profile);
}

FirewallProfileObject::FirewallProfileObject(const std::shared_ptr<Core> &core, std::shared_ptr<Firewall> firewall)
    : AutomationObject(core, "INetFwProfile", {"INetFwProfile::AddRef", "INetFwProfile::QueryInterface"}),
      m_firewall(std::move(firewall)) {}

HRESULT FirewallProfileObject::get_FirewallEnabled(VARIANT_BOOL *enabled) {
    return Call(
        "INetFwProfile::get_FirewallEnabled",
        [&] {
            if (enabled == nullptr)
                return E_POINTER;
            *enabled = m_firewall->Use([](const FirewallState &state) { return state.currentProfile; });
            return S_OK;
        },
        enabled);
}

HRESULT FirewallProfileObject::put_FirewallEnabled(VARIANT_BOOL enabled) {
    return Call(
        "INetFwProfile::put_FirewallEnabled",
        [&] {
            m_firewall->Use([&](FirewallState &state) { state.currentProfile = enabled; });
            return S_OK;
        },
        enabled);
}

HRESULT FirewallProfileObject::get_AuthorizedApplications(INetFwAuthorizedApplications **apps) {
    static constexpr char name[] = "INetFwProfile::get_AuthorizedApplications";
    ClearResult(apps);
    return Call(
        name,
        [&] {
            if (apps == nullptr)
                return E_POINTER;
            *apps = std::make_shared<FirewallApplicationList>(TheCore(), m_firewall)->Give(name);
            return S_OK;
        },
        apps);
}

}  // namespace Simulator
