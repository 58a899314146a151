// Bindings as an engine sees and changes them.
#include <algorithm>
#include <utility>

#include "NetworkEngine.h"

namespace Simulator {

namespace {

/// The binding in the machine's list; null if there is none, or one of its ends was removed.
const NetworkBinding *BindingBetween(NetworkState &state, const BindingEnds &ends) {
    const NetworkComponent *adapter = ComponentWithKey(state, ends.adapter);
    const NetworkComponent *component = ComponentWithKey(state, ends.component);
    if (adapter == nullptr || !adapter->adapter || component == nullptr)
        return nullptr;
    return state.bindings.Find(adapter->adapter->pnpDevNodeId, component->id);
}

/// In the order of the components above it.
void AppendThoseAbove(const NetworkState &state, const NetworkComponent &adapter, std::vector<BindingEnds> &bindings) {
    if (!adapter.adapter)
        return;
    const auto bound = state.bindings.OfAdapter(adapter.adapter->pnpDevNodeId);
    for (const NetworkComponent &other : state.components)
        if (std::any_of(bound.begin(), bound.end(),
                        [&other](const NetworkBinding *each) { return SameInAnyCase(each->component, other.id); }))
            bindings.push_back({adapter.key, other.key});
}

void AppendThoseBelow(const NetworkState &state, const NetworkComponent &component,
                      std::vector<BindingEnds> &bindings) {
    for (const NetworkComponent &other : state.components)
        if (other.adapter && state.bindings.Find(other.adapter->pnpDevNodeId, component.id) != nullptr)
            bindings.push_back({other.key, component.key});
}

}  // namespace

HRESULT NetworkEngine::IsEnabled(const BindingEnds &ends) {
    return WhenInitialized([&](NetworkState &state) -> HRESULT {
        const NetworkBinding *binding = BindingBetween(state, ends);
        if (binding == nullptr)
            return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
        const NetworkBinding *changed = m_changed.Find(binding->adapter, binding->component);
        return (changed == nullptr ? *binding : *changed).enabled ? S_OK : S_FALSE;
    });
}

HRESULT NetworkEngine::Enable(const BindingEnds &ends, bool enable) {
    return WhenLocked([&](NetworkState &state) -> HRESULT {
        const NetworkBinding *binding = BindingBetween(state, ends);
        if (binding == nullptr)
            return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
        m_changed.Set({binding->adapter, binding->component, enable});
        return S_OK;
    });
}

HRESULT NetworkEngine::BindingsOf(unsigned key, bool above, std::vector<BindingEnds> &bindings) {
    return WhenInitialized([&](NetworkState &state) -> HRESULT {
        const NetworkComponent *const component = ComponentWithKey(state, key);
        if (component == nullptr)
            return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
        if (above)
            AppendThoseAbove(state, *component, bindings);
        else
            AppendThoseBelow(state, *component, bindings);
        return S_OK;
    });
}

std::vector<NetworkBinding> NetworkEngine::Commit(NetworkState &state) {
    std::vector<NetworkBinding> applied;
    const NetworkBindingList changes = std::exchange(m_changed, {});
    for (const NetworkBinding &change : changes) {
        const NetworkBinding *const binding = state.bindings.Find(change.adapter, change.component);
        if (binding == nullptr || binding->enabled == change.enabled)
            continue;
        state.bindings.Set(change);
        applied.push_back(*binding);
    }
    return applied;
}

}  // namespace Simulator
