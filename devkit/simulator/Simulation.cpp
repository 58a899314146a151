#include "Simulation.h"

#include "AdapterDevices.h"
#include "IpHelper.h"
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
    Install(m_functions, m_core, MakeInstalled(parts));
    if (parts.folders)
        InstallMappedPaths(m_functions, *m_folders);
    if (parts.machine)
        InstallMachine(m_functions, m_machine.emplace());
    if (parts.firewall) {
        if (!parts.network)
            InstallCom(m_functions, m_com.emplace());
        m_firewall = std::make_shared<Firewall>();
        InstallFirewall(m_functions, m_core, GetCom(), *m_firewall, parts.machine ? &*m_machine : nullptr);
    }
    if (parts.balance) {
        Balance &balance = Balance::Instance();
        InstallBalance(m_functions, balance);
        m_functions.OnAttach([&balance](HMODULE module) { balance.Remember(module); });
        balance.Start();
    }
}

InstalledParts Simulation::MakeInstalled(const SimulationParts &parts) {
    InstalledParts made;
    if (parts.registry)
        made.registry = &m_registry.emplace();
    if (parts.folders) {
        made.folders = &m_folders.emplace();
        made.filesInUse = &m_filesInUse.emplace();
    }
    if (parts.services)
        made.services = &m_services.emplace();
    if (parts.security)
        made.security = &m_security.emplace();
    if (parts.setup)
        made.setup = &m_setup.emplace();
    if (parts.network)
        made.network = &m_network.emplace();
    return made;
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
