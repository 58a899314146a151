// The simulated engine of the network configuration: the object behind INetCfg, and its lock.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>
#include <netcfgx.h>

#include "ComObject.h"
#include "NetworkConfiguration.h"

namespace Simulator {

/// A binding by the keys of its ends.
struct BindingEnds {
    unsigned adapter;
    unsigned component;
    std::wstring path{};  ///< As NetworkBinding names it, if components lie above this one.
};

class NetworkEngine final : public ComObject<INetCfg> {
public:
    NetworkEngine(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkConfiguration> network);

    /// For INetCfg, INetCfgLock and IUnknown.
    HRESULT Provide(REFIID iid, const char *function, void **object) override;

    /// NETCFG_E_ALREADY_INITIALIZED the second time.
    HRESULT STDMETHODCALLTYPE Initialize(PVOID reserved) override;
    /// This and the following: NETCFG_E_NOT_INITIALIZED before.
    HRESULT STDMETHODCALLTYPE Uninitialize() override;
    /// Applies the changes of bindings to the machine. This and Cancel: NETCFG_E_NO_WRITE_LOCK without the lock.
    HRESULT STDMETHODCALLTYPE Apply() override;
    /// Discards them, like Uninitialize.
    HRESULT STDMETHODCALLTYPE Cancel() override;
    /// The current components of the class, or all. @param classGuid  may be null.
    HRESULT STDMETHODCALLTYPE EnumComponents(const GUID *classGuid, IEnumNetCfgComponent **components) override;
    /// S_FALSE if there is none.
    HRESULT STDMETHODCALLTYPE FindComponent(LPCWSTR id, INetCfgComponent **component) override;
    /// For INetCfgClass and INetCfgClassSetup of any class.
    HRESULT STDMETHODCALLTYPE QueryNetCfgClass(const GUID *classGuid, REFIID iid, void **object) override;

    // For the objects that it returns. They keep it alive.

    /// Accesses the state of an initialised engine.
    template <class Body>
    HRESULT WhenInitialized(Body body) {
        return m_network->Use(
            [&](NetworkState &state) -> HRESULT { return m_initialized ? body(state) : NETCFG_E_NOT_INITIALIZED; });
    }
    /// The same, with the write lock.
    template <class Body>
    HRESULT WhenLocked(Body body) {
        return WhenInitialized(
            [&](NetworkState &state) -> HRESULT { return HasLock(state) ? body(state) : NETCFG_E_NO_WRITE_LOCK; });
    }
    /// The component with that id, of the class if one is named; S_FALSE if there is none.
    HRESULT Find(LPCWSTR id, const GUID *classGuid, const char *function, INetCfgComponent **component);
    /// The current ones of the class, for an enumeration. @param classGuid  null for all.
    HRESULT Enumerate(const GUID *classGuid, const char *function, IEnumNetCfgComponent **components);
    [[nodiscard]] NetworkConfiguration &Network() { return *m_network; }

    /// A reference to the component with that key, for the program.
    INetCfgComponent *GiveComponent(unsigned key, const char *function);

    // Bindings as this engine has changed them.

    /// S_OK if it is enabled, S_FALSE if it is not, NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT if there is none.
    HRESULT IsEnabled(const BindingEnds &ends);
    /// Affects only this engine until Apply. Needs the write lock.
    HRESULT Enable(const BindingEnds &ends, bool enable);
    /// The bindings that the component is one end of, above it or below it.
    HRESULT BindingsOf(unsigned key, bool above, std::vector<BindingEnds> &bindings);
    /// The interfaces of the binding's path, the uppermost first: each by the components at its ends, of which the
    /// lower one is called its adapter. Components that are not there have none.
    HRESULT InterfacesOf(const BindingEnds &ends, std::vector<BindingEnds> &interfaces);

    /// How long to wait for the lock in vain.
    [[nodiscard]] DWORD LockWait(DWORD timeoutMs);
    /// @param holder  receives the description of the holder, if that is not this call.
    HRESULT TakeLock(LPCWSTR description, std::wstring &holder);
    HRESULT ReleaseLock();

private:
    [[nodiscard]] std::shared_ptr<NetworkEngine> Self();
    [[nodiscard]] bool HasLock(const NetworkState &state) const;

    [[nodiscard]] std::vector<NetworkBinding> Commit(NetworkState &state);

    const std::shared_ptr<NetworkConfiguration> m_network;
    // All within m_network->Use.
    bool m_initialized = false;
    bool m_mayWrite = false;
    NetworkBindingList m_changed;  ///< And not applied.
};

/// The interface of the engine's write lock.
class NetworkLock final : public ComObject<INetCfgLock> {
public:
    NetworkLock(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine);

    /// The engine's interface to its lock.
    HRESULT Provide(REFIID iid, const char *function, void **object) override;

    /// S_FALSE, with the holder's description, while the lock is held, even by the same engine. If the holder is
    /// another engine of the process, even one of a killed thread, this engine shares the lock and can release it.
    /// @param lockedBy  may be null; receives null if the lock was free.
    HRESULT STDMETHODCALLTYPE AcquireWriteLock(DWORD timeoutMs, LPCWSTR description, LPWSTR *lockedBy) override;
    /// NETCFG_E_NO_WRITE_LOCK without the lock.
    HRESULT STDMETHODCALLTYPE ReleaseWriteLock() override;
    /// S_OK, with the holder's description, or S_FALSE.
    HRESULT STDMETHODCALLTYPE IsWriteLocked(LPWSTR *lockedBy) override;

private:
    const std::shared_ptr<NetworkEngine> m_engine;
};

}  // namespace Simulator
