// The simulated INetFwPolicy2.
#pragma once

#include <memory>

#include <windows.h>
#include <netfw.h>

#include "AutomationObject.h"
#include "Firewall.h"

namespace Simulator {

class FirewallPolicyObject final : public AutomationObject<INetFwPolicy2> {
public:
    FirewallPolicyObject(const std::shared_ptr<Core> &core, std::shared_ptr<Firewall> firewall);

    /// This and the next: one profile's switch; E_INVALIDARG for none, or several. A change takes effect at once.
    HRESULT STDMETHODCALLTYPE get_FirewallEnabled(NET_FW_PROFILE_TYPE2 profileType, VARIANT_BOOL *enabled) override;
    HRESULT STDMETHODCALLTYPE put_FirewallEnabled(NET_FW_PROFILE_TYPE2 profileType, VARIANT_BOOL enabled) override;

    // E_NOTIMPL
    HRESULT STDMETHODCALLTYPE get_CurrentProfileTypes(LONG *profile) override {
        return NotThere("get_CurrentProfileTypes", profile);
    }
    HRESULT STDMETHODCALLTYPE get_ExcludedInterfaces(NET_FW_PROFILE_TYPE2 profileType, VARIANT *interfaces) override {
        return NotThere("get_ExcludedInterfaces", profileType, interfaces);
    }
    HRESULT STDMETHODCALLTYPE put_ExcludedInterfaces(NET_FW_PROFILE_TYPE2 profileType, VARIANT interfaces) override {
        return NotThere("put_ExcludedInterfaces", profileType, interfaces);
    }
    HRESULT STDMETHODCALLTYPE get_BlockAllInboundTraffic(NET_FW_PROFILE_TYPE2 profileType,
                                                         VARIANT_BOOL *block) override {
        return NotThere("get_BlockAllInboundTraffic", profileType, block);
    }
    HRESULT STDMETHODCALLTYPE put_BlockAllInboundTraffic(NET_FW_PROFILE_TYPE2 profileType,
                                                         VARIANT_BOOL block) override {
        return NotThere("put_BlockAllInboundTraffic", profileType, block);
    }
    HRESULT STDMETHODCALLTYPE get_NotificationsDisabled(NET_FW_PROFILE_TYPE2 profileType,
                                                        VARIANT_BOOL *disabled) override {
        return NotThere("get_NotificationsDisabled", profileType, disabled);
    }
    HRESULT STDMETHODCALLTYPE put_NotificationsDisabled(NET_FW_PROFILE_TYPE2 profileType,
                                                        VARIANT_BOOL disabled) override {
        return NotThere("put_NotificationsDisabled", profileType, disabled);
    }
    HRESULT STDMETHODCALLTYPE get_UnicastResponsesToMulticastBroadcastDisabled(NET_FW_PROFILE_TYPE2 profileType,
                                                                               VARIANT_BOOL *disabled) override {
        return NotThere("get_UnicastResponsesToMulticastBroadcastDisabled", profileType, disabled);
    }
    HRESULT STDMETHODCALLTYPE put_UnicastResponsesToMulticastBroadcastDisabled(NET_FW_PROFILE_TYPE2 profileType,
                                                                               VARIANT_BOOL disabled) override {
        return NotThere("put_UnicastResponsesToMulticastBroadcastDisabled", profileType, disabled);
    }
    HRESULT STDMETHODCALLTYPE get_Rules(INetFwRules **rules) override { return NotThere("get_Rules", rules); }
    HRESULT STDMETHODCALLTYPE get_ServiceRestriction(INetFwServiceRestriction **ServiceRestriction) override {
        return NotThere("get_ServiceRestriction", ServiceRestriction);
    }
    HRESULT STDMETHODCALLTYPE EnableRuleGroup(LONG profileTypesBitmask, BSTR group, VARIANT_BOOL enable) override {
        return NotThere("EnableRuleGroup", profileTypesBitmask, group, enable);
    }
    HRESULT STDMETHODCALLTYPE IsRuleGroupEnabled(LONG profileTypesBitmask, BSTR group, VARIANT_BOOL *enabled) override {
        return NotThere("IsRuleGroupEnabled", profileTypesBitmask, group, enabled);
    }
    HRESULT STDMETHODCALLTYPE RestoreLocalFirewallDefaults() override {
        return NotThere("RestoreLocalFirewallDefaults");
    }
    HRESULT STDMETHODCALLTYPE get_DefaultInboundAction(NET_FW_PROFILE_TYPE2 profileType,
                                                       NET_FW_ACTION *action) override {
        return NotThere("get_DefaultInboundAction", profileType, action);
    }
    HRESULT STDMETHODCALLTYPE put_DefaultInboundAction(NET_FW_PROFILE_TYPE2 profileType,
                                                       NET_FW_ACTION action) override {
        return NotThere("put_DefaultInboundAction", profileType, action);
    }
    HRESULT STDMETHODCALLTYPE get_DefaultOutboundAction(NET_FW_PROFILE_TYPE2 profileType,
                                                        NET_FW_ACTION *action) override {
        return NotThere("get_DefaultOutboundAction", profileType, action);
    }
    HRESULT STDMETHODCALLTYPE put_DefaultOutboundAction(NET_FW_PROFILE_TYPE2 profileType,
                                                        NET_FW_ACTION action) override {
        return NotThere("put_DefaultOutboundAction", profileType, action);
    }
    HRESULT STDMETHODCALLTYPE get_IsRuleGroupCurrentlyEnabled(BSTR group, VARIANT_BOOL *enabled) override {
        return NotThere("get_IsRuleGroupCurrentlyEnabled", group, enabled);
    }
    HRESULT STDMETHODCALLTYPE get_LocalPolicyModifyState(NET_FW_MODIFY_STATE *modifyState) override {
        return NotThere("get_LocalPolicyModifyState", modifyState);
    }

private:
    const std::shared_ptr<Firewall> m_firewall;
};

}  // namespace Simulator
