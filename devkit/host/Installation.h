// What is installed on the simulated machine: network components, devices, services, INF files, registry keys.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "InstalledParts.h"

/// What is there at a time, in UTF-8. Of devices, services and keys: those that Put has made.
struct Inventory {
    std::vector<std::string> components;                  ///< Ids, in their order.
    std::vector<std::string> devices;                     ///< Instance ids.
    std::vector<std::pair<std::string, DWORD>> services;  ///< Names and states.
    std::vector<std::string> infFiles;                    ///< All files of the system's INF folder.
    std::vector<std::string> keys;                        ///< Paths.
    std::vector<std::string> leftToBoot;                  ///< Files that the next boot is to delete.
    std::optional<std::string> lock;                      ///< Who holds the write lock of the network configuration.
};

/// Nothing at first. Functions of one thread.
class Installation {
public:
    Installation();

    /// Simulates the functions that reach it, which must not outlive it.
    void PutUnder(Simulator::FunctionSet &functions, const std::shared_ptr<Simulator::Core> &core);

    void PutComponent(const Simulator::NetworkComponent &component);
    void PutDevice(const Simulator::Device &device);
    /// @param state  SERVICE_RUNNING and its like.
    void PutService(const std::wstring &name, DWORD state);
    /// @param path  below HKEY_LOCAL_MACHINE.
    void PutKey(const std::wstring &path);
    /// Another program holds the write lock of the network configuration.
    void LockNetwork(const std::wstring &holder);
    /// @param function  see Simulator::SetupLibrary::Lack.
    void Lack(const std::string &function);

    const Simulator::SystemFolders &Folders() const { return m_folders; }
    Inventory Take() const;

private:
    Simulator::RegistrySandbox m_registry;
    Simulator::SystemFolders m_folders;
    Simulator::FilesInUse m_filesInUse;
    Simulator::ServiceManager m_services;
    Simulator::Security m_security;
    Simulator::SetupLibrary m_setup;
    Simulator::NetworkParts m_network;
    std::set<std::wstring> m_deviceIds;
    std::set<std::wstring> m_serviceNames;
    std::set<std::wstring> m_keyPaths;
};
