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
        Look();
        return next(arguments...);
    });
}

BrokenNetwork::~BrokenNetwork() {
    m_simulation.GetDevices().OnChange(nullptr);
}

void BrokenNetwork::Break(const std::wstring &node, Cure cure, Harm harm) {
    m_patients[node] = {cure, std::move(harm)};
}

void BrokenNetwork::Hurt(const std::wstring &node) {
    Patient &patient = m_patients.at(node);
    if (std::exchange(patient.broken, true))
        return;
    m_simulation.GetNetwork().ChangeAdapter(node, [&patient](Simulator::NetworkAdapter &adapter) {
        patient.before = adapter;
        patient.harm(adapter);
    });
}

void BrokenNetwork::Heal(const std::wstring &node) {
    Patient &patient = m_patients.at(node);
    if (!std::exchange(patient.broken, false))
        return;
    m_simulation.GetNetwork().ChangeAdapter(
        node, [&patient](Simulator::NetworkAdapter &adapter) { adapter = patient.before; });
}

void BrokenNetwork::OnMoment(const Simulator::NetworkMoment &moment) {
    using What = Simulator::NetworkMoment::What;
    if (moment.component != L"qbimvta")
        return;
    if (moment.what == What::Installed) {
        m_checking = false;
        m_looks.clear();
        for (const auto &[node, patient] : m_patients)
            Hurt(node);
        return;
    }
    const auto rebound = m_patients.find(moment.adapter);
    if (moment.what == What::BindingEnabled && rebound != m_patients.end() && rebound->second.cure == Cure::Rebinding)
        Heal(moment.adapter);
}

void BrokenNetwork::OnChange(const Simulator::DeviceChange &change) {
    const auto restarted = m_patients.find(change.instanceId);
    if (change.state == DICS_ENABLE && restarted != m_patients.end() && restarted->second.cure == Cure::Restart &&
        m_simulation.GetDevices().IsEnabled(change.instanceId))
        Heal(change.instanceId);
}

void BrokenNetwork::BeginCheck() {
    if (!std::exchange(m_checking, true))
        m_checkBegan = m_simulation.GetClock().TickMs();
}

void BrokenNetwork::Look() {
    const std::uint64_t now = m_simulation.GetClock().TickMs() - m_checkBegan;
    if (!m_checking || (!m_looks.empty() && m_looks.back() == now))
        return;
    m_looks.push_back(now);
    const auto event = m_atLook.find(m_looks.size());
    if (event != m_atLook.end())
        event->second();
}
