#include "NetworkComponents.h"

#include "TaskText.h"

bool ReadNetworkComponentText(INetCfgComponent *component,
                              HRESULT (STDMETHODCALLTYPE INetCfgComponent::*read)(LPWSTR *), wxString &text) {
    wchar_t *given = nullptr;
    const HRESULT hr = (component->*read)(&given);
    const TaskText owner(given);
    if (FAILED(hr) || !owner)
        return false;
    text = owner.get();
    return true;
}
