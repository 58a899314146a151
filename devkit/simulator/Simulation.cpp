#include "Simulation.h"

#include "WindowsFunctions.h"

namespace Simulator {

namespace {

std::shared_ptr<Core> MakeCore() {
    const InsideSimulator inside;
    return std::make_shared<Core>();
}

}  // namespace

Simulation::Simulation(const SimulationParts &parts)
    : m_core(MakeCore()), m_counts(parts.balance), m_functions(m_core) {
    InstallClock(m_functions, m_core->clock);
    if (parts.registry) {
        m_registry.emplace();
        InstallRegistry(m_functions);
    }
    if (parts.folders) {
        m_folders.emplace();
        m_filesInUse.emplace();
        InstallFiles(m_functions);
        InstallFilesInUse(m_functions, *m_filesInUse);
        InstallFolders(m_functions, *m_folders);
        InstallMappedPaths(m_functions, *m_folders);
    }
    if (parts.machine) {
        m_machine.emplace();
        InstallMachine(m_functions, *m_machine);
    }
    if (parts.services) {
        m_services.emplace();
        InstallServices(m_functions, *m_services);
    }
    if (parts.security) {
        m_security.emplace();
        InstallSecurity(m_functions, *m_security);
        if (parts.registry)
            InstallProtectedKeys(m_functions, *m_security, *m_registry);
    }
    if (parts.setup) {
        m_setup.emplace();
        InstallSetupLibrary(m_functions, *m_setup, parts.folders ? &*m_folders : nullptr);
    }
    if (parts.network) {
        m_network.emplace();
        InstallCom(m_functions, m_network->com);
        InstallDevices(m_functions, m_network->devices);
        InstallNetwork(m_functions, m_core, m_network->com, m_network->configuration);
    }
    if (parts.balance) {
        Balance &balance = Balance::Instance();
        InstallBalance(m_functions, balance);
        m_functions.OnAttach([&balance](HMODULE module) { balance.Remember(module); });
        balance.Start();
    }
}

Simulation::~Simulation() {
    if (!m_counts)
        return;
    Balance &balance = Balance::Instance();
    balance.Stop();
    if (balance.GuardedBlocks() != 0)
        m_functions.Abandon(MemoryFunctionNames());
}

}  // namespace Simulator
