// The network components of the simulated machine, their bindings, and the write lock on their configuration.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>
#include <devguid.h>
#include <iphlpapi.h>

#include "CallScope.h"
#include "Lock.h"
#include "NetworkAdapter.h"
#include "NetworkBindingList.h"

namespace Simulator {

class DeviceManager;
class FunctionSet;
struct ComLibrary;
struct Core;

/// A component as a test defines it. Several may have the same id; the first is found first.
struct NetworkComponent {
    std::wstring id;
    GUID classGuid = GUID_DEVCLASS_NETSERVICE;
    HRESULT deInstallResult = S_OK;           ///< The result of each DeInstall.
    unsigned deInstallsUntilGone = 1;         ///< The number of the successful DeInstall that removes it; 0 for none.
    std::optional<NetworkAdapter> adapter{};  ///< The adapter, if it is one; see PutAdapter.
    unsigned key = 0;                         ///< Set by Put; unique.
    bool goesAtBoot = false;                  ///< A DeInstall requested a reboot, which removes it.
};

/// A component that INetCfgClassSetup::Install can install: it is added with Put, and bound to every adapter.
struct InstallableComponent {
    NetworkComponent component;
    std::vector<HRESULT> results{};  ///< The results of the next attempts; then S_OK.
    bool leavesNothing = false;      ///< A success has no effect.
};

/// A change of the network by calls of the program.
struct NetworkMoment {
    enum class What {
        Installed,        ///< By a successful Install; the component exists now.
        Removed,          ///< By the DeInstall that removed it.
        BindingDisabled,  ///< By an Apply, like the next.
        BindingEnabled,
    };
    What what;
    std::wstring component;    ///< Its id, as the machine has it.
    std::wstring adapter{};    ///< Its pnpDevNodeId; empty unless a binding changed.
    bool needsReboot = false;  ///< The call requested one.
};

/// The holder of the write lock.
struct NetworkLockHolder {
    std::wstring description;
    bool inThisProcess =
        false;  ///< By an engine's AcquireWriteLock. Calls of this process can't release others' locks.
};

/// A row of the ARP cache.
struct ArpEntry {
    DWORD index;          ///< The adapter's.
    std::string address;  ///< Such as "10.0.0.1".
    std::vector<BYTE> mac{};
    DWORD type = MIB_IPNET_TYPE_DYNAMIC;
};

/// All that a test sets and a run changes.
struct NetworkState {
    std::vector<NetworkComponent>
        components;  ///< Added by NetworkConfiguration::Put and PutAdapter, with ascending keys.
    unsigned lastKey = 0;
    std::vector<InstallableComponent> installable;
    NetworkBindingList bindings;            ///< Set by NetworkConfiguration::Bind.
    std::vector<ArpEntry> arp;              ///< The rows of the ARP cache.
    HRESULT initializeResult = S_OK;        ///< The result of INetCfg::Initialize if nothing else fails.
    HRESULT applyResult = S_OK;             ///< The same for INetCfg::Apply.
    std::optional<NetworkLockHolder> lock;  ///< Stays held when an engine or its thread ends without releasing it.
    DWORD lockWaitMs = 0;                   ///< How long AcquireWriteLock waits in vain, by the simulated clock;
                                            ///< at most the timeout it is given.
};

// The caller keeps the state: results are valid within NetworkConfiguration::Use. Names are case-insensitive, and null
// means none.

/// The first component of that id.
[[nodiscard]] NetworkComponent *ComponentWithId(NetworkState &state, const std::wstring &id);
[[nodiscard]] NetworkComponent *ComponentWithKey(NetworkState &state, unsigned key);
/// The adapter of that pnpDevNodeId.
[[nodiscard]] NetworkComponent *ComponentWithNode(NetworkState &state, const std::wstring &pnpDevNodeId);
/// @return its key.
unsigned PutComponent(NetworkState &state, NetworkComponent component);

/// Any thread.
class NetworkConfiguration {
public:
    /// @param devices  those that are removed with their component.
    explicit NetworkConfiguration(std::shared_ptr<DeviceManager> devices) : m_devices(std::move(devices)) {}

    /// Appends the component.
    void Put(NetworkComponent component);
    /// Appends a component of class GUID_DEVCLASS_NET that is this adapter, without bindings.
    void PutAdapter(NetworkAdapter adapter);
    /// The adapter vanishes; its bindings return with it.
    void RemoveAdapter(const std::wstring &pnpDevNodeId);
    /// Creates a binding, or changes it.
    void Bind(const std::wstring &pnpDevNodeId, const std::wstring &componentId, bool enabled = true);
    /// Whether it is enabled; empty if there is none. Without changes that an engine has not applied.
    [[nodiscard]] std::optional<bool> Binding(const std::wstring &pnpDevNodeId, const std::wstring &componentId) const;
    /// Changes an existing adapter: network.ChangeAdapter(node, [](NetworkAdapter &it) { it.ip = "0.0.0.0"; }).
    /// @param body  must not block, nor call this object.
    /// @return whether it exists.
    template <class Body>
    bool ChangeAdapter(const std::wstring &pnpDevNodeId, Body body) {
        return Use([&](NetworkState &state) {
            NetworkComponent *component = ComponentWithNode(state, pnpDevNodeId);
            if (component != nullptr)
                body(*component->adapter);
            return component != nullptr;
        });
    }
    /// Called at each moment of the network, for a network that breaks and recovers by the program's calls. Runs inside
    /// the simulator, in the thread of the call, with no lock held: it may call this object, but must not wait for
    /// others.
    void OnMoment(std::function<void(const NetworkMoment &)> observer);
    /// Whether there is a component of that id, case-insensitive.
    [[nodiscard]] bool Has(const std::wstring &id) const;
    /// Another process holds the lock from now on.
    void LockFromElsewhere(const std::wstring &description);
    /// Whoever holds the lock gives it back.
    void Unlock();
    /// What the end of this process does: a lock that it holds is free.
    void EndProcess();
    /// What a boot does: nobody holds the lock, the ARP cache is empty, and components whose removal waited for it are
    /// gone.
    void Boot();
    [[nodiscard]] NetworkState Read() const;

    /// Reads or changes the state: network.Use([](NetworkState &state) { state.applyResult = E_FAIL; }).
    /// @param body  must not block, nor call this object.
    template <class Body>
    auto Use(Body body) {
        const InsideSimulator inside;
        const LockGuard guard(m_lock);
        return body(m_state);
    }

    /// Removes the component for good, and, if it was the last of its id, its bindings and the devices that belong to
    /// it.
    void Remove(unsigned key);
    /// Calls the observer.
    void Tell(const NetworkMoment &moment) const;

private:
    const std::shared_ptr<DeviceManager> m_devices;
    mutable Lock m_lock;
    NetworkState m_state;
    std::function<void(const NetworkMoment &)> m_observer;
};

/// The names of all methods in journal and faults.
[[nodiscard]] std::span<const char *const> NetworkMethods();

/// Simulates the class CLSID_CNetCfg for CoCreateInstance, with the interfaces INetCfg, INetCfgLock, INetCfgClass,
/// INetCfgClassSetup, INetCfgComponent and those of bindings; the simulated methods are described where they are
/// declared. The others return E_NOTIMPL. Every call except AddRef and Release is in journal and faults under the names
/// of its interface and its method, such as "INetCfg::QueryInterface".
/// @param library  outlives the set.
void InstallNetwork(FunctionSet &functions, const std::shared_ptr<Core> &core, const ComLibrary &library,
                    const std::shared_ptr<NetworkConfiguration> &network);

}  // namespace Simulator
