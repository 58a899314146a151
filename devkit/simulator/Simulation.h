// The simulated Windows as a whole.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Balance.h"
#include "Firewall.h"
#include "FunctionSet.h"
#include "InstalledParts.h"
#include "Machine.h"

namespace Simulator {

/// The parts that it should have. Journal, faults and clock always exist; the clock starts as the real one.
struct SimulationParts {
    bool registry = true;  ///< A private registry, and the registry functions in journal and faults.
    bool folders = true;   ///< Private folders, mapped paths, and the file functions in journal and faults.
    bool balance = true;   ///< Counts what is created and not released: see Kind.
    bool machine = true;   ///< A simulated load and version, and the functions that report them in journal and faults.
    bool services = true;  ///< Simulated services, none at first, and their functions in journal and faults.
    bool security = true;  ///< Simulated privileges and security of keys, and their functions in journal and faults.
    bool setup = true;     ///< The functions for INF files, with the folders if there are any.
    bool network =
        true;  ///< COM, network components, adapters and devices, none at first, and everything that reports them.
    bool firewall = true;  ///< COM, and a firewall that is on everywhere and lists nothing.
};

/// Owns the parts. One per process at a time; later models build on `Functions()`.
///     Simulation simulation;
///     simulation.Attach(GetModuleHandleW(L"fc.dll"));
///     const auto plan = simulation.GetFaults().FailNth("RegOpenKeyExW", 2, ERROR_ACCESS_DENIED);
class Simulation {
public:
    explicit Simulation(const SimulationParts &parts = {});
    /// Releases what hangs and waits, and restores all import tables; only those of the memory functions stay, without
    /// effect, while guarded blocks exist that are still to be freed.
    ~Simulation();
    Simulation(const Simulation &) = delete;
    Simulation &operator=(const Simulation &) = delete;

    [[nodiscard]] FunctionSet &Functions() { return m_functions; }
    [[nodiscard]] Journal &GetJournal() { return m_core->journal; }
    [[nodiscard]] Faults &GetFaults() { return m_core->faults; }
    [[nodiscard]] Clock &GetClock() { return m_core->clock; }
    /// @throws std::bad_optional_access  if the part was not requested.
    [[nodiscard]] RegistrySandbox &GetRegistry() { return m_registry.value(); }
    [[nodiscard]] SystemFolders &GetFolders() { return m_folders.value(); }
    /// With the folders.
    [[nodiscard]] FilesInUse &GetFilesInUse() { return m_filesInUse.value(); }
    [[nodiscard]] Machine &GetMachine() { return m_machine.value(); }
    [[nodiscard]] ServiceManager &GetServices() { return m_services.value(); }
    [[nodiscard]] Security &GetSecurity() { return m_security.value(); }
    [[nodiscard]] SetupLibrary &GetSetup() { return m_setup.value(); }
    [[nodiscard]] Firewall &GetFirewall() { return *m_firewall.value(); }
    /// With the network or the firewall.
    [[nodiscard]] ComLibrary &GetCom() { return m_network ? m_network->com : m_com.value(); }
    // With the network.
    [[nodiscard]] DeviceManager &GetDevices() { return *m_network.value().devices; }
    [[nodiscard]] NetworkConfiguration &GetNetwork() { return *m_network.value().configuration; }
    [[nodiscard]] Balance &GetBalance() { return Balance::Instance(); }

    /// See FunctionSet.
    std::size_t Attach(HMODULE module, const std::set<std::string> &names = {}) {
        return m_functions.Attach(module, names);
    }
    void AttachWhenLoaded(const std::wstring &baseName) { m_functions.AttachWhenLoaded(baseName); }
    void Detach(HMODULE module) { m_functions.Detach(module); }

private:
    [[nodiscard]] InstalledParts MakeInstalled(const SimulationParts &parts);

    std::shared_ptr<Core> m_core;
    std::optional<RegistrySandbox> m_registry;
    std::optional<SystemFolders> m_folders;
    std::optional<FilesInUse> m_filesInUse;
    std::optional<Machine> m_machine;
    std::optional<ServiceManager> m_services;
    std::optional<Security> m_security;
    std::optional<SetupLibrary> m_setup;
    std::optional<ComLibrary> m_com;  ///< Without the network, which includes it.
    std::optional<NetworkParts> m_network;
    std::optional<std::shared_ptr<Firewall>> m_firewall;
    bool m_counts;
    FunctionSet m_functions;
};

}  // namespace Simulator
