// The components of the network configuration.
#pragma once

#include <windows.h>
#include <netcfgx.h>
#include <wrl/client.h>
#include <wx/string.h>

#include "DeviceClasses.h"

/// Calls `action` with each object of an enumeration. Ends at the first failure.
template <typename Object, typename Enumeration, typename Action>
void ForEachNetworkObject(Enumeration *enumeration, Action action) {
    Microsoft::WRL::ComPtr<Object> object;
    for (; enumeration->Next(1, &object, nullptr) == S_OK && object; object.Reset())
        action(object.Get());
}

/// Calls `action` with each component of the network adapter class.
template <typename Action>
void ForEachNetworkComponent(INetCfg *netCfg, Action action) {
    Microsoft::WRL::ComPtr<IEnumNetCfgComponent> components;
    if (SUCCEEDED(netCfg->EnumComponents(&GUID_DEVCLASS_NET, &components)) && components)
        ForEachNetworkObject<INetCfgComponent>(components.Get(), action);
}

/// Reads a text of a component, such as its display name. @return false if it has none.
bool ReadNetworkComponentText(INetCfgComponent *component,
                              HRESULT (STDMETHODCALLTYPE INetCfgComponent::*read)(LPWSTR *), wxString &text);
