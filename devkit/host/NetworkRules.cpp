#include "NetworkRules.h"

#include <utility>

#include "AnyCase.h"

namespace {

bool IsMomentOf(const NetworkRule &rule, const NetworkHappening &happening) {
    return rule.when.what == happening.what && Simulator::SameInAnyCase(rule.when.component, happening.component) &&
           (rule.when.adapter.empty() || Simulator::SameInAnyCase(rule.when.adapter, happening.adapter));
}

}  // namespace

void ChangeAdapter(Simulator::NetworkAdapter &adapter, const AdapterChange &change) {
    adapter.ip = change.ip.value_or(adapter.ip);
    adapter.gateway = change.gateway.value_or(adapter.gateway);
    adapter.deviceStatus = change.status.value_or(adapter.deviceStatus);
    if (change.frames)
        adapter.frames = change.frames;
    if (change.connected)
        adapter.mediaStatus = *change.connected ? 0 : 1;
    if (change.gatewayAnswers)
        adapter.gatewayMac = *change.gatewayAnswers ? Simulator::NetworkAdapter{}.gatewayMac : std::vector<BYTE>();
}

std::size_t NetworkRules::Add(NetworkRule rule) {
    const Simulator::LockGuard guard(m_lock);
    m_rules.emplace(m_added, std::move(rule));
    return m_added++;
}

bool NetworkRules::IsOpen(std::size_t number) const {
    const Simulator::LockGuard guard(m_lock);
    return m_rules.contains(number);
}

std::vector<NetworkRule> NetworkRules::Take(const NetworkHappening &happening) {
    const Simulator::LockGuard guard(m_lock);
    std::vector<NetworkRule> taken;
    std::erase_if(m_rules, [&](auto &numbered) {
        if (!IsMomentOf(numbered.second, happening))
            return false;
        taken.push_back(std::move(numbered.second));
        return true;
    });
    return taken;
}
