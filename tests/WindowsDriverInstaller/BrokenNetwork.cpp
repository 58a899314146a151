#include "BrokenNetwork.h"

#include <utility>

#include "FunctionSet.h"

namespace Watched {

namespace {

SIMULATOR_FUNCTION(GetAdaptersInfo, "IPHLPAPI.DLL", ReturnsStatus);
SIMULATOR_FUNCTION(GetIpNetTable, "IPHLPAPI.DLL", ReturnsStatus);

}  // namespace

}  // namespace Watched

BrokenNetwork::BrokenNetwork(Simulator::Simulation &simulation) : m_simulation(simulation) {
    simulation.GetDevices().OnChange([this](const Simulator::DeviceChange &change) { OnChange(change); });
    simulation.Functions().Put<Watched::GetIpNetTable>([this](const auto &next, auto... arguments) {
        BeginCheck();
        return next(arguments...);
    });
    simulation.Functions().Put<Watched::GetAdaptersInfo>([this](const auto &next, auto... arguments) {
        Check();
        return next(arguments...);
    });
}

BrokenNetwork::~BrokenNetwork() {
    m_simulation.GetDevices().OnChange(nullptr);
}

void BrokenNetwork::Break(const std::wstring &node, Recovery recovery, Damage damage) {
    m_brokenAdapters[node] = {recovery, std::move(damage)};
}

void BrokenNetwork::BreakNow(const std::wstring &node) {
    BrokenAdapter &broken = m_brokenAdapters.at(node);
    if (std::exchange(broken.broken, true))
        return;
    m_simulation.GetNetwork().ChangeAdapter(node, [&broken](Simulator::NetworkAdapter &adapter) {
        broken.before = adapter;
        broken.damage(adapter);
    });
}

void BrokenNetwork::Repair(const std::wstring &node) {
    BrokenAdapter &broken = m_brokenAdapters.at(node);
    if (!std::exchange(broken.broken, false))
        return;
    m_simulation.GetNetwork().ChangeAdapter(node,
                                            [&broken](Simulator::NetworkAdapter &adapter) { adapter = broken.before; });
}

void BrokenNetwork::OnMoment(const Simulator::NetworkMoment &moment) {
    using What = Simulator::NetworkMoment::What;
    if (moment.component != L"qbimvta")
        return;
    if (moment.what == What::Installed) {
        m_checking = false;
        m_checks.clear();
        for (const auto &[node, broken] : m_brokenAdapters)
            BreakNow(node);
        return;
    }
    const auto rebound = m_brokenAdapters.find(moment.adapter);
    if (moment.what == What::BindingEnabled && rebound != m_brokenAdapters.end() &&
        rebound->second.recovery == Recovery::Rebinding)
        Repair(moment.adapter);
}

void BrokenNetwork::OnChange(const Simulator::DeviceChange &change) {
    const auto restarted = m_brokenAdapters.find(change.instanceId);
    if (change.state == DICS_ENABLE && restarted != m_brokenAdapters.end() &&
        restarted->second.recovery == Recovery::Restart && m_simulation.GetDevices().IsEnabled(change.instanceId))
        Repair(change.instanceId);
}

void BrokenNetwork::BeginCheck() {
    if (!std::exchange(m_checking, true))
        m_checkBegan = m_simulation.GetClock().TickMs();
}

void BrokenNetwork::Check() {
    const std::uint64_t now = m_simulation.GetClock().TickMs() - m_checkBegan;
    if (!m_checking || (!m_checks.empty() && m_checks.back() == now))
        return;
    m_checks.push_back(now);
    const auto event = m_atCheck.find(m_checks.size());
    if (event != m_atCheck.end())
        event->second();
}
