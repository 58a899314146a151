// What is installed on the simulated machine: network components, adapters, devices, services, INF files, registry
// keys, and the firewall.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "AnyCase.h"
#include "Firewall.h"
#include "InstalledParts.h"
#include "Lock.h"
#include "Machine.h"
#include "NetworkRules.h"

/// The current contents, in UTF-8. Of devices, services and keys: those created by Put functions and INF files.
struct Inventory {
    std::vector<std::string> components;                  ///< Ids, in order, without the adapters.
    std::vector<std::string> devices;                     ///< Instance ids.
    std::vector<std::pair<std::string, DWORD>> services;  ///< Names and states.
    std::vector<std::string> infFiles;                    ///< All files of the system's INF folder.
    std::vector<std::string> keys;                        ///< Paths.
    std::vector<std::string> leftToBoot;                  ///< Files to be deleted at the next boot.
    std::optional<std::string> lock;                      ///< Who holds the write lock of the network configuration.
};

/// The current state of an adapter, in UTF-8.
struct AdapterState {
    std::string node;
    std::string name;
    std::string ip;
    std::string gateway;
    bool connected = false;
    bool enabled = false;            ///< Whether its device is.
    std::vector<std::string> bound;  ///< Ids of the components bound to it, in component order.
};

/// A name of a component that the machine does not know.
struct UnknownComponent : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
};

/// Empty at first. Call it from one thread; others may use the machine meanwhile.
class Installation {
public:
    Installation();

    /// Simulates the functions that access it, which must not outlive it. @param machine  outlives them.
    void PutUnder(Simulator::FunctionSet &functions, const std::shared_ptr<Simulator::Core> &core,
                  const Simulator::Machine &machine);

    void PutComponent(const Simulator::NetworkComponent &component);
    /// @throws UnknownComponent  if the component with which it is removed neither exists nor can be installed.
    void PutDevice(const Simulator::Device &device);
    /// @param state      SERVICE_RUNNING or a similar one.
    /// @param startType  SERVICE_AUTO_START or a similar one.
    void PutService(const std::wstring &name, DWORD state, DWORD startType = SERVICE_DEMAND_START);
    /// @param path  below HKEY_LOCAL_MACHINE.
    void PutKey(const std::wstring &path);
    /// From now on another program holds the write lock of the network configuration.
    void LockNetwork(const std::wstring &holder);
    /// Whoever holds it gives it back.
    void UnlockNetwork();
    /// The module's process ends, and with it the hold that it has on that lock.
    void EndProcess();
    /// @param function  see Simulator::SetupLibrary::Lack.
    void Lack(const std::string &function);

    /// Adds an adapter with its device, or replaces it, and gives it a bind name.
    void PutAdapter(Simulator::NetworkAdapter adapter);
    /// @throws std::invalid_argument  if there is no such adapter, like the next two.
    void ChangeAdapterAt(const std::wstring &node, const AdapterChange &change);
    void RemoveAdapter(const std::wstring &node);
    /// @throws UnknownComponent  if the component neither exists nor can be installed.
    void Bind(const std::wstring &node, const std::wstring &component, bool bound);
    std::vector<AdapterState> Adapters() const;
    /// Makes a component available for installation; replaces one with the same id.
    /// @param loads  the version of the driver that runs from the installation of the component until its removal;
    ///   empty: the driver is not affected.
    void PutInstallable(const Simulator::InstallableComponent &installable, const std::optional<std::string> &loads);
    /// @return the rule's number.
    /// @throws std::invalid_argument  if there is no such adapter.
    std::size_t When(const NetworkRule &rule);
    /// Whether the rule's moment is still to come.
    bool Awaits(std::size_t rule) const { return m_rules.IsOpen(rule); }

    /// The machine is booted anew: what was left to the boot is done, nobody holds the lock of the network
    /// configuration, services run as their start types tell, and of the drivers those that are installed.
    void Reboot();

    Simulator::Firewall &GetFirewall() { return *m_firewall; }
    const Simulator::SystemFolders &Folders() const { return m_folders; }
    Inventory Take() const;
    /// Each file as often as it was left to the next boot.
    std::size_t CountLeftToBoot() const;

private:
    void CheckAdapter(const std::wstring &node) const;
    void CheckComponent(const std::wstring &id) const;
    void InstallSection(const std::wstring &command);
    void OnNetwork(const Simulator::NetworkMoment &moment);
    void OnDevice(const Simulator::DeviceChange &change);
    void FollowRules(const NetworkHappening &happening);
    std::optional<std::string> LoadedBy(const std::wstring &component) const;
    void NoteInstalled(const std::wstring &component, const std::optional<std::string> &version);

    Simulator::RegistrySandbox m_registry;
    Simulator::SystemFolders m_folders;
    Simulator::FilesInUse m_filesInUse;
    Simulator::ServiceManager m_services;
    Simulator::Security m_security;
    Simulator::SetupLibrary m_setup;
    Simulator::NetworkParts m_network;
    const std::shared_ptr<Simulator::Firewall> m_firewall = std::make_shared<Simulator::Firewall>();
    NetworkRules m_rules;
    std::set<std::wstring> m_deviceIds;
    std::set<std::wstring> m_keyPaths;
    unsigned m_adapters = 0;  ///< All that ever existed.
    /// Guards what other threads change, too.
    mutable Simulator::Lock m_lock;
    std::set<std::wstring> m_serviceNames;
    using VersionsByComponent = std::map<std::wstring, std::string, Simulator::LessInAnyCase>;
    VersionsByComponent m_loads;      ///< The drivers that can be installed.
    VersionsByComponent m_installed;  ///< Those that were installed, and not removed.
};
