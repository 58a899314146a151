// The simulated firewall's legacy interfaces: the manager, its policy, and the current profile.
#pragma once

#include <memory>

#include <windows.h>
#include <netfw.h>

#include "AutomationObject.h"
#include "Firewall.h"

namespace Simulator {

class FirewallManagerObject final : public AutomationObject<INetFwMgr> {
public:
    FirewallManagerObject(const std::shared_ptr<Core> &core, std::shared_ptr<Firewall> firewall);

    HRESULT STDMETHODCALLTYPE get_LocalPolicy(INetFwPolicy **localPolicy) override;

    // E_NOTIMPL
    HRESULT STDMETHODCALLTYPE get_CurrentProfileType(NET_FW_PROFILE_TYPE *profileType) override {
        return NotThere("get_CurrentProfileType", profileType);
    }
    HRESULT STDMETHODCALLTYPE RestoreDefaults() override { return NotThere("RestoreDefaults"); }
    HRESULT STDMETHODCALLTYPE IsPortAllowed(BSTR imageFileName, NET_FW_IP_VERSION ipVersion, LONG portNumber,
                                            BSTR localAddress, NET_FW_IP_PROTOCOL ipProtocol, VARIANT *allowed,
                                            VARIANT *restricted) override {
        return NotThere("IsPortAllowed", imageFileName, ipVersion, portNumber, localAddress, ipProtocol, allowed,
                        restricted);
    }
    HRESULT STDMETHODCALLTYPE IsIcmpTypeAllowed(NET_FW_IP_VERSION ipVersion, BSTR localAddress, BYTE type,
                                                VARIANT *allowed, VARIANT *restricted) override {
        return NotThere("IsIcmpTypeAllowed", ipVersion, localAddress, type, allowed, restricted);
    }

private:
    const std::shared_ptr<Firewall> m_firewall;
};

class FirewallLocalPolicyObject final : public AutomationObject<INetFwPolicy> {
public:
    FirewallLocalPolicyObject(const std::shared_ptr<Core> &core, std::shared_ptr<Firewall> firewall);

    HRESULT STDMETHODCALLTYPE get_CurrentProfile(INetFwProfile **profile) override;

    // E_NOTIMPL
    HRESULT STDMETHODCALLTYPE GetProfileByType(NET_FW_PROFILE_TYPE profileType, INetFwProfile **profile) override {
        return NotThere("GetProfileByType", profileType, profile);
    }

private:
    const std::shared_ptr<Firewall> m_firewall;
};

class FirewallProfileObject final : public AutomationObject<INetFwProfile> {
public:
    FirewallProfileObject(const std::shared_ptr<Core> &core, std::shared_ptr<Firewall> firewall);

    /// This and the next: the current profile's switch. A change takes effect at once.
    HRESULT STDMETHODCALLTYPE get_FirewallEnabled(VARIANT_BOOL *enabled) override;
    HRESULT STDMETHODCALLTYPE put_FirewallEnabled(VARIANT_BOOL enabled) override;
    HRESULT STDMETHODCALLTYPE get_AuthorizedApplications(INetFwAuthorizedApplications **apps) override;

    // E_NOTIMPL
    HRESULT STDMETHODCALLTYPE get_Type(NET_FW_PROFILE_TYPE *type) override { return NotThere("get_Type", type); }
    HRESULT STDMETHODCALLTYPE get_ExceptionsNotAllowed(VARIANT_BOOL *notAllowed) override {
        return NotThere("get_ExceptionsNotAllowed", notAllowed);
    }
    HRESULT STDMETHODCALLTYPE put_ExceptionsNotAllowed(VARIANT_BOOL notAllowed) override {
        return NotThere("put_ExceptionsNotAllowed", notAllowed);
    }
    HRESULT STDMETHODCALLTYPE get_NotificationsDisabled(VARIANT_BOOL *disabled) override {
        return NotThere("get_NotificationsDisabled", disabled);
    }
    HRESULT STDMETHODCALLTYPE put_NotificationsDisabled(VARIANT_BOOL disabled) override {
        return NotThere("put_NotificationsDisabled", disabled);
    }
    HRESULT STDMETHODCALLTYPE get_UnicastResponsesToMulticastBroadcastDisabled(VARIANT_BOOL *disabled) override {
        return NotThere("get_UnicastResponsesToMulticastBroadcastDisabled", disabled);
    }
    HRESULT STDMETHODCALLTYPE put_UnicastResponsesToMulticastBroadcastDisabled(VARIANT_BOOL disabled) override {
        return NotThere("put_UnicastResponsesToMulticastBroadcastDisabled", disabled);
    }
    HRESULT STDMETHODCALLTYPE get_RemoteAdminSettings(INetFwRemoteAdminSettings **remoteAdminSettings) override {
        return NotThere("get_RemoteAdminSettings", remoteAdminSettings);
    }
    HRESULT STDMETHODCALLTYPE get_IcmpSettings(INetFwIcmpSettings **icmpSettings) override {
        return NotThere("get_IcmpSettings", icmpSettings);
    }
    HRESULT STDMETHODCALLTYPE get_GloballyOpenPorts(INetFwOpenPorts **openPorts) override {
        return NotThere("get_GloballyOpenPorts", openPorts);
    }
    HRESULT STDMETHODCALLTYPE get_Services(INetFwServices **services) override {
        return NotThere("get_Services", services);
    }

private:
    const std::shared_ptr<Firewall> m_firewall;
};

}  // namespace Simulator
