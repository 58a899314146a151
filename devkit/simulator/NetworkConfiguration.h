// The network components of the simulated machine, and the write lock on their configuration.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>
#include <devguid.h>

#include "CallScope.h"
#include "Lock.h"

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
    unsigned key = 0;                  ///< Set by Put; never that of another.
};

/// Who holds the write lock.
struct NetworkLockHolder {
    std::wstring description;
    bool inThisProcess = false;  ///< By an engine's AcquireWriteLock. Others' locks no call of this process frees.
};

/// All that a test fills in and a run changes.
struct NetworkState {
    std::vector<NetworkComponent> components;  ///< Added by NetworkConfiguration::Put.
    HRESULT initializeResult = S_OK;           ///< What INetCfg::Initialize answers where nothing else is wrong.
    HRESULT applyResult = S_OK;                ///< The same of INetCfg::Apply.
    std::optional<NetworkLockHolder> lock;     ///< Stays when an engine or its thread goes without giving it back.
    DWORD lockWaitMs = 0;                      ///< How long AcquireWriteLock waits in vain, by the simulated clock;
                                               ///< at most the timeout it is given.
};

/// Any thread.
class NetworkConfiguration {
public:
    /// @param devices  those that go with their component.
    explicit NetworkConfiguration(std::shared_ptr<DeviceManager> devices) : m_devices(std::move(devices)) {}

    /// Adds the component behind the others.
    void Put(NetworkComponent component);
    /// Whether there is a component of that id, in any case.
    [[nodiscard]] bool Has(const std::wstring &id) const;
    /// The lock is held by another process from now on.
    void LockFromElsewhere(const std::wstring &description);
    [[nodiscard]] NetworkState Read() const;

    /// Reads or changes the state: network.Use([](NetworkState &state) { state.applyResult = E_FAIL; }).
    /// @param body  must not block, nor come back here.
    template <class Body>
    auto Use(Body body) {
        const InsideSimulator inside;
        const LockGuard guard(m_lock);
        return body(m_state);
    }

    /// Removes the component for good, and, if it was the last of its id, the devices that are tied to it.
    void Remove(unsigned key);

private:
    const std::shared_ptr<DeviceManager> m_devices;
    mutable Lock m_lock;
    NetworkState m_state;
    unsigned m_lastKey = 0;
};

/// The first component of that id, in any case; null if there is none. Valid within NetworkConfiguration::Use.
[[nodiscard]] NetworkComponent *ComponentWithId(NetworkState &state, const std::wstring &id);
[[nodiscard]] NetworkComponent *ComponentWithKey(NetworkState &state, unsigned key);

/// The names of all methods that are in journal and faults.
[[nodiscard]] std::span<const char *const> NetworkMethods();

/// Puts the class CLSID_CNetCfg under CoCreateInstance. Of its interfaces there are INetCfg, INetCfgLock, INetCfgClass,
/// INetCfgClassSetup and INetCfgComponent; of the methods, those that are told where they are declared. The others
/// answer E_NOTIMPL. Every call but AddRef and Release is in journal and faults under the names of its interface and
/// its method, such as "INetCfg::QueryInterface".
/// @param library  outlives the set.
void InstallNetwork(FunctionSet &functions, const std::shared_ptr<Core> &core, const ComLibrary &library,
                    const std::shared_ptr<NetworkConfiguration> &network);

}  // namespace Simulator
