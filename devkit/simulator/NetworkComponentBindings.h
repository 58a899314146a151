// The bindings of a component as the simulated engine returns them.
#pragma once

#include <memory>

#include <windows.h>
#include <netcfgx.h>

#include "ComObject.h"
#include "NetworkComponentObject.h"
#include "NetworkEngine.h"

namespace Simulator {

class NetworkComponentBindings final : public ComObject<INetCfgComponentBindings> {
public:
    NetworkComponentBindings(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine,
                             std::shared_ptr<NetworkComponentObject> component);

    /// The component's interface to its bindings.
    HRESULT Provide(REFIID iid, const char *function, void **object) override;

    /// S_OK if the binding of this component to that adapter is enabled, S_FALSE if it is not, or there is none.
    HRESULT STDMETHODCALLTYPE IsBoundTo(INetCfgComponent *adapter) override;
    /// The current bindings, enabled or not: one path each, of one interface. @param flags  EBP_ABOVE or EBP_BELOW.
    HRESULT STDMETHODCALLTYPE EnumBindingPaths(DWORD flags, IEnumNetCfgBindingPath **paths) override;

    // E_NOTIMPL
    HRESULT STDMETHODCALLTYPE BindTo(INetCfgComponent *component) override;
    HRESULT STDMETHODCALLTYPE UnbindFrom(INetCfgComponent *component) override;
    HRESULT STDMETHODCALLTYPE SupportsBindingInterface(DWORD flags, LPCWSTR name) override;
    HRESULT STDMETHODCALLTYPE IsBindableTo(INetCfgComponent *component) override;
    HRESULT STDMETHODCALLTYPE MoveBefore(INetCfgBindingPath *path, INetCfgBindingPath *other) override;
    HRESULT STDMETHODCALLTYPE MoveAfter(INetCfgBindingPath *path, INetCfgBindingPath *other) override;

private:
    HRESULT Compare(INetCfgComponent *adapter);
    HRESULT Enumerate(DWORD flags, const char *function, IEnumNetCfgBindingPath **paths);

    const std::shared_ptr<NetworkEngine> m_engine;
    const std::shared_ptr<NetworkComponentObject> m_component;
};

}  // namespace Simulator
