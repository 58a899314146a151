// A class of network components as the simulated engine returns it, and its set-up.
#pragma once

#include <memory>

#include <windows.h>
#include <netcfgx.h>

#include "ComObject.h"
#include "NetworkEngine.h"

namespace Simulator {

class NetworkClass final : public ComObject<INetCfgClass> {
public:
    NetworkClass(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine, const GUID &classGuid);

    /// For INetCfgClass, INetCfgClassSetup and IUnknown.
    HRESULT Provide(REFIID iid, const char *function, void **object) override;

    /// S_FALSE if the class has none with that id.
    HRESULT STDMETHODCALLTYPE FindComponent(LPCWSTR id, INetCfgComponent **component) override;
    /// The current ones of the class.
    HRESULT STDMETHODCALLTYPE EnumComponents(IEnumNetCfgComponent **components) override;

    [[nodiscard]] const GUID &ClassGuid() const { return m_classGuid; }

private:
    const std::shared_ptr<NetworkEngine> m_engine;
    const GUID m_classGuid;
};

class NetworkClassSetup final : public ComObject<INetCfgClassSetup> {
public:
    NetworkClassSetup(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine,
                      std::shared_ptr<NetworkClass> ofClass);

    /// The class's interface to its set-up.
    HRESULT Provide(REFIID iid, const char *function, void **object) override;

    /// E_NOTIMPL
    HRESULT STDMETHODCALLTYPE SelectAndInstall(HWND parent, OBO_TOKEN *token, INetCfgComponent **component) override;
    /// Does what the installable component says, at once; HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) if it can't be
    /// installed in this class. One that exists already is not installed a second time. Needs the write lock. The other
    /// arguments have no effect.
    /// @param token      may be null; E_INVALIDARG if its type is invalid.
    /// @param component  may be null; receives null if a success installs nothing.
    HRESULT STDMETHODCALLTYPE Install(LPCWSTR id, OBO_TOKEN *token, DWORD setupFlags, DWORD upgradeFromBuild,
                                      LPCWSTR answerFile, LPCWSTR answerSections,
                                      INetCfgComponent **component) override;
    /// Does what the component says. Needs the write lock.
    /// @param component   one of this engine's.
    /// @param token       may be null; E_INVALIDARG if its type is invalid.
    /// @param references  receives null.
    HRESULT STDMETHODCALLTYPE DeInstall(INetCfgComponent *component, OBO_TOKEN *token, LPWSTR *references) override;

private:
    HRESULT Put(LPCWSTR id, const OBO_TOKEN *token, const char *function, INetCfgComponent **component);
    HRESULT Remove(INetCfgComponent *component, const OBO_TOKEN *token);

    const std::shared_ptr<NetworkEngine> m_engine;
    const std::shared_ptr<NetworkClass> m_class;
};

}  // namespace Simulator
