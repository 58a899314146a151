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

/// A component as a test makes it. Several may have the same id; the first is found first.
struct NetworkComponent {
    std::wstring id;
    GUID classGuid = GUID_DEVCLASS_NETSERVICE;
    HRESULT deInstallResult = S_OK;    ///< What each DeInstall answers.
    unsigned deInstallsUntilGone = 1;  ///< The DeInstall that takes it away, among those that succeed; 0 for none.
    std::optional<NetworkAdapter> adapter{};  ///< What it is, if it is one; see PutAdapter.
    unsigned key = 0;                         ///< Set by Put; never that of another.
    bool goesAtBoot = false;                  ///< A DeInstall asked for a reboot, and left it there.
};

/// What INetCfgClassSetup::Install knows to install: the component as Put gets it, bound to every adapter there is.
struct InstallableComponent {
    NetworkComponent component;
    std::vector<HRESULT> results{};  ///< What the next attempts answer, each one once; then S_OK.
    bool leavesNothing = false;      ///< A success installs nothing.
};

/// Something that has happened to the network by calls of the program.
struct NetworkMoment {
    enum class What {
        Installed,        ///< By an Install that succeeded, with a component that is there now.
        Removed,          ///< By the DeInstall that took it away.
        BindingDisabled,  ///< By an Apply, as is the next.
        BindingEnabled,
    };
    What what;
    std::wstring component;    ///< Its id, as the machine has it.
    std::wstring adapter{};    ///< Its pnpDevNodeId; empty if no binding is meant.
    bool needsReboot = false;  ///< The call asked for one.
};

/// Who holds the write lock.
struct NetworkLockHolder {
    std::wstring description;
    bool inThisProcess = false;  ///< By an engine's AcquireWriteLock. Others' locks no call of this process frees.
};

/// A row of the ARP cache.
struct ArpEntry {
    DWORD index;          ///< The adapter's.
    std::string address;  ///< Such as "10.0.0.1".
    std::vector<BYTE> mac{};
    DWORD type = MIB_IPNET_TYPE_DYNAMIC;
};

/// All that a test fills in and a run changes.
struct NetworkState {
    std::vector<NetworkComponent> components;  ///< Added by NetworkConfiguration::Put and PutAdapter: keys ascend.
    unsigned lastKey = 0;
    std::vector<InstallableComponent> installable;
    NetworkBindingList bindings;            ///< Set by NetworkConfiguration::Bind.
    std::vector<ArpEntry> arp;              ///< What the ARP cache has.
    HRESULT initializeResult = S_OK;        ///< What INetCfg::Initialize answers where nothing else is wrong.
    HRESULT applyResult = S_OK;             ///< The same of INetCfg::Apply.
    std::optional<NetworkLockHolder> lock;  ///< Stays when an engine or its thread goes without giving it back.
    DWORD lockWaitMs = 0;                   ///< How long AcquireWriteLock waits in vain, by the simulated clock;
                                            ///< at most the timeout it is given.
};

// For the following the state stays the caller's: valid within NetworkConfiguration::Use. All names are in any case,
// and null stands for none.

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
    /// @param devices  those that go with their component.
    explicit NetworkConfiguration(std::shared_ptr<DeviceManager> devices) : m_devices(std::move(devices)) {}

    /// Adds the component behind the others.
    void Put(NetworkComponent component);
    /// Adds a component of class GUID_DEVCLASS_NET that is this adapter, with no binding.
    void PutAdapter(NetworkAdapter adapter);
    /// The adapter vanishes; its bindings come back with it.
    void RemoveAdapter(const std::wstring &pnpDevNodeId);
    /// Makes a binding, or changes it.
    void Bind(const std::wstring &pnpDevNodeId, const std::wstring &componentId, bool enabled = true);
    /// Whether it is enabled; nothing if there is none. What an engine has not applied does not count.
    [[nodiscard]] std::optional<bool> Binding(const std::wstring &pnpDevNodeId, const std::wstring &componentId) const;
    /// Changes an adapter that is there: network.ChangeAdapter(node, [](NetworkAdapter &it) { it.ip = "0.0.0.0"; }).
    /// @param body  must not block, nor come back here.
    /// @return whether there is one.
    template <class Body>
    bool ChangeAdapter(const std::wstring &pnpDevNodeId, Body body) {
        return Use([&](NetworkState &state) {
            NetworkComponent *component = ComponentWithNode(state, pnpDevNodeId);
            if (component != nullptr)
                body(*component->adapter);
            return component != nullptr;
        });
    }
    /// What a network that breaks and heals by the program's calls does in such a moment. Called inside the simulator,
    /// in the thread of the call, while nothing is held: it may come back here, and wait for nobody.
    void OnMoment(std::function<void(const NetworkMoment &)> observer);
    /// Whether there is a component of that id, in any case.
    [[nodiscard]] bool Has(const std::wstring &id) const;
    /// The lock is held by another process from now on.
    void LockFromElsewhere(const std::wstring &description);
    /// Whoever holds the lock gives it back.
    void Unlock();
    /// What a boot does: nobody holds the lock, the ARP cache is empty, and components whose removal waited for it are
    /// gone.
    void Boot();
    [[nodiscard]] NetworkState Read() const;

    /// Reads or changes the state: network.Use([](NetworkState &state) { state.applyResult = E_FAIL; }).
    /// @param body  must not block, nor come back here.
    template <class Body>
    auto Use(Body body) {
        const InsideSimulator inside;
        const LockGuard guard(m_lock);
        return body(m_state);
    }

    /// Removes the component for good, and, if it was the last of its id, its bindings and the devices that are tied
    /// to it.
    void Remove(unsigned key);
    /// Calls who is to be told.
    void Tell(const NetworkMoment &moment) const;

private:
    const std::shared_ptr<DeviceManager> m_devices;
    mutable Lock m_lock;
    NetworkState m_state;
    std::function<void(const NetworkMoment &)> m_observer;
};

/// The names of all methods that are in journal and faults.
[[nodiscard]] std::span<const char *const> NetworkMethods();

/// Puts the class CLSID_CNetCfg under CoCreateInstance. Of its interfaces there are INetCfg, INetCfgLock, INetCfgClass,
/// INetCfgClassSetup, INetCfgComponent and those of bindings; of the methods, those that are told where they are
/// declared. The others answer E_NOTIMPL. Every call but AddRef and Release is in journal and faults under the names of
/// its interface and its method, such as "INetCfg::QueryInterface".
/// @param library  outlives the set.
void InstallNetwork(FunctionSet &functions, const std::shared_ptr<Core> &core, const ComLibrary &library,
                    const std::shared_ptr<NetworkConfiguration> &network);

}  // namespace Simulator
