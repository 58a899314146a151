#include "NetworkBindingList.h"

#include <utility>

namespace Simulator {

void NetworkBindingList::Set(const NetworkBinding &binding) {
    const auto [place, isNew] = m_places[binding.adapter].try_emplace(binding.component, m_bindings.size());
    if (isNew)
        m_bindings.push_back(binding);
    else
        m_bindings[place->second].enabled = binding.enabled;
}

const NetworkBinding *NetworkBindingList::Find(const std::wstring &pnpDevNodeId,
                                               const std::wstring &componentId) const {
    const auto adapter = m_places.find(pnpDevNodeId);
    if (adapter == m_places.end())
        return nullptr;
    const auto place = adapter->second.find(componentId);
    return place == adapter->second.end() ? nullptr : &m_bindings[place->second];
}

std::vector<const NetworkBinding *> NetworkBindingList::OfAdapter(const std::wstring &pnpDevNodeId) const {
    std::vector<const NetworkBinding *> bindings;
    const auto adapter = m_places.find(pnpDevNodeId);
    if (adapter != m_places.end())
        for (const auto &[component, place] : adapter->second)
            bindings.push_back(&m_bindings[place]);
    return bindings;
}

void NetworkBindingList::RemoveOf(const std::wstring &componentId) {
    const NetworkBindingList all = std::exchange(*this, {});
    for (const NetworkBinding &binding : all)
        if (!SameInAnyCase(binding.component, componentId))
            Set(binding);
}

}  // namespace Simulator
