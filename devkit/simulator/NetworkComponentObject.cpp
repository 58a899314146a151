#include "NetworkComponentObject.h"

#include <utility>

#include "NetworkComponentBindings.h"

namespace Simulator {

NetworkComponentObject::NetworkComponentObject(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine,
                                               unsigned key)
    : ComObject(core, {"INetCfgComponent::AddRef", "INetCfgComponent::QueryInterface"}),
      m_engine(std::move(engine)),
      m_key(key) {}

HRESULT NetworkComponentObject::Provide(REFIID iid, const char *function, void **object) {
    if (iid == IID_INetCfgComponent || iid == IID_IUnknown)
        return ProvideThis(function, object);
    return iid == IID_INetCfgComponentBindings ? GiveBindings(function, object) : E_NOINTERFACE;
}

HRESULT NetworkComponentObject::GiveBindings(const char *function, void **object) {
    const auto self = std::static_pointer_cast<NetworkComponentObject>(shared_from_this());
    *object = std::make_shared<NetworkComponentBindings>(TheCore(), m_engine, self)->Give(function);
    return S_OK;
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
    static constexpr char call[] = "INetCfgComponent::GetDisplayName";
    ClearResult(name);
    return Call(
        call, [&] { return GiveText(call, name, [](const NetworkAdapter &adapter) { return adapter.displayName; }); },
        name);
}

HRESULT NetworkComponentObject::SetDisplayName(LPCWSTR name) {
    return Call("INetCfgComponent::SetDisplayName", [] { return E_NOTIMPL; }, name);
}

HRESULT NetworkComponentObject::GetHelpText(LPWSTR *text) {
    ClearResult(text);
    return Call("INetCfgComponent::GetHelpText", [] { return E_NOTIMPL; }, text);
}

HRESULT NetworkComponentObject::GetCharacteristics(LPDWORD characteristics) {
    return Call(
        "INetCfgComponent::GetCharacteristics",
        [&] {
            if (characteristics == nullptr)
                return E_POINTER;
            return With([characteristics](const NetworkComponent &component) {
                *characteristics = component.adapter ? component.adapter->characteristics : 0;
                return S_OK;
            });
        },
        characteristics);
}

HRESULT NetworkComponentObject::GetInstanceGuid(GUID *instanceGuid) {
    return Call("INetCfgComponent::GetInstanceGuid", [] { return E_NOTIMPL; }, instanceGuid);
}

HRESULT NetworkComponentObject::GetPnpDevNodeId(LPWSTR *id) {
    static constexpr char call[] = "INetCfgComponent::GetPnpDevNodeId";
    ClearResult(id);
    return Call(
        call, [&] { return GiveText(call, id, [](const NetworkAdapter &adapter) { return adapter.pnpDevNodeId; }); },
        id);
}

HRESULT NetworkComponentObject::GetBindName(LPWSTR *name) {
    static constexpr char call[] = "INetCfgComponent::GetBindName";
    ClearResult(name);
    return Call(
        call, [&] { return GiveText(call, name, [](const NetworkAdapter &adapter) { return adapter.bindName; }); },
        name);
}

HRESULT NetworkComponentObject::GetDeviceStatus(ULONG *status) {
    return Call(
        "INetCfgComponent::GetDeviceStatus",
        [&] {
            if (status == nullptr)
                return E_POINTER;
            return With([status](const NetworkComponent &component) -> HRESULT {
                if (!component.adapter)
                    return E_NOTIMPL;
                if (SUCCEEDED(component.adapter->deviceStatusResult))
                    *status = component.adapter->deviceStatus;
                return component.adapter->deviceStatusResult;
            });
        },
        status);
}

HRESULT NetworkComponentObject::OpenParamKey(HKEY *key) {
    ClearResult(key);
    return Call("INetCfgComponent::OpenParamKey", [] { return E_NOTIMPL; }, key);
}

HRESULT NetworkComponentObject::RaisePropertyUi(HWND parent, DWORD flags, IUnknown *context) {
    return Call("INetCfgComponent::RaisePropertyUi", [] { return E_NOTIMPL; }, parent, flags, context);
}

}  // namespace Simulator
