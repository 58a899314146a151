#include "InstallScenarios.h"

#include <stdexcept>

namespace {

using Simulator::NetworkMoment;
using Simulator::NetworkState;
using std::filesystem::path;

constexpr wchar_t kServicesKey[] = L"SYSTEM\\CurrentControlSet\\Services";
constexpr wchar_t kNdisParametersKey[] = L"SYSTEM\\CurrentControlSet\\Services\\NDIS\\Parameters";

DWORD IndexOf(const NetworkState &state, const std::wstring &node) {
    for (const Simulator::NetworkComponent &component : state.components) {
        if (component.adapter && component.adapter->pnpDevNodeId == node)
            return component.adapter->index;
    }
    throw std::logic_error("the machine has no such adapter");
}

}  // namespace

const char *NameOf(Scenario scenario) {
    switch (scenario) {
        case Scenario::Fresh:
            return "fresh";
        case Scenario::Upgrade:
            return "upgrade";
        case Scenario::ForcedDowngrade:
            return "forced downgrade";
        case Scenario::PartialAfterReboot:
            return "partial after reboot";
        case Scenario::Embedded:
            return "embedded";
        case Scenario::BrokenNetwork:
            return "broken network";
    }
    throw std::logic_error("no such scenario");
}

bool IsUpgrade(Scenario scenario) {
    return scenario == Scenario::Upgrade || scenario == Scenario::ForcedDowngrade;
}

InstallScenarios::InstallScenarios() {
    network().PutAdapter({.id = L"ROOT\\LOOPBACK",
                          .bindName = L"{33333333-0000-0000-0000-000000000003}",
                          .pnpDevNodeId = kThird,
                          .displayName = L"Third adapter",
                          .characteristics = NCF_VIRTUAL,
                          .mac = {2, 0, 76, 79, 79, 80}});
    m_withoutDriver = network().Read();
    const DWORD first = IndexOf(m_withoutDriver, kFirst);
    m_withoutDriver.arp = {{first, "10.0.0.1", {2, 0, 0, 0, 0, 1}},
                           {first, "10.0.0.77", {2, 0, 0, 0, 0, 7}, MIB_IPNET_TYPE_STATIC}};
    onMoment = [this](const NetworkMoment &moment) {
        if (moment.component != L"qbimvta")
            return;
        if (moment.what == NetworkMoment::What::Installed) {
            simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, kFilterServiceKey);
            if (m_scenario == Scenario::BrokenNetwork)
                BreakNetwork();
        } else if (moment.what == NetworkMoment::What::Removed) {
            simulation().GetRegistry().Remove(HKEY_LOCAL_MACHINE, kFilterServiceKey);
        }
    };
    simulation().GetDevices().OnChange([this](const Simulator::DeviceChange &change) {
        if (change.instanceId == kFirst && change.state == DICS_ENABLE)
            network().ChangeAdapter(kFirst, [](Simulator::NetworkAdapter &adapter) { adapter.ip = kFirstAddress; });
    });
}

void InstallScenarios::BreakNetwork() {
    network().ChangeAdapter(kFirst, [](Simulator::NetworkAdapter &adapter) { adapter.ip = "0.0.0.0"; });
}

void InstallScenarios::Take(Scenario scenario) {
    m_scenario = scenario;
    TakeEverythingAway();
    simulation().GetMachine().suiteMask =
        scenario == Scenario::Embedded ? VER_SUITE_EMBEDDEDNT : VER_SUITE_SINGLEUSERTS;
    dom.Set("vtp.filter.ForceDriverInstall", scenario == Scenario::ForcedDowngrade);
    if (scenario == Scenario::Upgrade)
        PutOldDriver({1, 2, 3, 4});
    else if (scenario == Scenario::ForcedDowngrade)
        PutOldDriver({2, 0, 0, 1});
    else if (scenario == Scenario::PartialAfterReboot)
        PutFilesWithoutDriver();
}

void InstallScenarios::TakeEverythingAway() {
    network().Use([this](NetworkState &state) {
        const unsigned lastKey = state.lastKey;
        state = m_withoutDriver;
        state.lastKey = lastKey;
    });
    for (const wchar_t *node : {kFirst, kSecond, kThird})
        simulation().GetDevices().Put({.instanceId = node, .description = L"Network adapter"});
    simulation().GetServices().Remove(L"qbimwfp");
    Vti::Reset();
    SetRunningVersion(std::nullopt);
    simulation().GetRegistry().Remove(HKEY_LOCAL_MACHINE, kServicesKey);
    simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, kNdisParametersKey);
    RemoveInfFiles();
    for (const path &file : {path(L"drivers") / L"qbimvta.sys", path(L"qbimvtaHC.dat"), path(L"qbimwfpHC.dat")})
        remove(simulation().GetFolders().System32() / file);
    remove(simulation().GetFolders().Windows() / L"qbimvta.sys");
}

/// Except one of another process.
void InstallScenarios::RemoveInfFiles() {
    for (const path &folder : {simulation().GetFolders().Inf(), simulation().GetFolders().Catalogs()}) {
        std::vector<path> files;
        for (const auto &entry : std::filesystem::directory_iterator(folder))
            files.push_back(entry.path());
        for (const path &file : files) {
            if (file.filename().wstring().starts_with(L"oem"))
                remove(file);
        }
    }
    PutInf(L"oem3.inf", InfNaming("another", 100));
}

void InstallScenarios::PutOldDriver(const Version &version) {
    InstallOldDriver(version);
    network().Bind(kSecond, L"qbimvta", false);
    network().Bind(kThird, L"qbimvta", false);
    simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, kFilterServiceKey);
}

void InstallScenarios::PutFilesWithoutDriver() {
    InstallOldDriver(kOurVersion);
    SetRunningVersion(std::nullopt);
    simulation().GetServices().Put(L"qbimwfp", {.status = {SERVICE_STOPPED}});
}

std::array<bool, 3> InstallScenarios::BindingsAfter(Scenario scenario) {
    return {true, !IsUpgrade(scenario), false};
}

std::array<bool, 3> InstallScenarios::Bindings() {
    return {IsBound(kFirst), IsBound(kSecond), IsBound(kThird)};
}

std::string InstallScenarios::FirstAddress() {
    std::string address;
    network().ChangeAdapter(kFirst, [&address](const Simulator::NetworkAdapter &adapter) { address = adapter.ip; });
    return address;
}
