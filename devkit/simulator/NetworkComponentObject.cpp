#include "NetworkComponentObject.h"

#include <utility>

namespace Simulator {

NetworkComponentObject::NetworkComponentObject(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine,
                                               unsigned key)
    : ComObject(core, {"INetCfgComponent::AddRef", "INetCfgComponent::QueryInterface"}),
      m_engine(std::move(engine)),
      m_key(key) {}

HRESULT NetworkComponentObject::Provide(REFIID iid, const char *function, void **object) {
    if (iid == IID_INetCfgComponent || iid == IID_IUnknown)
        return ProvideThis(function, object);
    return E_NOINTERFACE;
}

HRESULT NetworkComponentObject::GetId(LPWSTR *id) {
    static constexpr char name[] = "INetCfgComponent::GetId";
    ClearResult(id);
    return Call(
        name,
        [&] {
            if (id == nullptr)
                return E_POINTER;
            return With([&](const NetworkComponent &component) {
                *id = MakeComText(component.id, name);
                return *id == nullptr ? E_OUTOFMEMORY : S_OK;
            });
        },
        id);
}

HRESULT NetworkComponentObject::GetClassGuid(GUID *classGuid) {
    return Call(
        "INetCfgComponent::GetClassGuid",
        [&] {
            if (classGuid == nullptr)
                return E_POINTER;
            return With([classGuid](const NetworkComponent &component) {
                *classGuid = component.classGuid;
                return S_OK;
            });
        },
        classGuid);
}

HRESULT NetworkComponentObject::GetDisplayName(LPWSTR *name) {
    ClearResult(name);
    return Call(
        "INetCfgComponent::GetDisplayName", [] { return E_NOTIMPL; }, name);
}

HRESULT NetworkComponentObject::SetDisplayName(LPCWSTR name) {
    return Call(
        "INetCfgComponent::SetDisplayName", [] { return E_NOTIMPL; }, name);
}

HRESULT NetworkComponentObject::GetHelpText(LPWSTR *text) {
    ClearResult(text);
    return Call(
        "INetCfgComponent::GetHelpText", [] { return E_NOTIMPL; }, text);
}

HRESULT NetworkComponentObject::GetCharacteristics(LPDWORD characteristics) {
    return Call(
        "INetCfgComponent::GetCharacteristics", [] { return E_NOTIMPL; }, characteristics);
}

HRESULT NetworkComponentObject::GetInstanceGuid(GUID *instanceGuid) {
    return Call(
        "INetCfgComponent::GetInstanceGuid", [] { return E_NOTIMPL; }, instanceGuid);
}

HRESULT NetworkComponentObject::GetPnpDevNodeId(LPWSTR *id) {
    ClearResult(id);
    return Call(
        "INetCfgComponent::GetPnpDevNodeId", [] { return E_NOTIMPL; }, id);
}

HRESULT NetworkComponentObject::GetBindName(LPWSTR *name) {
    ClearResult(name);
    return Call(
        "INetCfgComponent::GetBindName", [] { return E_NOTIMPL; }, name);
}

HRESULT NetworkComponentObject::GetDeviceStatus(ULONG *status) {
    return Call(
        "INetCfgComponent::GetDeviceStatus", [] { return E_NOTIMPL; }, status);
}

HRESULT NetworkComponentObject::OpenParamKey(HKEY *key) {
    ClearResult(key);
    return Call(
        "INetCfgComponent::OpenParamKey", [] { return E_NOTIMPL; }, key);
}

HRESULT NetworkComponentObject::RaisePropertyUi(HWND parent, DWORD flags, IUnknown *context) {
    return Call(
        "INetCfgComponent::RaisePropertyUi", [] { return E_NOTIMPL; }, parent, flags, context);
}

}  // namespace Simulator
