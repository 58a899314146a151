// A component as the simulated engine returns it.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <windows.h>
#include <netcfgx.h>

#include "ComObject.h"
#include "NetworkEngine.h"

namespace Simulator {

/// After the component was removed, or the engine uninitialised, its methods return
/// NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT and NETCFG_E_NOT_INITIALIZED.
class NetworkComponentObject final : public ComObject<INetCfgComponent> {
public:
    NetworkComponentObject(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine, unsigned key);

    /// For INetCfgComponent, INetCfgComponentBindings and IUnknown.
    HRESULT Provide(REFIID iid, const char *function, void **object) override;

    HRESULT STDMETHODCALLTYPE GetId(LPWSTR *id) override;
    HRESULT STDMETHODCALLTYPE GetClassGuid(GUID *classGuid) override;
    /// 0 unless it is an adapter.
    HRESULT STDMETHODCALLTYPE GetCharacteristics(LPDWORD characteristics) override;

    // As the adapter says; E_NOTIMPL for other components.
    HRESULT STDMETHODCALLTYPE GetDisplayName(LPWSTR *name) override;
    HRESULT STDMETHODCALLTYPE GetPnpDevNodeId(LPWSTR *id) override;
    HRESULT STDMETHODCALLTYPE GetBindName(LPWSTR *name) override;
    HRESULT STDMETHODCALLTYPE GetDeviceStatus(ULONG *status) override;

    // E_NOTIMPL
    HRESULT STDMETHODCALLTYPE SetDisplayName(LPCWSTR name) override;
    HRESULT STDMETHODCALLTYPE GetHelpText(LPWSTR *text) override;
    HRESULT STDMETHODCALLTYPE GetInstanceGuid(GUID *instanceGuid) override;
    HRESULT STDMETHODCALLTYPE OpenParamKey(HKEY *key) override;
    HRESULT STDMETHODCALLTYPE RaisePropertyUi(HWND parent, DWORD flags, IUnknown *context) override;

    /// The component's key; see NetworkComponent::key.
    [[nodiscard]] unsigned Key() const { return m_key; }

private:
    HRESULT GiveBindings(const char *function, void **object);
    /// Returns a text of the adapter. @param read  gets it; if it is empty, the call fails with E_FAIL.
    template <class Read>
    HRESULT GiveText(const char *function, LPWSTR *text, Read read) {
        if (text == nullptr)
            return E_POINTER;
        return With([&](const NetworkComponent &component) -> HRESULT {
            if (!component.adapter)
                return E_NOTIMPL;
            const std::optional<std::wstring> found = read(*component.adapter);
            if (!found)
                return E_FAIL;
            *text = MakeComText(*found, function);
            return *text == nullptr ? E_OUTOFMEMORY : S_OK;
        });
    }
    /// Accesses the component.
    template <class Body>
    HRESULT With(Body body) {
        return m_engine->WhenInitialized([&](NetworkState &state) -> HRESULT {
            const NetworkComponent *component = ComponentWithKey(state, m_key);
            return component == nullptr ? NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT : body(*component);
        });
    }

    const std::shared_ptr<NetworkEngine> m_engine;
    const unsigned m_key;
};

}  // namespace Simulator
