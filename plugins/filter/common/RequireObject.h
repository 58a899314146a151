// Results of calls that hand out COM objects.
#pragma once

#include <windows.h>
#include <wrl/client.h>

/// @param hr  of the call that was to hand out the object.
/// @return E_NOINTERFACE for a success without the object that it promises, else the result as it is.
template <typename Interface>
HRESULT RequireObject(HRESULT hr, const Microsoft::WRL::ComPtr<Interface> &object) {
    return SUCCEEDED(hr) && !object ? E_NOINTERFACE : hr;
}
