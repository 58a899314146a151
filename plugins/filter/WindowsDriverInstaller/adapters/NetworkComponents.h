// Loops over objects of the network configuration.
#pragma once

#include <windows.h>
#include <netcfgx.h>
#include <wrl/client.h>

#include "DeviceClasses.h"

/// Calls `action` with each object of an enumeration. Ends at the first failure.
template <typename Object, typename Enumeration, typename Action>
void ForEachObject(Enumeration *enumeration, Action action) {
    Microsoft::WRL::ComPtr<Object> object;
    for (; enumeration->Next(1, &object, nullptr) == S_OK && object; object.Reset())
        action(object.Get());
}

/// Calls `action` with each component of the network adapter class.
template <typename Action>
void ForEachNetworkComponent(INetCfg *netCfg, Action action) {
    Microsoft::WRL::ComPtr<IEnumNetCfgComponent> components;
    if (SUCCEEDED(netCfg->EnumComponents(&GUID_DEVCLASS_NET, &components)) && components)
        ForEachObject<INetCfgComponent>(components.Get(), action);
}
