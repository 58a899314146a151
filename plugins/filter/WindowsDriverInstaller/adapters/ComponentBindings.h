// What a network component is bound to.
#pragma once

#include <windows.h>
#include <netcfgx.h>
#include <wrl/client.h>

/// The bindings of a component, which may be missing.
class ComponentBindings {
public:
    ComponentBindings(INetCfg *netCfg, const wchar_t *componentId) {
        if (netCfg->FindComponent(componentId, &m_component) != S_OK || !m_component)
            return;
        (void)m_component->QueryInterface(IID_INetCfgComponentBindings, &m_bindings);
    }

    [[nodiscard]] bool IsBoundTo(INetCfgComponent *adapter) const {
        return m_bindings && m_bindings->IsBoundTo(adapter) == S_OK;
    }

private:
    Microsoft::WRL::ComPtr<INetCfgComponent> m_component;
    Microsoft::WRL::ComPtr<INetCfgComponentBindings> m_bindings;
};
