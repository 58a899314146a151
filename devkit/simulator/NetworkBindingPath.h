// A binding as the simulated engine returns it: a path, of one interface unless other components lie above.
#pragma once

#include <memory>

#include <windows.h>
#include <netcfgx.h>

#include "ComObject.h"
#include "NetworkEngine.h"

namespace Simulator {

/// When one of its ends was removed, its methods return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT.
class NetworkBindingPath final : public ComObject<INetCfgBindingPath> {
public:
    NetworkBindingPath(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine,
                       const BindingEnds &ends);

    /// For INetCfgBindingPath and IUnknown.
    HRESULT Provide(REFIID iid, const char *function, void **object) override;

    /// S_OK or S_FALSE.
    HRESULT STDMETHODCALLTYPE IsEnabled() override;
    /// Needs the write lock. Affects only this engine until Apply.
    HRESULT STDMETHODCALLTYPE Enable(BOOL enable) override;
    HRESULT STDMETHODCALLTYPE EnumBindingInterfaces(IEnumNetCfgBindingInterface **interfaces) override;

    // E_NOTIMPL
    HRESULT STDMETHODCALLTYPE IsSamePathAs(INetCfgBindingPath *path) override;
    HRESULT STDMETHODCALLTYPE IsSubPathOf(INetCfgBindingPath *path) override;
    HRESULT STDMETHODCALLTYPE GetPathToken(LPWSTR *token) override;
    HRESULT STDMETHODCALLTYPE GetOwner(INetCfgComponent **component) override;
    HRESULT STDMETHODCALLTYPE GetDepth(ULONG *interfaces) override;

private:
    HRESULT Enumerate(const char *function, IEnumNetCfgBindingInterface **interfaces);

    const std::shared_ptr<NetworkEngine> m_engine;
    const BindingEnds m_ends;
};

class NetworkBindingInterface final : public ComObject<INetCfgBindingInterface> {
public:
    /// @param path  while that binding is there, and
    /// @param ends  what its methods give.
    NetworkBindingInterface(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine,
                            const BindingEnds &path, const BindingEnds &ends);

    /// For INetCfgBindingInterface and IUnknown.
    HRESULT Provide(REFIID iid, const char *function, void **object) override;

    HRESULT STDMETHODCALLTYPE GetUpperComponent(INetCfgComponent **component) override;
    /// The adapter, or the component below.
    HRESULT STDMETHODCALLTYPE GetLowerComponent(INetCfgComponent **component) override;
    /// E_NOTIMPL
    HRESULT STDMETHODCALLTYPE GetName(LPWSTR *name) override;

private:
    HRESULT GiveEnd(unsigned key, const char *function, INetCfgComponent **component);

    const std::shared_ptr<NetworkEngine> m_engine;
    const BindingEnds m_path;
    const BindingEnds m_ends;
};

}  // namespace Simulator
